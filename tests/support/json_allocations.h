// The memory of the JSON library, counted and made to fail on demand. One at a time, for one thread.
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdlib>

namespace lumora_test {

class JsonAllocations {
public:
    JsonAllocations() {
        sLive = sMade = sFailAt = 0;
        cJSON_Hooks hooks = {Allocate, Free};
        cJSON_InitHooks(&hooks);
    }
    ~JsonAllocations() { cJSON_InitHooks(nullptr); }
    JsonAllocations(const JsonAllocations&) = delete;
    JsonAllocations& operator=(const JsonAllocations&) = delete;

    // Makes the n-th allocation from now on fail (1 is the next), once.
    void Fail(int n) {
        sMade = 0;
        sFailAt = n;
    }
    // Whether the failure that was asked for has happened.
    bool Failed() const { return sFailAt == 0; }
    // Made and not yet freed.
    int Live() const { return sLive; }

private:
    static void* Allocate(std::size_t size) {
        if (++sMade == sFailAt) {
            sFailAt = 0;
            return nullptr;
        }
        ++sLive;
        return std::malloc(size);
    }
    static void Free(void* memory) {
        sLive -= memory != nullptr ? 1 : 0;
        std::free(memory);
    }

    inline static int sLive = 0;
    inline static int sMade = 0;
    inline static int sFailAt = 0;
};

// Runs operation with its first allocation failing, then with its second, and so on until it needs no more;
// check gets the number, the result and how much memory was left over. Returns how many could fail.
template <typename Operation, typename Check>
int WithEachJsonAllocationFailing(Operation operation, Check check) {
    JsonAllocations memory;
    for (int n = 1;; ++n) {
        memory.Fail(n);
        const int result = operation();
        if (!memory.Failed()) {
            return n - 1;
        }
        check(n, result, memory.Live());
    }
}

}  // namespace lumora_test
