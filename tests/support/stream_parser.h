// The blocks in what a client of the hub's streams receives.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace lumora_test {

struct StreamedBlock {
    std::uint64_t number = 0;  // the hub's
    std::uint32_t lost = 0;    // blocks that the stream has lost so far; events do not tell it
    std::size_t size = 0;      // of the whole block
    std::string_view start;    // as many of its first bytes as the parser keeps
};

// Takes bytes in pieces as they come. Keeps only the beginning of each block, so that a bench with a hundred
// streams measures the hub and not itself.
class StreamParser {
public:
    enum class Kind { WEB_SOCKET, SERVER_SENT_EVENTS };
    using OnBlock = std::function<void(const StreamedBlock& block)>;

    // Server-sent events of which less than the whole is kept must be binary.
    StreamParser(Kind kind, std::size_t kept, OnBlock onBlock);

    // False if the bytes are no stream of blocks, or the stream was refused.
    bool Take(std::string_view bytes);
    bool HasBegun() const { return mState != State::REPLY; }
    // What the server asks a client of events to wait before it connects again.
    int RetryMilliseconds() const { return mRetryMilliseconds; }

private:
    enum class State { REPLY, FRAME_HEAD, FRAME_BODY, LINES };

    bool TakeReply(std::string_view& bytes);
    bool TakeFrameHead(std::string_view& bytes);
    bool TakeFrameBody(std::string_view& bytes);
    bool EndMessage();
    bool TakeLine(std::string_view& bytes);
    bool EndLine();
    bool EndEvent();

    const Kind mKind;
    const std::size_t mKept;
    const OnBlock mOnBlock;
    State mState = State::REPLY;
    std::string mText;      // of the reply's head, of a frame's head, or of a line
    std::size_t mSize = 0;  // of the message or line, with what is not kept
    std::uint64_t mLeft = 0;
    bool mIsLast = false;
    bool mIsControl = false;
    std::string mMessage;
    // Of the event.
    std::string mName;
    std::string mData;
    std::size_t mDataSize = 0;
    bool mHasData = false;
    std::uint64_t mId = 0;
    int mRetryMilliseconds = 3000;  // as browsers do unless told otherwise
};

}  // namespace lumora_test
