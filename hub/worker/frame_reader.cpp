#include "hub/worker/frame_reader.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace lumora_hub {

namespace {

// Reads in a row.
constexpr int TURNS = 16;

}  // namespace

FrameReader::Result FrameReader::Read(int socket) {
    for (int turn = 0; turn < TURNS; ++turn) {
        // What is left of a body does not fit into the buffer's worth of small frames: no copy for it.
        const bool isLarge = mHasHead && mFrame.body.size() - mFilled >= mBuffer.size();
        const std::size_t before = isLarge ? mFilled : mEnd - mBegin;
        const Result result = isLarge ? FillBody(socket) : Fill(socket);
        if (result != Result::WAITING) {
            return result;
        }
        const bool isNothing = (isLarge ? mFilled : mEnd - mBegin) == before;
        if (!CutFrames()) {
            return Result::BROKEN;
        }
        if (isNothing) {
            break;
        }
    }
    return Result::WAITING;
}

FrameReader::Result FrameReader::Fill(int socket) {
    std::memmove(mBuffer.data(), mBuffer.data() + mBegin, mEnd - mBegin);
    mEnd -= std::exchange(mBegin, 0);
    const ssize_t length = recv(socket, mBuffer.data() + mEnd, mBuffer.size() - mEnd, MSG_DONTWAIT);
    if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
        return Result::ENDED;
    }
    mEnd += static_cast<std::size_t>(std::max<ssize_t>(length, 0));
    return Result::WAITING;
}

FrameReader::Result FrameReader::FillBody(int socket) {
    const ssize_t length =
        recv(socket, mFrame.body.data() + mFilled, mFrame.body.size() - mFilled, MSG_DONTWAIT);
    if (length == 0 || (length < 0 && errno != EAGAIN && errno != EINTR)) {
        return Result::ENDED;
    }
    mFilled += static_cast<std::size_t>(std::max<ssize_t>(length, 0));
    return Result::WAITING;
}

// False if more bytes are needed first. The caller has checked that the head is valid.
bool FrameReader::TakeHead() {
    const std::size_t length = FRAME_HEAD_LENGTH + mFrame.head.nameLength;
    if (mEnd - mBegin < length) {
        return false;
    }
    mFrame.name.assign(mBuffer.data() + mBegin + FRAME_HEAD_LENGTH, mFrame.head.nameLength);
    mFrame.body.resize(mFrame.head.bodyLength);
    mBegin += length;
    mFilled = 0;
    mHasHead = true;
    return true;
}

// False if the bytes are no frame.
bool FrameReader::CutFrames() {
    while (true) {
        if (!mHasHead) {
            if (mEnd - mBegin < FRAME_HEAD_LENGTH) {
                return true;
            }
            const std::optional<FrameHead> head = DecodeHead(mBuffer.data() + mBegin);
            if (!head) {
                return false;
            }
            mFrame.head = *head;
            if (!TakeHead()) {
                return true;
            }
        }
        const std::size_t length = std::min(mFrame.body.size() - mFilled, mEnd - mBegin);
        std::memcpy(mFrame.body.data() + mFilled, mBuffer.data() + mBegin, length);
        mFilled += length;
        mBegin += length;
        if (mFilled < mFrame.body.size()) {
            return true;
        }
        mHasHead = false;
        mOnFrame(std::exchange(mFrame, Frame()));
    }
}

}  // namespace lumora_hub
