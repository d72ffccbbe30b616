// Cuts a stream of received bytes into frames.
#pragma once

#include <atomic>

#include "transport/reassembly.h"

namespace lumoraAiModule {

constexpr unsigned int READ_SIZE = 1048576;  // bytes of one read

// How the frames of one direction are read.
class FrameCutter {
public:
    virtual ~FrameCutter() = default;
    // Hands every whole frame in data upward. consumed receives the sum of their lengths.
    virtual void CutFrames(char* data, unsigned int length, unsigned int& consumed) = 0;
    // The length of the frame that data begins with, head included. 0 if it is not known or not legal.
    virtual unsigned int WholeFrameLength(const char* data) = 0;
    // How many buffered bytes it takes before cutting the frame that data begins with is worth a try.
    virtual unsigned int PendingFrameLength(const char* data, unsigned int length) = 0;
    // The shortest head that can be read at all.
    virtual unsigned int MinimumHeadLength() const = 0;
};

// The bytes that one connection brings. Used by the receive thread alone.
class FrameStream {
public:
    // leftOverPending tells whether the previous read ended in the middle of a frame. All transports of one
    // side share one such flag.
    FrameStream(unsigned int capacity, FrameCutter& cutter, std::atomic<bool>& leftOverPending)
        : mHeld(capacity), mCutter(cutter), mLeftOverPending(leftOverPending) {}

    Reassembly& Held() { return mHeld; }

    // Where the next read is to put its bytes, and most, the number of bytes that it may bring. They go
    // straight behind the held ones; to readBuffer only if there is no room.
    char* ReadPosition(char* readBuffer, unsigned int& most);

    // Hands the whole frames among the held and the new bytes upward, and keeps the rest. 0 or -1.
    int ParseAndSendData(char* data, unsigned int length);

private:
    unsigned int MissingBytes();
    int CutNewBytes(char* data, unsigned int length);
    int CutHeldBytes();

    Reassembly mHeld;
    FrameCutter& mCutter;
    std::atomic<bool>& mLeftOverPending;
};

}  // namespace lumoraAiModule
