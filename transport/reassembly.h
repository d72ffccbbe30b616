// Holds the beginning of a frame until the rest of it has arrived.
#pragma once

#include "transport/frame_buffer.h"

namespace lumoraAiModule {

// Bytes that the next read continues, in a buffer of fixed size: a peer cannot make it grow. Behind the
// buffered bytes FRAME_SPARE_LENGTH zeroed ones can always be read.
class Reassembly {
public:
    explicit Reassembly(unsigned int capacity) : mCapacity(capacity) {}

    // False when memory ran out.
    bool Allocate();
    // The bytes behind the capacity. No read and no append ever writes them.
    char* Spare() { return mBuffer.Bytes() + mCapacity; }
    void Release();

    char* Data() { return mBuffer.Bytes(); }
    char* End() { return mBuffer.Bytes() + mLength; }
    unsigned int Length() const { return mLength; }
    unsigned int Room() const { return mCapacity - mLength; }

    // Appends length bytes. They may already lie at End(), where a read put them. -1 if they do not fit.
    int Append(const char* data, unsigned int length);

    // Reduces Length(); the bytes move when CopyLeftDataToBuffer is called.
    void Consume(unsigned int count) { mLength -= count; }

    // Moves the buffered bytes, which start at offset consumed, to the front. 0, or -1 if memory ran out or a
    // bounded copy failed; the bytes are moved then as well.
    int CopyLeftDataToBuffer(unsigned int consumed);

private:
    int CopyToFront(const char* bytes);
    int CopyThroughTemporary(const char* rest);
    bool Owns(const char* data) const;
    int MoveToEnd(const char* data, unsigned int length);
    void ZeroBehindData();

    const unsigned int mCapacity;
    FrameBuffer mBuffer;
    unsigned int mLength = 0;
};

}  // namespace lumoraAiModule
