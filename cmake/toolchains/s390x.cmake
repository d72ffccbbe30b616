# A 64-bit machine that keeps the high byte first.
set(lumora_arch s390x)
set(lumora_triplet s390x-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(lumora_emulator qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
