// The state that both directions of a data channel share.
#pragma once

#include <atomic>

#include "transport/channel_protection.h"
#include "transport/receive_wait.h"

namespace lumoraAiModule {

struct ChannelState {
    // Ends the receive thread. A thread that waits for data wakes up; one that is in read() notices when the
    // read returns, after half a second at the latest. The flag is cleared before the wait ends, or the
    // thread could wake up, find it still set and wait again.
    void EndReceiving() {
        running = false;
        receiveWait.End();
    }

    // Set when the receiving direction is created. A stop, the end of the connection and a failed send clear
    // it; the receive thread then ends.
    std::atomic<bool> running{false};
    // The connection failed, so nothing can be sent any more.
    std::atomic<bool> broken{false};
    // The peer has closed the connection that this side sends on. It may have sent more before it left.
    std::atomic<bool> peerLeaves{false};
    // The module has dropped the channel: what still arrives is not handed over.
    std::atomic<bool> isDropped{false};
    ReceiveWait receiveWait;
    ChannelProtection protection;
};

}  // namespace lumoraAiModule
