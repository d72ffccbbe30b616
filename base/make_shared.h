// Shared objects for code that answers the lack of memory with a message of its own.
#pragma once

#include <memory>
#include <new>
#include <utility>

namespace lumora {

template <typename T, typename... Args>
std::shared_ptr<T> MakeSharedOrNull(Args&&... args) {
    try {
        return std::make_shared<T>(std::forward<Args>(args)...);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace lumora
