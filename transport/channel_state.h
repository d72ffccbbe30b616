// The state that both directions of a data channel share.
#pragma once

#include <atomic>

#include "transport/receive_wait.h"

namespace lumoraAiModule {

struct ChannelState {
    // Ends the receive thread. It wakes up unless it reads a stream at this moment; then it notices when the
    // stream pauses.
    void EndReceiving() {
        running = false;
        receiveWait.End();
    }

    // Set when the receiving direction is created. A stop, the end of the connection and a failed send clear
    // it; the receive thread then ends.
    std::atomic<bool> running{false};
    // The connection failed, so nothing can be sent any more.
    std::atomic<bool> broken{false};
    ReceiveWait receiveWait;
};

}  // namespace lumoraAiModule
