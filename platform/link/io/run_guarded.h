// Runs work on a thread that must continue if one message fails.
#pragma once

namespace lumora_link {

void RunGuarded(void (*function)(const void* work), const void* work);

// Runs work and swallows exceptions with a log line, so that one failure does not end the thread. No
// exception may leave a callback of libcoap either, because libcoap is written in C.
template <typename Work>
void RunGuarded(const Work& work) {
    RunGuarded([](const void* erased) { (*static_cast<const Work*>(erased))(); }, &work);
}

}  // namespace lumora_link
