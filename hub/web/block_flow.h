// A stream of the blocks of a service.
#pragma once

#include <cstdint>
#include <memory>

#include "hub/core/device_hub.h"
#include "hub/web/flow.h"
#include "hub/web/metrics.h"
#include "hub/web/quota.h"

namespace lumora_hub::web {

// The head of each WebSocket message, in network byte order: a 1, three zeros, the count of blocks that this
// stream has lost (32 bits), the block's number (64), and microseconds since 1970 when it came (64).
std::string BlockHead(const Block& block, std::uint64_t lost);

// A block that is text without carriage returns is the event "text"; others are "base64".
std::string BlockEvent(const Block& block);

class BlockFlow final : public Flow {
public:
    BlockFlow(std::shared_ptr<Consumer> consumer, std::unique_ptr<Registration> registration, Framing framing,
              WebCounts& counts, Quota::Share share = {});
    ~BlockFlow() override;
    BlockFlow(const BlockFlow&) = delete;
    BlockFlow& operator=(const BlockFlow&) = delete;

    Piece Fill(char* room, std::size_t size) override;
    bool IsBinary() const override { return true; }

private:
    const std::shared_ptr<Consumer> mConsumer;
    std::unique_ptr<Registration> mRegistration;
    const Framing mFraming;
    WebCounts& mCounts;
    const Quota::Share mShare;
    BlockPointer mBlock;  // of mMessage
    Message mMessage;
};

}  // namespace lumora_hub::web
