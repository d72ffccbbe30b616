# Warnings, sanitizers and the like, for one target of ours at a time: nothing leaks into the
# projects that include this one.

set(lumora_warnings
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wundef
    -Wcast-align $<$<CXX_COMPILER_ID:GNU>:-Wcast-align=strict>
    $<$<CXX_COMPILER_ID:GNU>:-Wno-psabi> # what compilers before version 7 did on ARM
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:Clang>>:-Wthread-safety>)
if(LUMORA_WARNINGS_AS_ERRORS)
    list(APPEND lumora_warnings -Werror)
endif()

# What is built does not tell in which folders that was; of two that match, the compiler takes the latter.
set(lumora_paths $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.;-ffile-prefix-map=${CMAKE_BINARY_DIR}=./build>)

function(lumora_compile_options target)
    target_compile_options(${target} PRIVATE ${lumora_warnings} "${lumora_paths}")
    if(LUMORA_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${LUMORA_SANITIZE} -fno-omit-frame-pointer
                               -fno-sanitize-recover=all)
        target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
        target_link_options(${target} PUBLIC -fsanitize=${LUMORA_SANITIZE})
    endif()
endfunction()
