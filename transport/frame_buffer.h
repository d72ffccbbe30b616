// Raw bytes for frames, with an owner.
#pragma once

#include <cstddef>

namespace lumoraAiModule {

// Frees an array made by new char[] and clears the pointer. Does nothing for a null pointer.
void ReleaseBuffer(char** buffer);

// An array of bytes whose contents are undefined until they are written: frames are large and most of their
// bytes are overwritten at once.
//
// Where a large one lies within its first page is chosen, because copying between addresses that differ by a
// few bytes within their pages takes some processors twice as long. Large arrays and the kernel's buffers
// begin with a page or a few bytes behind it: what is copied into the kernel begins half a page away from
// them, what the kernel copies to with a page.
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
