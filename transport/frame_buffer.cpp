#include "transport/frame_buffer.h"

#include <cstdint>
#include <new>

namespace lumoraAiModule {

namespace {

constexpr std::size_t PAGE_SIZE = 4096;
constexpr unsigned int LARGE = 4096;  // smaller copies are too short to gain from another page

}  // namespace

void ReleaseBuffer(char** buffer) {
    if (buffer == nullptr || *buffer == nullptr) {
        return;
    }
    delete[] * buffer;
    *buffer = nullptr;
}

bool FrameBuffer::Allocate(unsigned int size) {
    return size < LARGE ? AllocateArray(size) : AllocateAt(PAGE_SIZE / 2, size);
}

bool FrameBuffer::AllocatePages(unsigned int size) { return AllocateAt(0, size); }

bool FrameBuffer::AllocateArray(std::size_t size) {
    Release();
    mArray = new (std::nothrow) char[size];
    mBytes = mArray;
    return mBytes != nullptr;
}

// One page more than asked for, so that an array at any address contains the offset. Without memory nothing
// is held: what was held before is released first, because two buffers of several MiB may not fit into a
// small device.
bool FrameBuffer::AllocateAt(std::size_t pageOffset, std::size_t size) {
    if (size > SIZE_MAX - PAGE_SIZE) {  // the sum would overflow on 32-bit hosts
        Release();
        return false;
    }
    if (!AllocateArray(size + PAGE_SIZE)) {
        return false;
    }
    const std::size_t arrayOffset = reinterpret_cast<std::uintptr_t>(mArray) % PAGE_SIZE;
    mBytes += (PAGE_SIZE + pageOffset - arrayOffset) % PAGE_SIZE;
    return true;
}

void FrameBuffer::Release() {
    ReleaseBuffer(&mArray);
    mBytes = nullptr;
}

}  // namespace lumoraAiModule
