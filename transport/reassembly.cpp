#include "transport/reassembly.h"

#include <algorithm>
#include <cstring>
#include <functional>

#include "library/log.h"
#include "protocol/data_frame.h"
#include "securec.h"
#include "transport/operation_names.h"

namespace lumoraAiModule {

namespace {

constexpr char COPY_LEFT_DATA[] = "CopyLeftDataToBuffer";

}  // namespace

// Only the spare bytes are zeroed. The kernel gives a large array its pages when they are first written, so a
// channel that carries small frames never occupies most of it.
bool Reassembly::Allocate() {
    mLength = 0;
    if (!mBuffer.AllocatePages(mCapacity + FRAME_SPARE_LENGTH)) {
        return false;
    }
    std::memset(Spare(), 0, FRAME_SPARE_LENGTH);
    return true;
}

void Reassembly::Release() {
    mBuffer.Release();
    mLength = 0;
}

// A read usually puts its bytes at End() already. Then the move is none, but its check of the room still
// counts. On failure the held bytes stay as they were and the new ones are lost.
int Reassembly::Append(const char* data, unsigned int length) {
    const int ret = Owns(data) ? MoveToEnd(data, length) : memcpy_s(End(), Room(), data, length);
    if (ret != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, PARSE_AND_SEND_DATA, "memcpy_s failed!\n");
        return -1;
    }
    mLength += length;
    ZeroBehindData();
    return 0;
}

// A failure is reported, and the bytes are moved all the same: left where they are, they would be taken for
// the middle of a frame, and all that follows for garbage.
int Reassembly::CopyLeftDataToBuffer(unsigned int consumed) {
    if (consumed == 0) {
        return 0;
    }
    const char* const rest = Data() + consumed;
    const int ret = mLength < consumed ? CopyToFront(rest) : CopyThroughTemporary(rest);
    if (ret != 0) {
        std::memmove(Data(), rest, mLength);
    }
    ZeroBehindData();
    return ret;
}

int Reassembly::CopyToFront(const char* bytes) {
    if (memcpy_s(Data(), mCapacity, bytes, mLength) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, COPY_LEFT_DATA, "memcpy_s failed!\n");
        return -1;
    }
    return 0;
}

// The regions may overlap, which a bounded copy refuses.
int Reassembly::CopyThroughTemporary(const char* rest) {
    FrameBuffer temporary;
    if (!temporary.Allocate(mLength)) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, COPY_LEFT_DATA, "malloc failed!\n");
        return -1;
    }
    if (memcpy_s(temporary.Bytes(), mLength, rest, mLength) != 0) {
        LUMORA_LOG_AS(lumora::LOG_ERROR, COPY_LEFT_DATA, "memcpy_s failed!\n");
        return -1;
    }
    return CopyToFront(temporary.Bytes());
}

// std::less orders any two pointers; < on pointers into different arrays is undefined.
bool Reassembly::Owns(const char* data) const {
    const std::less<const char*> before;
    return !before(data, mBuffer.Bytes()) && before(data, mBuffer.Bytes() + mCapacity);
}

int Reassembly::MoveToEnd(const char* data, unsigned int length) {
    if (length > Room()) {
        return -1;
    }
    std::memmove(End(), data, length);
    return 0;
}

// A frame's fields may point past its end. Without this they would be read from the bytes of an earlier
// frame.
void Reassembly::ZeroBehindData() { std::memset(End(), 0, std::min(Room(), FRAME_SPARE_LENGTH)); }

}  // namespace lumoraAiModule
