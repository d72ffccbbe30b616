# The three platform libraries of a vendor, wherever CMake finds libraries (CMAKE_PREFIX_PATH, or
# CMAKE_LIBRARY_PATH for a plain folder). They are linked by their names, so that a file without a soname leaves
# no path behind in what is linked with it.

function(lumora_find_platform_library target name)
    if(TARGET ${target})
        return()
    endif()
    find_library(${target}_LIBRARY NAMES ${name} REQUIRED)
    mark_as_advanced(${target}_LIBRARY)
    add_library(${target} SHARED IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES IMPORTED_LOCATION ${${target}_LIBRARY} IMPORTED_NO_SONAME ON)
endfunction()

lumora_find_platform_library(lumora_link_platform lumora)
lumora_find_platform_library(lumora_link_log link_log)
lumora_find_platform_library(lumora_securec securec)
