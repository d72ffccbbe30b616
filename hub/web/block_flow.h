// A stream of the blocks of a service.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>

#include "hub/core/device_hub.h"
#include "hub/core/quota.h"
#include "hub/web/flow.h"
#include "hub/web/metrics.h"

namespace lumora_hub::web {

// The head of each WebSocket message, in network byte order: a 1, three zeros, the count of blocks that this
// stream has lost (32 bits), the block's number (64), and microseconds since 1970 when it came (64).
std::string BlockHead(const Block& block, std::uint64_t lost);

// A block that is text without carriage returns is the event "text"; others are "base64".
std::string BlockEvent(const Block& block);

// The events of blocks that several streams send, each of which is made once.
class BlockEvents {
public:
    SharedText Of(const BlockPointer& block);

private:
    // The streams that send it hold the block and its text, so the key is valid as long as the text lives.
    std::map<const Block*, std::weak_ptr<const std::string>> mTexts;
    // The latest ones, for streams whose turn comes later.
    std::deque<std::pair<BlockPointer, SharedText>> mLatest;
    std::size_t mLatestBytes = 0;
};

class BlockFlow final : public Flow {
public:
    BlockFlow(std::shared_ptr<Consumer> consumer, std::unique_ptr<Registration> registration, Framing framing,
              BlockEvents& events, WebCounts& counts, Quota::Share share = {});
    ~BlockFlow() override;
    BlockFlow(const BlockFlow&) = delete;
    BlockFlow& operator=(const BlockFlow&) = delete;

    Piece Fill(char* room, std::size_t size) override;
    bool IsBinary() const override { return true; }

private:
    const std::shared_ptr<Consumer> mConsumer;
    std::unique_ptr<Registration> mRegistration;
    const Framing mFraming;
    BlockEvents& mEvents;
    WebCounts& mCounts;
    const Quota::Share mShare;
    BlockPointer mBlock;  // of mMessage
    Message mMessage;
};

}  // namespace lumora_hub::web
