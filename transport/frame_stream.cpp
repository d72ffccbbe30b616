#include "transport/frame_stream.h"

#include <algorithm>

#include "library/log.h"
#include "protocol/data_frame.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

char* FrameStream::ReadPosition(char* readBuffer, unsigned int& most) {
    most = READ_SIZE;
    if (mHeld.Room() == 0) {
        return readBuffer;
    }
    // Never more than there is room for: a frame of the largest size fits, a frame and a whole read might
    // not.
    most = std::min({READ_SIZE, mHeld.Room(), MissingBytes()});
    return mHeld.End();
}

// What the pending frame lacks. A read that stops there brings nothing that would have to be moved to the
// front afterwards. For a small frame moving costs less than the additional read.
unsigned int FrameStream::MissingBytes() {
    if (mHeld.Length() < mCutter.MinimumHeadLength()) {
        return READ_SIZE;
    }
    const unsigned int whole = mCutter.WholeFrameLength(mHeld.Data());
    return whole >= MIN_APART_PAYLOAD && whole > mHeld.Length() ? whole - mHeld.Length() : READ_SIZE;
}

// The flag is shared by all transports of a side, and a stop leaves it set. A new transport may thus begin
// with the flag set and nothing held: its first bytes are then appended and cut from the held ones, which
// gives the same frames. Two transports that receive at the same time would disturb each other; the modules
// stop one before they make the next.
int FrameStream::ParseAndSendData(char* data, unsigned int length) {
    if (!mLeftOverPending) {
        return CutNewBytes(data, length);
    }
    return mHeld.Append(data, length) != 0 ? -1 : CutHeldBytes();
}

// Whole frames are handed up from where the read put them. Only the rest is copied.
int FrameStream::CutNewBytes(char* data, unsigned int length) {
    unsigned int consumed = 0;
    mCutter.CutFrames(data, length, consumed);
    if (consumed < length) {
        if (mHeld.Append(data + consumed, length - consumed) != 0) {
            return -1;
        }
        mLeftOverPending = true;
    }
    return 0;
}

// To a client an illegal head means that nothing is consumed. Every read is then appended until the buffer is
// full, and the append fails: garbage from a device costs one buffer and no more. A server skips an illegal
// head. If memory runs out while the rest is moved, -1 is returned and the stream stays in step: a server
// goes on with it.
int FrameStream::CutHeldBytes() {
    const unsigned int headLength = std::max(HeadLengthOf(mHeld.Data()), mCutter.MinimumHeadLength());
    if (headLength > mHeld.Length()) {
        return 0;
    }
    if (mHeld.Length() >= mCutter.PendingFrameLength(mHeld.Data(), mHeld.Length())) {
        unsigned int consumed = 0;
        mCutter.CutFrames(mHeld.Data(), mHeld.Length(), consumed);
        mHeld.Consume(consumed);
        if (mHeld.Length() == 0) {
            mLeftOverPending = false;
            return 0;
        }
        if (mHeld.CopyLeftDataToBuffer(consumed) != 0) {
            LUMORA_LOG_AS(lumora::LOG_ERROR, PARSE_AND_SEND_DATA, "CopyLeftDataToBuffer failed!\n");
            return -1;
        }
    }
    mLeftOverPending = true;
    return 0;
}

}  // namespace lumoraAiModule
