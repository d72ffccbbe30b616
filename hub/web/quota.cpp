#include "hub/web/quota.h"

namespace lumora_hub::web {

bool Quota::HasRoom(const std::string& address, std::size_t amount) const {
    const auto ofAddress = mOfAddress.find(address);
    const std::size_t taken = ofAddress != mOfAddress.end() ? ofAddress->second : 0;
    return mTaken + amount <= mMost && taken + amount <= mMostOfAddress;
}

Quota::Share Quota::Take(const std::string& address, std::size_t amount) {
    if (!HasRoom(address, amount)) {
        return {};
    }
    mTaken += amount;
    mOfAddress[address] += amount;
    return {*this, address, amount};
}

void Quota::Share::Release() {
    Quota* const quota = std::exchange(mQuota, nullptr);
    if (quota == nullptr) {
        return;
    }
    quota->mTaken -= mAmount;
    const auto ofAddress = quota->mOfAddress.find(mAddress);
    ofAddress->second -= mAmount;
    if (ofAddress->second == 0) {
        quota->mOfAddress.erase(ofAddress);
    }
}

}  // namespace lumora_hub::web
