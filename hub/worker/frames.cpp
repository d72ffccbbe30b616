#include "hub/worker/frames.h"

#include <cstring>

namespace lumora_hub {

namespace {

std::size_t LongestBody(FrameKind kind) {
    switch (kind) {
        case FrameKind::SEND:
        case FrameKind::BLOCK:
            return MAX_FRAME_BODY;
        case FrameKind::COMMAND:
        case FrameKind::CONNECTED:
        case FrameKind::ENDED:
            return MAX_FRAME_TEXT;
        case FrameKind::SUBSCRIBE:
        case FrameKind::UNSUBSCRIBE:
        case FrameKind::SUBSCRIBED:
        case FrameKind::ANSWER:
            return 0;
    }
    return 0;
}

bool IsKind(FrameKind kind) { return kind >= FrameKind::SUBSCRIBE && kind <= FrameKind::ENDED; }

static_assert(sizeof(FrameHead) == FRAME_HEAD_LENGTH, "the head is copied as it stands");

}  // namespace

FrameHeadBytes EncodeHead(const FrameHead& head) {
    FrameHeadBytes bytes = {};
    std::memcpy(bytes.data(), &head, bytes.size());
    return bytes;
}

std::optional<FrameHead> DecodeHead(const char* bytes) {
    FrameHead head;
    std::memcpy(&head, bytes, FRAME_HEAD_LENGTH);
    if (!IsKind(head.kind) || head.nameLength > MAX_FRAME_NAME || head.bodyLength > LongestBody(head.kind)) {
        return std::nullopt;
    }
    return head;
}

std::string EncodeFrame(FrameHead head, std::string_view name, std::string_view body) {
    head.nameLength = static_cast<std::uint16_t>(name.size());
    head.bodyLength = static_cast<std::uint32_t>(body.size());
    const FrameHeadBytes bytes = EncodeHead(head);
    std::string frame;
    frame.reserve(bytes.size() + name.size() + body.size());
    frame.append(bytes.data(), bytes.size()).append(name).append(body);
    return frame;
}

}  // namespace lumora_hub
