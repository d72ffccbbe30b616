# Debian packages, made by CPack from the components of the installation; scripts/package says how.
# The platform libraries are a package of their own, which a vendor's replaces.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumora)
set(CPACK_PACKAGE_VENDOR Lumora)
set(CPACK_PACKAGE_CONTACT "Lumora developers <developers@lumora.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENTS_ALL runtime platform dev python doc)
if(LUMORA_BUILD_EXAMPLES)
    list(APPEND CPACK_COMPONENTS_ALL examples)
endif()
if(LUMORA_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(LUMORA_BUILD_HUB)
    list(APPEND CPACK_COMPONENTS_ALL hub)
endif()

set(any_platform "lumora-platform | lumora-platform-libraries")

# The dependencies are read from the programs. This is not possible for the packages of another machine.
if(CMAKE_CROSSCOMPILING)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${lumora_arch})
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
    set(base_needs "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12)")
    set(runtime_needs "${base_needs}, libcjson1 (>= 1.7.15), ")
    set(platform_needs "${base_needs}, libcoap3 (>= 4.3.1), libssl3 (>= 3.0.0)")
    set(examples_needs "${base_needs}, ")
    set(tools_needs "${base_needs}, libcjson1 (>= 1.7.15), ${any_platform}, ")
    if(SQLITE_FOUND)
        string(APPEND tools_needs "libsqlite3-0 (>= 3.31), ")
    endif()
else()
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()
set(same_runtime "liblumora-cpp (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblumora-cpp)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${runtime_needs}${any_platform}")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Programs find devices by type over multicast, send them commands and blocks
of data, and receive what they have to say; or they are such a device.")

# A package that provides the three libraries of these names replaces the former one.
set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME lumora-platform)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_DEPENDS "${platform_needs}")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_PROVIDES lumora-platform-libraries)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONFLICTS lumora-platform-libraries)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_REPLACES lumora-platform-libraries)
set(CPACK_COMPONENT_PLATFORM_DESCRIPTION "This package has the three platform libraries under Lumora, for any Linux
host: discovery over CoAP, log and bounded copies. A device's vendor may
provide others of the same names; they replace these.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liblumora-cpp-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${same_runtime}, ${any_platform}")
set(CPACK_COMPONENT_DEV_DESCRIPTION "This package has what programs that use Lumora are built with: the headers
for C and for C++, and the files by which CMake and pkg-config find it.")

set(CPACK_DEBIAN_EXAMPLES_PACKAGE_NAME lumora-examples)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SECTION net)
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_DEPENDS "${examples_needs}${same_runtime}")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SUGGESTS tesseract-ocr-eng)
set(CPACK_COMPONENT_EXAMPLES_DESCRIPTION "This package has, in /usr/libexec/lumora, a device that echoes what it is
sent and a client of it, in C and in C++; a device that reads the text in
pictures, a client that sends it one, and a program that renders a page to a
picture.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME lumora-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${tools_needs}${same_runtime}")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "This package has the command-line program lumora, which finds devices, talks
to them, plays one and looks for what is wrong with a network, and
lumora-platform-check, which tells in what a vendor's platform libraries
deviate.")

# The hub's worker has the library linked in, so that only the platform libraries are needed.
set(CPACK_DEBIAN_HUB_PACKAGE_NAME lumora-hub)
set(CPACK_DEBIAN_HUB_PACKAGE_SECTION net)
set(CPACK_DEBIAN_HUB_PACKAGE_DEPENDS "${tools_needs}${any_platform}")
set(CPACK_DEBIAN_HUB_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/lumora-hub/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/lumora-hub/postrm
    ${PROJECT_SOURCE_DIR}/packaging/debian/lumora-hub/prerm)
set(CPACK_COMPONENT_HUB_DESCRIPTION "This package has the program lumora-hub, which holds channels to the devices of
a network and hands out what they send to any number of consumers, and its
service.")

# A folder in which the Python of every Debian looks. On other systems pip installs the package.
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-lumora)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any (>= 3.9), ${same_runtime}")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS python3-numpy)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/python3-lumora/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/python3-lumora/prerm)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "This package has a client and a device as classes of Python 3: blocks to
iterate over, in coroutines as well, type hints, errors as exceptions.")
file(WRITE ${PROJECT_BINARY_DIR}/lumora.egg-info
    "Metadata-Version: 2.1\nName: lumora\nVersion: ${PROJECT_VERSION}\nSummary: ${PROJECT_DESCRIPTION}\n"
    "License: Apache-2.0\nRequires-Python: >=3.9\n")
set(python_folder lib/python3/dist-packages)
install(DIRECTORY python/lumora DESTINATION ${python_folder} COMPONENT python
    FILES_MATCHING PATTERN "*.py" PATTERN py.typed PATTERN __pycache__ EXCLUDE)
install(FILES ${PROJECT_BINARY_DIR}/lumora.egg-info DESTINATION ${python_folder}
    RENAME lumora-${PROJECT_VERSION}.egg-info COMPONENT python)
install(FILES examples/python/device.py examples/python/client.py examples/python/sensor.py
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-lumora/examples COMPONENT python)

set(CPACK_DEBIAN_DOC_PACKAGE_NAME lumora-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_COMPONENT_DOC_DESCRIPTION "This package has the documents: a tutorial, a guide, the texts of the log, the
protocol byte by byte, porting and security.")
# Links between them lead from docs/ to the files beside it.
set(doc_folder ${CMAKE_INSTALL_DATADIR}/doc/lumora-doc)
install(DIRECTORY docs DESTINATION ${doc_folder} COMPONENT doc
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
install(FILES README.md SECURITY.md DESTINATION ${doc_folder} COMPONENT doc)
install(FILES ${PROJECT_BINARY_DIR}/lumora.spdx.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/liblumora-cpp COMPONENT runtime)

# Each package has a copyright file and a changelog.
find_program(GZIP_PROGRAM gzip REQUIRED)
execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(name ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES packaging/debian/copyright ${PROJECT_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
    if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/debian/${name}.lintian-overrides)
        install(FILES packaging/debian/${name}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${name} COMPONENT ${component})
    endif()
endforeach()

include(CPack)
