// Runs work on a thread that must continue if one message fails.
#pragma once

#include <exception>
#include <new>

#include "platform/link/log.h"

namespace lumora_link {

// Runs work and swallows exceptions with a log line, so that one failure does not end the thread. No
// exception may leave a callback of libcoap either, because libcoap is written in C.
template <typename Work>
void RunGuarded(const Work& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped for want of memory\n");
    } catch (const std::exception& error) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped: %s\n", error.what());
    } catch (...) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped: an exception of an unknown type\n");
    }
}

}  // namespace lumora_link
