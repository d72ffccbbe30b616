// How long the stops of a device's channels may hand over the last blocks of one address. Other requests wait
// meanwhile, and the peer of a channel decides how long its stream goes on.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace lumoraAiModule {

class HandOverBudget {
public:
    using Clock = std::chrono::steady_clock;
    using Milliseconds = std::chrono::milliseconds;

    // What an address has that has not used any, and what each stop may take at least.
    static constexpr Milliseconds FULL{7000};
    static constexpr Milliseconds LEAST{1000};
    // One part in so many of the time that passes is given back.
    static constexpr int GIVEN_BACK = 5;

    // The time that a stop may take which wants so much. Peers on this host are not limited.
    Milliseconds Limit(const std::string& address, Milliseconds wanted, Clock::time_point now) const;
    void OnTaken(const std::string& address, Milliseconds took, Clock::time_point now);

private:
    struct Account {
        std::string address;
        Milliseconds left;
        Clock::time_point since;
    };

    Milliseconds LeftOf(const std::string& address, Clock::time_point now) const;
    static Milliseconds LeftIn(const Account& account, Clock::time_point now);

    std::vector<Account> mAccounts;  // of the addresses that have used some
};

}  // namespace lumoraAiModule
