# The common part of the builds for other machines: Debian's cross compiler, and build/sysroot/ARCH of scripts/sysroot.
# Each ARCH.cmake sets lumora_arch, lumora_triplet and lumora_emulator first.

get_filename_component(lumora_root ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT ${lumora_root}/build/sysroot/${lumora_arch})
if(NOT EXISTS ${CMAKE_SYSROOT})
    message(FATAL_ERROR "${CMAKE_SYSROOT} is missing; scripts/sysroot ${lumora_arch} makes it")
endif()

set(CMAKE_C_COMPILER ${lumora_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${lumora_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${lumora_triplet})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# A package is searched for below the parents of the folders of PATH first. With /bin among them that is the sysroot
# itself, whose lib/ leads to usr/lib/: the package would be found, and take its headers to be in include/.
list(PREPEND CMAKE_PREFIX_PATH /usr)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${lumora_triplet}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# Tests run beside the compiler, in an emulator that finds the machine's libraries in the sysroot.
find_program(lumora_emulator_program ${lumora_emulator} NO_CMAKE_FIND_ROOT_PATH)
if(lumora_emulator_program)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${lumora_emulator_program} -L ${CMAKE_SYSROOT})
endif()
