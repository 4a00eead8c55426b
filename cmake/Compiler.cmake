# What every target of this project is compiled with.

set(AGENTKIT_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 sees overlaps in std::string assignments where there are none (its bug 105651).
    list(APPEND AGENTKIT_WARNINGS -Wno-restrict)
endif()
if(AGENTKIT_WERROR)
    list(APPEND AGENTKIT_WARNINGS -Werror)
endif()

if(AGENTKIT_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address,undefined)
elseif(AGENTKIT_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
    add_link_options(-fsanitize=thread)
elseif(AGENTKIT_SANITIZE)
    message(FATAL_ERROR "AGENTKIT_SANITIZE is \"${AGENTKIT_SANITIZE}\"; it can be address, thread or empty")
endif()

if(AGENTKIT_BUILD_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link) # the library is what the fuzzer has to see
endif()

# Language level, warnings and threads, the same for the library and for everything around it.
function(agentkit_target target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
        C_STANDARD 11 C_STANDARD_REQUIRED ON)
    target_compile_options(${target} PRIVATE ${AGENTKIT_WARNINGS})
    find_package(Threads REQUIRED)
    target_link_libraries(${target} PRIVATE Threads::Threads)
endfunction()
