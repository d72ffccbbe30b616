#include "hub/worker/subscriptions.h"

#include <algorithm>

namespace lumora_hub {

bool DropOpposite(std::deque<Frame>& waiting, const Frame& request) {
    const FrameKind kind = request.head.kind;
    if (kind != FrameKind::SUBSCRIBE && kind != FrameKind::UNSUBSCRIBE) {
        return false;
    }
    const FrameKind opposite = kind == FrameKind::SUBSCRIBE ? FrameKind::UNSUBSCRIBE : FrameKind::SUBSCRIBE;
    const auto found = std::find_if(waiting.begin(), waiting.end(), [&](const Frame& other) {
        return other.head.kind == opposite && other.name == request.name;
    });
    if (found == waiting.end()) {
        return false;
    }
    waiting.erase(found);
    return true;
}

}  // namespace lumora_hub
