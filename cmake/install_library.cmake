# The run paths by which installed files find our libraries.

# The folders are relative, so that an installed tree can be moved. LD_LIBRARY_PATH comes before them, so that a vendor's
# libraries can be put first. A distribution does not need them, because the dynamic linker knows its folders.
option(LUMORA_INSTALL_RUNPATH "Let installed files find our libraries by a path relative to themselves" ON)

# lumora_run_path(TARGET FOLDER...): CMake would otherwise leave a longer path in what it builds, to be shortened when
# that is installed. The path ends with empty elements until then, which mean the current folder.
function(lumora_run_path target)
    target_link_options(${target} PRIVATE -Wl,--enable-new-dtags)
    if(NOT LUMORA_INSTALL_RUNPATH)
        return()
    endif()
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${ARGN}")
    # A vendor's libraries are in none of these folders while we build: CMake's own path leads to them.
    if(LUMORA_PLATFORM STREQUAL "reference")
        set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
    endif()
endfunction()

# lumora_install_library(TARGET COMPONENT): installs a library of ours and makes it known to lumoraConfig.cmake.
function(lumora_install_library target component)
    lumora_run_path(${target} $ORIGIN)
    install(TARGETS ${target} EXPORT lumoraTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endfunction()

# lumora_install_program(TARGET FOLDER COMPONENT): FOLDER is relative to the prefix, or absolute.
function(lumora_install_program target folder component)
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} NORMALIZE OUTPUT_VARIABLE from)
    file(RELATIVE_PATH libraries ${from} ${CMAKE_INSTALL_FULL_LIBDIR})
    # In the build folder every program stands in bin/, whatever folder it is installed to.
    set(folders $ORIGIN/../lib $ORIGIN/${libraries})
    list(REMOVE_DUPLICATES folders)
    lumora_run_path(${target} ${folders})
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    install(TARGETS ${target} RUNTIME DESTINATION ${folder} COMPONENT ${component})
endfunction()
