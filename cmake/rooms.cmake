# vorlan_room(TARGET ROOM USES TARGETS...)
#
# Makes TARGET the owner of the folder ROOM (relative to src/ or to the top of the tree) and lets
# it use other rooms, and what those use in their turn. A header is included as "ROOM/header.h"; each
# room is reached through an include directory of its own that holds nothing but links to the headers
# of that folder, so an include upward or sideways does not build, nor one of a room inside the room.
function(vorlan_room target room)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "USES")
    set(door ${CMAKE_BINARY_DIR}/rooms/${target})
    file(REMOVE_RECURSE ${door})
    file(MAKE_DIRECTORY ${door}/${room})
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} *.h)
    foreach(header IN LISTS headers)
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${door}/${room}/${header} SYMBOLIC)
    endforeach()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        target_include_directories(${target} INTERFACE ${door})
        target_link_libraries(${target} INTERFACE ${arg_USES})
    else()
        target_include_directories(${target} PUBLIC ${door})
        target_link_libraries(${target} PUBLIC ${arg_USES} PRIVATE vorlan_warnings)
    endif()
endfunction()
