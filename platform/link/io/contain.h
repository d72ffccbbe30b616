// What a lack of memory may cost: the work at hand, and neither the thread nor what follows.
#pragma once

#include "platform/link/io/log.h"

namespace lumora_link {

template <typename Work>
void Contain(const Work& work) {
    try {
        work();
    } catch (...) {
        LINK_LOG_LIMITED(LEVEL_ERROR, "a message is dropped for want of memory\n");
    }
}

}  // namespace lumora_link
