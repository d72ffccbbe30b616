// What clients may have at a time, and one address of it.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>

namespace lumora_hub::web {

// One client must not use up what all may have. Not thread-safe; outlives its shares.
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

    private:
        friend class Quota;
        Share(Quota& quota, std::string address, std::size_t amount)
            : mQuota(&quota), mAddress(std::move(address)), mAmount(amount) {}
        void Release();

        Quota* mQuota = nullptr;
        std::string mAddress;
        std::size_t mAmount = 0;
    };

    Quota(std::size_t most, std::size_t mostOfAddress) : mMost(most), mMostOfAddress(mostOfAddress) {}
    Quota(const Quota&) = delete;
    Quota& operator=(const Quota&) = delete;

    bool HasRoom(const std::string& address, std::size_t amount = 1) const;
    // Empty if there is no room.
    Share Take(const std::string& address, std::size_t amount = 1);

private:
    const std::size_t mMost;
    const std::size_t mMostOfAddress;
    std::size_t mTaken = 0;
    std::map<std::string, std::size_t> mOfAddress;
};

}  // namespace lumora_hub::web
