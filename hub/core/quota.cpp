#include "hub/core/quota.h"

namespace lumora_hub {

std::size_t Quota::TakenBy(const std::string& address) const {
    const auto ofAddress = mOfAddress.find(address);
    return ofAddress != mOfAddress.end() ? ofAddress->second : 0;
}

bool Quota::Fits(const std::string& address, std::size_t amount) const {
    return mTaken + amount <= mMost && TakenBy(address) + amount <= mMostOfAddress;
}

bool Quota::HasRoom(const std::string& address, std::size_t amount) const {
    const lumora::MutexLock lock(mMutex);
    return Fits(address, amount);
}

bool Quota::HasItsShare(const std::string& address) const {
    const lumora::MutexLock lock(mMutex);
    return TakenBy(address) >= mMostOfAddress;
}

Quota::Share Quota::Take(const std::string& address, std::size_t amount) {
    const lumora::MutexLock lock(mMutex);
    if (!Fits(address, amount)) {
        return {};
    }
    mTaken += amount;
    mOfAddress[address] += amount;
    return {*this, address, amount};
}

std::size_t Quota::Taken() const {
    const lumora::MutexLock lock(mMutex);
    return mTaken;
}

void Quota::Share::Release() {
    Quota* const quota = std::exchange(mQuota, nullptr);
    if (quota == nullptr) {
        return;
    }
    const lumora::MutexLock lock(quota->mMutex);
    quota->mTaken -= mAmount;
    const auto ofAddress = quota->mOfAddress.find(mAddress);
    ofAddress->second -= mAmount;
    if (ofAddress->second == 0) {
        quota->mOfAddress.erase(ofAddress);
    }
}

}  // namespace lumora_hub
