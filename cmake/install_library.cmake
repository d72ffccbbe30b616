# lumora_install_library(TARGET COMPONENT): installs a library of ours and makes it known to lumoraConfig.cmake.
function(lumora_install_library target component)
    install(TARGETS ${target} EXPORT lumoraTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endfunction()
