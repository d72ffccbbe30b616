// A pointer to an object that other threads call into and that may be withdrawn at any time.
#pragma once

#include <condition_variable>
#include <set>

#include "base/mutex.h"

namespace lumora {

// Calls run without the slot's lock held, so they may take any lock, set the slot, and take as long as they
// like. Only Withdraw waits for them.
template <typename Callback>
class CallbackSlot {
public:
    void Set(Callback* callback) {
        const MutexLock lock(mMutex);
        mCallback = callback;
    }

    // Calls function with the callback and returns its result, or otherwise if the slot is empty.
    template <typename Function, typename Result>
    Result Call(Function function, Result otherwise) {
        const InProgress call(*this);
        return call.callback != nullptr ? function(*call.callback) : otherwise;
    }

    bool IsSet() {
        const MutexLock lock(mMutex);
        return mCallback != nullptr;
    }

    // Empties the slot if it holds callback, and returns when no call into callback is in progress any
    // more. Must not be called from within such a call: it would wait for itself.
    void Withdraw(Callback* callback) {
        const MutexLock lock(mMutex);
        if (mCallback == callback) {
            mCallback = nullptr;
        }
        while (mCallsInProgress.count(callback) != 0) {
            mCallEnded.wait(mMutex);
        }
    }

private:
    Callback* Begin() {
        const MutexLock lock(mMutex);
        if (mCallback != nullptr) {
            mCallsInProgress.insert(mCallback);
        }
        return mCallback;
    }
    void End(Callback* callback) {
        const MutexLock lock(mMutex);
        mCallsInProgress.erase(mCallsInProgress.find(callback));
        mCallEnded.notify_all();
    }

    struct InProgress {
        explicit InProgress(CallbackSlot& owner) : slot(owner), callback(owner.Begin()) {}
        ~InProgress() {
            if (callback != nullptr) {
                slot.End(callback);
            }
        }
        InProgress(const InProgress&) = delete;
        InProgress& operator=(const InProgress&) = delete;

        CallbackSlot& slot;
        Callback* const callback;
    };

    Mutex mMutex;  // a leaf lock
    std::condition_variable_any mCallEnded;
    Callback* mCallback GUARDED_BY(mMutex) = nullptr;
    std::multiset<Callback*> mCallsInProgress GUARDED_BY(mMutex);
};

}  // namespace lumora
