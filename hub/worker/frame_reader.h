// Takes frames out of a stream socket.
#pragma once

#include <array>
#include <functional>
#include <string>

#include "hub/worker/frames.h"

namespace lumora_hub {

struct Frame {
    FrameHead head;
    std::string name;
    std::string body;
};

// Small frames come out of one buffer. The rest of a large body is read right into its string.
class FrameReader {
public:
    enum class Result { WAITING, ENDED, BROKEN };  // no more for now; the peer has closed; not our frames

    // onFrame is called for each whole frame.
    explicit FrameReader(std::function<void(Frame frame)> onFrame) : mOnFrame(std::move(onFrame)) {}

    // Reads what is there, but stops after a while so that others get their turn. socket is not blocking.
    Result Read(int socket);

private:
    Result Fill(int socket);
    Result FillBody(int socket);
    bool TakeHead();
    bool CutFrames();

    std::function<void(Frame frame)> mOnFrame;
    std::array<char, 65536> mBuffer = {};
    std::size_t mBegin = 0;  // of what was not taken out of the buffer yet
    std::size_t mEnd = 0;
    Frame mFrame;             // the one being taken
    bool mHasHead = false;    // its head, and its name, are known
    std::size_t mFilled = 0;  // bytes of its body
};

}  // namespace lumora_hub
