// Raw bytes for frames, with an owner.
#pragma once

namespace lumoraAiModule {

// Frees an array made by new char[] and clears the pointer. Does nothing for a null pointer.
void ReleaseBuffer(char** buffer);

// An array of bytes whose contents are undefined until they are written: frames are large and most of their
// bytes are overwritten at once.
class FrameBuffer {
public:
    FrameBuffer() = default;
    ~FrameBuffer() { Release(); }
    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;

    // False when memory ran out; nothing is held then. Releases what was held before.
    bool Allocate(unsigned int size);
    void Release() { ReleaseBuffer(&mBytes); }

    char* Bytes() { return mBytes; }
    const char* Bytes() const { return mBytes; }

private:
    char* mBytes = nullptr;
};

}  // namespace lumoraAiModule
