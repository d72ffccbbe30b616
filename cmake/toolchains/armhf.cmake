# 32-bit ARM from version 7 on, with a floating-point unit.
set(lumora_arch armhf)
set(lumora_triplet arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(lumora_emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
