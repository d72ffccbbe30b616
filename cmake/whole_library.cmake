# Optimizes a library across its sources. Its 32-bit ARM build then has a fifth less code, and a third fewer relocations
# at the start of a program.
include(CheckIPOSupported)

# Tests replace functions while they link, which does not reach calls that were optimized before; and a static library
# would hold objects of this one compiler only.
set(lumora_whole_library OFF)
if(LUMORA_WHOLE_LIBRARY AND BUILD_SHARED AND NOT LUMORA_BUILD_TESTS AND NOT LUMORA_BUILD_FUZZERS AND NOT LUMORA_SANITIZE)
    check_ipo_supported(RESULT lumora_whole_library OUTPUT unused LANGUAGES CXX)
endif()

function(lumora_optimize_whole)
    foreach(target IN LISTS ARGN)
        set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ${lumora_whole_library}
                                                   INTERPROCEDURAL_OPTIMIZATION_DEBUG OFF)
        if(lumora_whole_library)
            # The libraries ask no object for its type. Exceptions bring their types along. Tests do ask.
            target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>)
            # The code is made when the library is linked.
            target_link_options(${target} PRIVATE "${lumora_paths}" "${lumora_hardening}")
            if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
                # In one piece. Pieces that are compiled side by side share less code.
                target_link_options(${target} PRIVATE -flto-partition=one)
            endif()
        endif()
    endforeach()
endfunction()
