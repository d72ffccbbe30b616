// Shared objects for callers that log a failed allocation themselves.
#pragma once

#include <memory>
#include <new>
#include <utility>

namespace lumora {

// Null if allocation fails. Exceptions of T's constructor other than std::bad_alloc pass through.
template <typename T, typename... Args>
std::shared_ptr<T> MakeSharedOrNull(Args&&... args) {
    try {
        return std::make_shared<T>(std::forward<Args>(args)...);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace lumora
