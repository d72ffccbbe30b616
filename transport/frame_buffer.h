// Raw bytes for frames, with an owner.
#pragma once

#include <cstddef>

namespace lumoraAiModule {

// Frees an array made by new char[] and clears the pointer. Does nothing for a null pointer.
void ReleaseBuffer(char** buffer);

// An array of bytes, not zeroed: frames are large, and most of their bytes are overwritten at once.
//
// Some CPUs copy at half speed when source and destination have nearly the same page offset. malloc and the
// kernel use offsets near 0 for large blocks, so send buffers start mid-page and receive buffers at offset 0.
class FrameBuffer {
public:
    FrameBuffer() = default;
    ~FrameBuffer() { Release(); }
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;

    // For a frame to be sent. False when memory ran out; nothing is held then. Releases what was held before.
    bool Allocate(unsigned int size);
    // The same for a buffer that sockets are read into.
    bool AllocatePages(unsigned int size);
    void Release();

    char* Bytes() { return mBytes; }
    const char* Bytes() const { return mBytes; }

private:
    bool AllocateArray(std::size_t size);
    bool AllocateAt(std::size_t pageOffset, std::size_t size);

    char* mArray = nullptr;
    char* mBytes = nullptr;  // in mArray
};

}  // namespace lumoraAiModule
