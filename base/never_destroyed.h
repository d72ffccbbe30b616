// A process-wide object that is made at load time and never destroyed.
#pragma once

#include <new>
#include <utility>

namespace lumora {

// An application may leave main while our threads or the platform's still run: what they reach has to
// outlive the destructors that exit() runs.
template <typename T>
class NeverDestroyed {
public:
    template <typename... Args>
    explicit NeverDestroyed(Args&&... args) {
        new (&mObject) T(std::forward<Args>(args)...);
    }
    ~NeverDestroyed() {}  // leaves the object alone, hence the union
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
