// A pointer to an object that other threads call into and that may be withdrawn at any time.
#pragma once

#include <set>

#include "base/mutex.h"

namespace lumora {

// What is the same for callbacks of every type.
class AnyCallbackSlot {
public:
    bool IsSet();

protected:
    AnyCallbackSlot() = default;
    ~AnyCallbackSlot() = default;

    void Set(void* callback);
    void Withdraw(void* callback);

    // A call into the callback of that moment, which is null if the slot is empty.
    class InProgress {
    public:
        explicit InProgress(AnyCallbackSlot& slot);
        ~InProgress();
        InProgress(const InProgress&) = delete;
        InProgress& operator=(const InProgress&) = delete;

        void* Callback() const { return mCallback; }

    private:
        AnyCallbackSlot& mSlot;
        void* mCallback;
    };

private:
    Mutex mMutex;  // a leaf lock
    Condition mCallEnded;
    void* mCallback GUARDED_BY(mMutex) = nullptr;
    std::multiset<void*> mCallsInProgress GUARDED_BY(mMutex);
};

// Calls run without the slot's lock held, so they may take any lock, set the slot, and take as long as they
// like. Only Withdraw waits for them.
template <typename Callback>
class CallbackSlot : public AnyCallbackSlot {
public:
    void Set(Callback* callback) { AnyCallbackSlot::Set(callback); }

    // Calls function with the callback and returns its result, or otherwise if the slot is empty.
    template <typename Function, typename Result>
    Result Call(Function function, Result otherwise) {
        const InProgress call(*this);
        auto* const callback = static_cast<Callback*>(call.Callback());
        return callback != nullptr ? function(*callback) : otherwise;
    }

    // Empties the slot if it holds callback, and returns when no call into callback is in progress any
    // more. Must not be called from within such a call: it would wait for itself.
    void Withdraw(Callback* callback) { AnyCallbackSlot::Withdraw(callback); }
};

}  // namespace lumora
