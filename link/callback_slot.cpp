#include "link/callback_slot.h"

namespace lumora {

bool AnyCallbackSlot::IsSet() {
    const MutexLock lock(mMutex);
    return mCallback != nullptr;
}

void AnyCallbackSlot::Set(void* callback) {
    const MutexLock lock(mMutex);
    mCallback = callback;
}

void AnyCallbackSlot::Withdraw(void* callback) {
    const MutexLock lock(mMutex);
    if (mCallback == callback) {
        mCallback = nullptr;
    }
    while (mCallsInProgress.count(callback) != 0) {
        mCallEnded.Wait(mMutex);
    }
}

AnyCallbackSlot::InProgress::InProgress(AnyCallbackSlot& slot) : mSlot(slot) {
    const MutexLock lock(mSlot.mMutex);
    mCallback = mSlot.mCallback;
    if (mCallback != nullptr) {
        mSlot.mCallsInProgress.insert(mCallback);
    }
}

AnyCallbackSlot::InProgress::~InProgress() {
    if (mCallback != nullptr) {
        const MutexLock lock(mSlot.mMutex);
        mSlot.mCallsInProgress.erase(mSlot.mCallsInProgress.find(mCallback));
        mSlot.mCallEnded.NotifyAll();
    }
}

}  // namespace lumora
