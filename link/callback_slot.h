// A pointer to an object that other threads call into and that may be withdrawn at any time.
#pragma once

#include <condition_variable>
#include <mutex>
#include <set>

namespace lumora {

// Calls run without the slot's lock held, so they may take any lock, set the slot, and take as long as they
// like. Only Withdraw waits for them.
template <typename Callback>
class CallbackSlot {
public:
    void Set(Callback* callback) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCallback = callback;
    }

    // Calls function with the callback and returns its result, or otherwise when the slot is empty.
    template <typename Function, typename Result>
    Result Call(Function function, Result otherwise) {
        const InProgress call(*this);
        return call.callback != nullptr ? function(*call.callback) : otherwise;
    }

    bool IsSet() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCallback != nullptr;
    }

    // Empties the slot if it holds callback, and returns when no call into callback is in progress any
    // more. Must not be called from within such a call.
    void Withdraw(Callback* callback) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (mCallback == callback) {
            mCallback = nullptr;
        }
        mCallEnded.wait(lock, [&] { return mCallsInProgress.count(callback) == 0; });
    }

private:
    struct InProgress {
        explicit InProgress(CallbackSlot& owner) : slot(owner) {
            const std::lock_guard<std::mutex> lock(slot.mMutex);
            callback = slot.mCallback;
            if (callback != nullptr) {
                slot.mCallsInProgress.insert(callback);
            }
        }
        ~InProgress() {
            if (callback == nullptr) {
                return;
            }
            const std::lock_guard<std::mutex> lock(slot.mMutex);
            slot.mCallsInProgress.erase(slot.mCallsInProgress.find(callback));
            slot.mCallEnded.notify_all();
        }
        InProgress(const InProgress&) = delete;
        InProgress& operator=(const InProgress&) = delete;

        CallbackSlot& slot;
        Callback* callback = nullptr;
    };

    std::mutex mMutex;  // guards the members below; a leaf lock
    std::condition_variable mCallEnded;
    Callback* mCallback = nullptr;
    std::multiset<Callback*> mCallsInProgress;
};

}  // namespace lumora
