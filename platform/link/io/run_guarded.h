// Runs work of a thread that must go on whatever happens to one message.
#pragma once

#include <exception>
#include <new>

#include "platform/link/log.h"

namespace lumora_link {

// An exception costs the work at hand, and neither the thread nor what follows. Nothing may leave a callback
// of libcoap, which is C.
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
