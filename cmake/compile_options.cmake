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

# Built files do not contain the names of build folders. If two prefixes match, the compiler takes the latter.
set(lumora_paths $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.;-ffile-prefix-map=${CMAKE_BINARY_DIR}=./build>)

# If CMAKE_UNITY_BUILD joins sources, the fixtures of tests are no longer in the file that is compiled.
if(CMAKE_UNITY_BUILD)
    list(APPEND lumora_warnings $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-subobject-linkage>)
endif()

# Sources that CMAKE_UNITY_BUILD must not join with others: they give names that others give to something else,
# or programs link them without the others.
function(lumora_compile_alone)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# Tests go without the sanitizer for undefined behaviour: it makes several branches of each of their checks, and
# compiling those takes as long as all else of them.
function(lumora_sanitizers_of_sources result)
    set(sanitizers ${LUMORA_SANITIZE})
    if(lumora_sources_are_tests)
        string(REPLACE ",undefined" "" sanitizers "${sanitizers}")
    endif()
    set(${result} ${sanitizers} PARENT_SCOPE)
endfunction()

function(lumora_compile_options target)
    target_compile_options(${target} PRIVATE ${lumora_warnings} "${lumora_paths}" "${lumora_hardening}")
    target_link_options(${target} PRIVATE ${lumora_link_hardening})
    if(LUMORA_SANITIZE)
        lumora_sanitizers_of_sources(sanitizers)
        target_compile_options(${target} PRIVATE -fsanitize=${sanitizers} -fno-omit-frame-pointer
                               -fno-sanitize-recover=all)
        target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
        target_link_options(${target} PUBLIC -fsanitize=${LUMORA_SANITIZE})
    endif()
endfunction()
