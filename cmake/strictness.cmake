# One interface target carries the warnings of every target of ours. Sanitizers go to all targets,
# since mixing instrumented and plain code hides faults.
add_library(vorlan_warnings INTERFACE)
target_compile_options(vorlan_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Wundef -Werror
    # g++ 12 sees overlaps in std::string where there are none.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
    # And at -Og uses of std::stop_source before it is set; the release build looks for real ones.
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Debug>>:-Wno-maybe-uninitialized>)

if(VORLAN_SANITIZE)
    add_compile_options(-fsanitize=${VORLAN_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${VORLAN_SANITIZE})
endif()
