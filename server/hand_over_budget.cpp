#include "server/hand_over_budget.h"

#include <algorithm>
#include <utility>

namespace lumoraAiModule {

namespace {

// Most stops take a few milliseconds. They need no entry, and with this the number of entries is bounded.
constexpr HandOverBudget::Milliseconds NOT_WORTH_AN_ENTRY{100};

bool IsOnThisHost(const std::string& address) { return address.rfind("127.", 0) == 0; }

}  // namespace

HandOverBudget::Milliseconds HandOverBudget::Limit(const std::string& address, Milliseconds wanted,
                                                   Clock::time_point now) const {
    return IsOnThisHost(address) ? wanted : std::min(wanted, std::max(LEAST, LeftOf(address, now)));
}

void HandOverBudget::OnTaken(const std::string& address, Milliseconds took, Clock::time_point now) {
    const Milliseconds left = std::max(LeftOf(address, now) - took, Milliseconds(0));
    std::vector<Account> kept;
    for (Account& account : mAccounts) {
        const bool isReplaced = account.address == address && took >= NOT_WORTH_AN_ENTRY;
        if (!isReplaced && LeftIn(account, now) < FULL) {
            kept.push_back(std::move(account));
        }
    }
    if (took >= NOT_WORTH_AN_ENTRY) {
        kept.push_back({address, left, now});
    }
    mAccounts = std::move(kept);
}

HandOverBudget::Milliseconds HandOverBudget::LeftOf(const std::string& address, Clock::time_point now) const {
    for (const Account& account : mAccounts) {
        if (account.address == address) {
            return LeftIn(account, now);
        }
    }
    return FULL;
}

HandOverBudget::Milliseconds HandOverBudget::LeftIn(const Account& account, Clock::time_point now) {
    const auto passed = std::chrono::duration_cast<Milliseconds>(now - account.since);
    return std::min(FULL, account.left + passed / GIVEN_BACK);
}

}  // namespace lumoraAiModule
