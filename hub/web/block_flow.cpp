#include "hub/web/block_flow.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>

#include "hub/core/text.h"

namespace lumora_hub::web {
namespace {

constexpr char HEAD_VERSION = 1;
constexpr std::size_t MOST_LATEST_BYTES = std::size_t{2} << 20;

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

SharedText BlockEvents::Of(const BlockPointer& block) {
    const auto known = mTexts.find(block.get());
    if (SharedText text = known != mTexts.end() ? known->second.lock() : nullptr) {
        return text;
    }
    for (auto one = mTexts.begin(); one != mTexts.end();) {
        one = one->second.expired() ? mTexts.erase(one) : std::next(one);
    }
    auto text = std::make_shared<const std::string>(BlockEvent(*block));
    mTexts[block.get()] = text;
    mLatest.emplace_back(block, text);
    mLatestBytes += text->size();
    while (mLatestBytes > MOST_LATEST_BYTES) {
        mLatestBytes -= mLatest.front().second->size();
        mLatest.pop_front();
    }
    return text;
}

BlockFlow::BlockFlow(std::shared_ptr<Consumer> consumer, std::unique_ptr<Registration> registration,
                     Framing framing, BlockEvents& events, WebCounts& counts, Quota::Share share)
    : mConsumer(std::move(consumer)),
      mRegistration(std::move(registration)),
      mFraming(framing),
      mEvents(events),
      mCounts(counts),
      mShare(std::move(share)),
      mMessage(Greeting(framing)) {
    ++mCounts.streams;
}

BlockFlow::~BlockFlow() {
    mRegistration.reset();  // first, so that the count is final
    --mCounts.streams;
    mCounts.lostOfEnded += mConsumer->Counts().lost;
}

Piece BlockFlow::Fill(char* room, std::size_t size) {
    if (mMessage.IsRead()) {
        mBlock = mConsumer->Take();
        if (!mBlock) {
            return {};
        }
        mMessage = mFraming == Framing::WEB_SOCKET
                       ? Message(BlockHead(*mBlock, mConsumer->Counts().lost), mBlock)
                       : Message({}, mEvents.Of(mBlock));
    }
    const Piece piece = mMessage.Read(room, size);
    if (piece.isLast && mBlock) {
        ++mCounts.blocks;
        mCounts.blockBytes += mBlock->bytes.size();
        mCounts.latency.Add(std::chrono::steady_clock::now() - mBlock->arrived);
        mBlock.reset();
        mMessage = Message();
    }
    return piece;
}

}  // namespace lumora_hub::web
