// What all addresses may have of something at a time, and one address of it.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "base/mutex.h"

namespace lumora_hub {

// What one address may have: a quarter is left for the others.
constexpr std::size_t ThreeQuarters(std::size_t most) { return most - most / 4; }

// One address must not use up what all may have. Any thread may call its functions. Outlives its shares.
class Quota {
public:
    // Ends what it stands for when it is destroyed. An empty one stands for nothing.
    class Share {
    public:
        Share() = default;
        ~Share() { Release(); }
        Share(Share&& other) noexcept { *this = std::move(other); }
        Share& operator=(Share&& other) noexcept {
            Release();
            mQuota = std::exchange(other.mQuota, nullptr);
            mAddress = std::move(other.mAddress);
            mAmount = other.mAmount;
            return *this;
        }
        explicit operator bool() const { return mQuota != nullptr; }
        void Release();

    private:
        friend class Quota;
        Share(Quota& quota, std::string address, std::size_t amount)
            : mQuota(&quota), mAddress(std::move(address)), mAmount(amount) {}

        Quota* mQuota = nullptr;
        std::string mAddress;
        std::size_t mAmount = 0;
    };

    Quota(std::size_t most, std::size_t mostOfAddress) : mMost(most), mMostOfAddress(mostOfAddress) {}
    Quota(const Quota&) = delete;
    Quota& operator=(const Quota&) = delete;

    bool HasRoom(const std::string& address, std::size_t amount = 1) const EXCLUDES(mMutex);
    // Whether there is no room for this address because of what it has itself.
    bool HasItsShare(const std::string& address) const EXCLUDES(mMutex);
    // Empty if there is no room.
    Share Take(const std::string& address, std::size_t amount = 1) EXCLUDES(mMutex);
    std::size_t Taken() const EXCLUDES(mMutex);

private:
    std::size_t TakenBy(const std::string& address) const REQUIRES(mMutex);
    bool Fits(const std::string& address, std::size_t amount) const REQUIRES(mMutex);

    const std::size_t mMost;
    const std::size_t mMostOfAddress;
    mutable lumora::Mutex mMutex;  // a leaf lock
    std::size_t mTaken GUARDED_BY(mMutex) = 0;
    std::map<std::string, std::size_t> mOfAddress GUARDED_BY(mMutex);
};

}  // namespace lumora_hub
