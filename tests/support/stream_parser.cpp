#include "tests/support/stream_parser.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

namespace lumora_test {

namespace {

constexpr std::size_t BLOCK_HEAD = 24;
constexpr std::size_t LONGEST_REPLY_HEAD = 8192;
constexpr unsigned OPCODE = 15;
constexpr unsigned CONTROL = 8;  // opcodes from here on are pings, pongs and closings
constexpr unsigned LAST = 128;

std::uint64_t NumberAt(std::string_view bytes, std::size_t place, std::size_t length) {
    std::uint64_t number = 0;
    for (const char byte : bytes.substr(place, length)) {
        number = (number << 8U) | static_cast<unsigned char>(byte);
    }
    return number;
}

std::array<signed char, 256> MakeBase64Values() {
    std::array<signed char, 256> values = {};
    values.fill(-1);
    const std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < digits.size(); ++i) {
        values[static_cast<unsigned char>(digits[i])] = static_cast<signed char>(i);
    }
    return values;
}

// Up to the first character that is no digit.
std::string FromBase64(std::string_view text) {
    static const std::array<signed char, 256> VALUES = MakeBase64Values();
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    unsigned value = 0;
    unsigned bits = 0;
    for (const char digit : text) {
        const signed char six = VALUES[static_cast<unsigned char>(digit)];
        if (six < 0) {
            break;
        }
        value = (value << 6U) | static_cast<unsigned>(six);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>((value >> bits) & 255U);
        }
    }
    return bytes;
}

}  // namespace

StreamParser::StreamParser(Kind kind, std::size_t kept, OnBlock onBlock)
    : mKind(kind), mKept(kept), mOnBlock(std::move(onBlock)) {}

bool StreamParser::Take(std::string_view bytes) {
    bool isGood = true;
    while (isGood && !bytes.empty()) {
        switch (mState) {
            case State::REPLY:
                isGood = TakeReply(bytes);
                break;
            case State::FRAME_HEAD:
                isGood = TakeFrameHead(bytes);
                break;
            case State::FRAME_BODY:
                isGood = TakeFrameBody(bytes);
                break;
            case State::LINES:
                isGood = TakeLine(bytes);
                break;
        }
    }
    return isGood;
}

bool StreamParser::TakeReply(std::string_view& bytes) {
    while (!bytes.empty() && mState == State::REPLY) {
        mText += bytes.front();
        bytes.remove_prefix(1);
        if (mText.size() >= 4 && mText.compare(mText.size() - 4, 4, "\r\n\r\n") == 0) {
            const bool isSocket = mKind == Kind::WEB_SOCKET;
            if (mText.compare(0, 12, isSocket ? "HTTP/1.1 101" : "HTTP/1.1 200") != 0) {
                return false;
            }
            mText.clear();
            mState = isSocket ? State::FRAME_HEAD : State::LINES;
        }
    }
    return mText.size() < LONGEST_REPLY_HEAD;
}

// ---- WebSocket

bool StreamParser::TakeFrameHead(std::string_view& bytes) {
    while (!bytes.empty()) {
        mText += bytes.front();
        bytes.remove_prefix(1);
        if (mText.size() < 2) {
            continue;
        }
        const unsigned length = static_cast<unsigned char>(mText[1]);
        std::size_t extra = 0;
        if (length >= 126) {
            extra = length == 126 ? 2 : 8;
        }
        if (mText.size() < 2 + extra) {
            continue;
        }
        const auto first = static_cast<unsigned char>(mText[0]);
        mLeft = extra == 0 ? length : NumberAt(mText, 2, extra);
        mIsLast = (first & LAST) != 0;
        mIsControl = (first & CONTROL) != 0;
        mText.clear();
        mState = State::FRAME_BODY;
        const bool isClosing = (first & OPCODE) == CONTROL;
        std::string_view nothing;
        return !isClosing && (mLeft > 0 || TakeFrameBody(nothing));
    }
    return true;
}

bool StreamParser::TakeFrameBody(std::string_view& bytes) {
    const std::string_view part =
        bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(mLeft, bytes.size())));
    bytes.remove_prefix(part.size());
    mLeft -= part.size();
    if (!mIsControl) {
        mSize += part.size();
        mMessage.append(part.substr(0, BLOCK_HEAD + mKept - std::min(BLOCK_HEAD + mKept, mMessage.size())));
    }
    if (mLeft > 0) {
        return true;
    }
    mState = State::FRAME_HEAD;
    return mIsControl || !mIsLast || EndMessage();
}

bool StreamParser::EndMessage() {
    if (mMessage.size() < BLOCK_HEAD || mMessage.front() != 1) {
        return false;
    }
    StreamedBlock block;
    block.lost = static_cast<std::uint32_t>(NumberAt(mMessage, 4, 4));
    block.number = NumberAt(mMessage, 8, 8);
    block.size = std::exchange(mSize, 0) - BLOCK_HEAD;
    block.start = std::string_view(mMessage).substr(BLOCK_HEAD);
    mOnBlock(block);
    mMessage.clear();
    return true;
}

// ---- Server-sent events

bool StreamParser::TakeLine(std::string_view& bytes) {
    const std::size_t end = bytes.find('\n');
    const std::string_view part = bytes.substr(0, end);
    mSize += part.size();
    // A line is longer than the bytes that it holds: base64, and the name of its field.
    const std::size_t most = mKept / 3 * 4 + 64;
    mText.append(part.substr(0, most - std::min(most, mText.size())));
    bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
    return end == std::string_view::npos || EndLine();
}

bool StreamParser::EndLine() {
    const std::string line = std::exchange(mText, {});
    const std::size_t size = std::exchange(mSize, 0);
    if (line.empty()) {
        return EndEvent();
    }
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) {
        return line.front() == ':';
    }
    const std::string field = line.substr(0, colon);
    if (field == "event") {
        mName = line.substr(colon + 2);
    } else if (field == "id") {
        mId = std::strtoull(line.c_str() + colon + 2, nullptr, 10);
    } else if (field == "retry") {
        mRetryMilliseconds = std::atoi(line.c_str() + colon + 2);
    } else if (field == "data") {
        mDataSize += size - colon - 2 + (mHasData ? 1 : 0);
        mData.append(mHasData ? "\n" : "").append(line, colon + 2, std::string::npos);
        mHasData = true;
    }
    return true;
}

bool StreamParser::EndEvent() {
    const bool isBinary = mName == "base64";
    if (std::exchange(mHasData, false)) {
        const std::string start = isBinary ? FromBase64(mData) : mData;
        const auto padding = static_cast<std::size_t>(
            isBinary && mData.size() == mDataSize ? std::count(mData.begin(), mData.end(), '=') : 0);
        StreamedBlock block;
        block.number = mId;
        block.size = isBinary ? mDataSize / 4 * 3 - padding : mDataSize;
        block.start = std::string_view(start).substr(0, mKept);
        mOnBlock(block);
    }
    mData.clear();
    mDataSize = 0;
    return true;
}

}  // namespace lumora_test
