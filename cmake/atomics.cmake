# Machines without 64-bit atomic operations of their own take them from libatomic; lumora_atomics links it.
include(CheckCXXSourceCompiles)

set(atomic_program "
    #include <atomic>
    #include <cstdint>
    std::atomic<std::uint64_t> number;
    int main() { return static_cast<int>(number.fetch_add(1) + number.load()); }")
check_cxx_source_compiles("${atomic_program}" LUMORA_HAS_ATOMICS)
set(lumora_atomics "")
if(NOT LUMORA_HAS_ATOMICS)
    set(lumora_atomics -Wl,--push-state,--as-needed,-latomic,--pop-state)
endif()
