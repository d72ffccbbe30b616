# 32-bit ARM from version 5 on, without a floating-point unit.
set(lumora_arch armel)
set(lumora_triplet arm-linux-gnueabi)
set(CMAKE_SYSTEM_PROCESSOR armv5tel)
set(lumora_emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
