#include "transport/frame_buffer.h"

#include <new>

namespace lumoraAiModule {

void ReleaseBuffer(char** buffer) {
    if (buffer == nullptr || *buffer == nullptr) {
        return;
    }
    delete[] * buffer;
    *buffer = nullptr;
}

bool FrameBuffer::Allocate(unsigned int size) {
    Release();
    mBytes = new (std::nothrow) char[size];
    return mBytes != nullptr;
}

}  // namespace lumoraAiModule
