// The state that both directions of a data channel share.
#pragma once

#include <atomic>

namespace lumoraAiModule {

struct ChannelState {
    // Set when the receiving direction is created. A stop, the end of the connection and a failed send clear
    // it; the receive thread then ends.
    std::atomic<bool> running{false};
    // The connection failed, so nothing can be sent any more.
    std::atomic<bool> broken{false};
};

}  // namespace lumoraAiModule
