// The bounded functions, with calls that fail on demand. Linking this defines memcpy_s, memset_s, strncpy_s.
#pragma once

#include <functional>

namespace lumora_test {

enum class Bounded { MEMCPY, MEMSET, STRNCPY };

// Makes the n-th call from now on (1 is the next) of any thread fail, once.
void FailBoundedCall(Bounded function, int n = 1);
// Runs action inside the next call of this function by any thread, once: what others do just then.
void RunInBoundedCall(Bounded function, std::function<void()> action);
// Forgets failures and actions that did not happen.
void ResetBoundedCalls();

}  // namespace lumora_test
