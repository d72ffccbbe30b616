#include "hub/web/block_flow.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>

#include "hub/core/text.h"

namespace lumora_hub::web {
namespace {

constexpr char HEAD_VERSION = 1;

template <typename Number>
void AppendNumber(std::string& bytes, Number number) {
    for (int shift = static_cast<int>(sizeof(Number) - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>((number >> shift) & 0xFF);
    }
}

std::string Base64(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // with the NUL that OpenSSL writes
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

}  // namespace

std::string BlockHead(const Block& block, std::uint64_t lost) {
    using std::chrono::microseconds;
    const auto time = std::chrono::duration_cast<microseconds>(block.received.time_since_epoch()).count();
    std::string head = {HEAD_VERSION, 0, 0, 0};
    AppendNumber(head, static_cast<std::uint32_t>(std::min<std::uint64_t>(lost, UINT32_MAX)));
    AppendNumber(head, block.number);
    AppendNumber(head, static_cast<std::uint64_t>(time));
    return head;
}

std::string BlockEvent(const Block& block) {
    const std::string id = std::to_string(block.number);
    const bool isLines = IsText(block.bytes) && block.bytes.find('\r') == std::string::npos;
    return isLines ? ServerSentEvent("text", id, block.bytes)
                   : ServerSentEvent("base64", id, Base64(block.bytes));
}

BlockFlow::BlockFlow(std::shared_ptr<Consumer> consumer, std::unique_ptr<Registration> registration,
                     Framing framing, WebCounts& counts, Quota::Share share)
    : mConsumer(std::move(consumer)),
      mRegistration(std::move(registration)),
      mFraming(framing),
      mCounts(counts),
      mShare(std::move(share)) {
    ++mCounts.streams;
}

BlockFlow::~BlockFlow() {
    mRegistration.reset();  // first, so that the count is final
    --mCounts.streams;
    mCounts.lostOfEnded += mConsumer->Counts().lost;
}

Piece BlockFlow::Fill(char* room, std::size_t size) {
    if (!mBlock) {
        mBlock = mConsumer->Take();
        if (!mBlock) {
            return {};
        }
        mMessage = mFraming == Framing::WEB_SOCKET
                       ? Message(BlockHead(*mBlock, mConsumer->Counts().lost), mBlock)
                       : Message(BlockEvent(*mBlock));
    }
    const Piece piece = mMessage.Read(room, size);
    if (piece.isLast) {
        ++mCounts.blocks;
        mCounts.blockBytes += mBlock->bytes.size();
        mCounts.latency.Add(std::chrono::steady_clock::now() - mBlock->arrived);
        mBlock.reset();
        mMessage = Message();
    }
    return piece;
}

}  // namespace lumora_hub::web
