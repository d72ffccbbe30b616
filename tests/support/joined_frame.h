// A frame as the wire carries it, for transports that are none.
#pragma once

#include <string>

#include "transport/transport_manager.h"

namespace lumora_test {

inline std::string Joined(const lumoraAiModule::FrameParts& frame) {
    return std::string(frame.head, frame.headLength).append(frame.payload, frame.payloadLength);
}

}  // namespace lumora_test
