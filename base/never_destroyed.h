// A process-wide object that is made at load time and never destroyed.
#pragma once

#include <new>
#include <utility>

namespace lumora {

// An application may return from main while threads of the library or the platform still run. Objects that
// those threads use must outlive exit(), which runs the destructors of static objects.
template <typename T>
class NeverDestroyed {
public:
    template <typename... Args>
    explicit NeverDestroyed(Args&&... args) {
        new (&mObject) T(std::forward<Args>(args)...);
    }
    ~NeverDestroyed() {}  // does not destroy the object; this is why it stands in a union
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& operator*() { return mObject; }
    T* operator->() { return &mObject; }

private:
    union {
        T mObject;
    };
};

}  // namespace lumora
