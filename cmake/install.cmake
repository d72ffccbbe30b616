# The files that `cmake --install` installs, in components that can be installed apart.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/lumora)

lumora_install_library(lumora runtime)
install(FILES include/lumora.h include/lumora.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
# For those who write platform libraries.
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lumora-platform COMPONENT dev)
install(EXPORT lumoraTargets NAMESPACE lumora:: DESTINATION ${package_folder} COMPONENT dev)
configure_package_config_file(cmake/lumoraConfig.cmake.in lumoraConfig.cmake INSTALL_DESTINATION ${package_folder}
    NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(lumoraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lumoraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/lumoraConfigVersion.cmake
    DESTINATION ${package_folder} COMPONENT dev)
if(LUMORA_PLATFORM STREQUAL "external")
    install(FILES cmake/external_platform.cmake DESTINATION ${package_folder} COMPONENT dev)
endif()

# The notices that must be redistributed with the installed files. Our Debian packages have a file of their own.
install(FILES LICENSE SECURITY.md packaging/debian/copyright ${PROJECT_BINARY_DIR}/lumora.spdx.json
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/lumora COMPONENT notices)

# The folders relative to the file itself: an unpacked tree can be moved, and used as part of a sysroot.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" pc_prefix ${pc_prefix})
# The linker also looks for the libraries that liblumora_cpp.so needs, but not in the folders of -L.
set(pc_libraries "-L\${libdir} -Wl,-rpath-link,\${libdir} -llumora_cpp")
set(pc_requires "")
if(NOT BUILD_SHARED)
    string(APPEND pc_libraries " -llumora -llink_log -lsecurec -lstdc++ -pthread")
    set(pc_requires "libcjson")
endif()
configure_file(cmake/lumora.pc.in lumora.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lumora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
