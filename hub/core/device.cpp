#include "hub/core/device.h"

namespace lumora_hub {

const char* NameOf(ChannelState state) {
    switch (state) {
        case ChannelState::IDLE:
            return "idle";
        case ChannelState::CONNECTING:
            return "connecting";
        case ChannelState::CONNECTED:
            return "connected";
        case ChannelState::FAILED:
            break;
    }
    return "failed";
}

}  // namespace lumora_hub
