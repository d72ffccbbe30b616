#include "hub/web/mailbox.h"

namespace lumora_hub::web {

void Mailbox::PutReady(std::uint64_t consumer) {
    const lumora::MutexLock lock(mMutex);
    if (mWake) {
        mMail.ready.insert(consumer);
        Wake();
    }
}

void Mailbox::PutOutcome(std::uint64_t request, Outcome outcome) {
    const lumora::MutexLock lock(mMutex);
    if (mWake) {
        mMail.outcomes.emplace_back(request, outcome);
        Wake();
    }
}

void Mailbox::PutEvent(const DeviceEvent& event) {
    const lumora::MutexLock lock(mMutex);
    if (mWake) {
        mMail.events[event.device.id] = event;
        Wake();
    }
}

Mailbox::Mail Mailbox::TakeAll() {
    const lumora::MutexLock lock(mMutex);
    mIsAwake = false;
    return std::exchange(mMail, {});
}

void Mailbox::Open(std::function<void()> wake) {
    const lumora::MutexLock lock(mMutex);
    mWake = std::move(wake);
}

void Mailbox::Close() {
    const lumora::MutexLock lock(mMutex);
    mWake = nullptr;
    mMail = {};
}

void Mailbox::Wake() {
    if (!std::exchange(mIsAwake, true)) {
        mWake();
    }
}

}  // namespace lumora_hub::web
