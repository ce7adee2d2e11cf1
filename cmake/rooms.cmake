# vorlan_room(TARGET ROOM [HEADERS FILES...] USES TARGETS...)
#
# Makes TARGET the owner of the folder ROOM (relative to src/ or to the top of the tree) and lets
# it use other rooms, and what those use in their turn. A header is included as "ROOM/header.h"; each
# room is reached through an include directory of its own that holds nothing but a link to the room,
# so an include upward or sideways does not build. A room whose folder holds other rooms as well
# names its HEADERS: those are then all that can be included from it.
function(vorlan_room target room)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "HEADERS;USES")
    set(door ${CMAKE_BINARY_DIR}/rooms/${target})
    if(arg_HEADERS)
        file(MAKE_DIRECTORY ${door}/${room})
        foreach(header IN LISTS arg_HEADERS)
            file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${door}/${room}/${header} SYMBOLIC)
        endforeach()
    else()
        cmake_path(GET room PARENT_PATH parent)
        file(MAKE_DIRECTORY ${door}/${parent})
        file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${door}/${room} SYMBOLIC)
    endif()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        target_include_directories(${target} INTERFACE ${door})
        target_link_libraries(${target} INTERFACE ${arg_USES})
    else()
        target_include_directories(${target} PUBLIC ${door})
        target_link_libraries(${target} PUBLIC ${arg_USES} PRIVATE vorlan_warnings)
    endif()
endfunction()
