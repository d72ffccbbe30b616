#include "tests/support/fake_securec.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

#include "securec.h"

namespace lumora_test {

namespace {

std::atomic<int> g_callsUntilFailure[3];  // 0: none fails

std::mutex g_actionMutex;
std::function<void()> g_actions[3];
std::atomic<bool> g_hasActions{false};

void RunAction(Bounded function) {
    if (!g_hasActions) {
        return;
    }
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(g_actionMutex);
        action = std::exchange(g_actions[static_cast<int>(function)], nullptr);
    }
    if (action) {
        action();
    }
}

bool FailsNow(Bounded function) {
    RunAction(function);
    std::atomic<int>& calls = g_callsUntilFailure[static_cast<int>(function)];
    int left = calls;
    while (left > 0 && !calls.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

}  // namespace

void FailBoundedCall(Bounded function, int n) { g_callsUntilFailure[static_cast<int>(function)] = n; }

void RunInBoundedCall(Bounded function, std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(g_actionMutex);
    g_actions[static_cast<int>(function)] = std::move(action);
    g_hasActions = true;
}

void ResetBoundedCalls() {
    const std::lock_guard<std::mutex> lock(g_actionMutex);
    for (std::function<void()>& action : g_actions) {
        action = nullptr;
    }
    g_hasActions = false;
    for (std::atomic<int>& calls : g_callsUntilFailure) {
        calls = 0;
    }
}

}  // namespace lumora_test

using lumora_test::Bounded;

extern "C" int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest == nullptr || src == nullptr || destMax == 0 || count > destMax ||
        lumora_test::FailsNow(Bounded::MEMCPY)) {
        return 1;
    }
    std::memcpy(dest, src, count);
    return 0;
}

extern "C" int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (dest == nullptr || destMax == 0 || count > destMax || lumora_test::FailsNow(Bounded::MEMSET)) {
        return 1;
    }
    std::memset(dest, c, count);
    return 0;
}

// Writes to the whole of its destination, as a legal implementation may.
extern "C" int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (dest == nullptr || src == nullptr || destMax == 0 || lumora_test::FailsNow(Bounded::STRNCPY)) {
        return 1;
    }
    const size_t length = strnlen(src, count);
    if (length >= destMax) {
        dest[0] = '\0';
        return 1;
    }
    std::memset(dest, 0x5a, destMax);
    std::memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}
