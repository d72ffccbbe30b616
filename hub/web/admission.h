// Which requests are let in: the rules against foreign pages, foreign names and clients without the token.
#pragma once

#include <chrono>
#include <deque>
#include <string>
#include <vector>

#include "hub/web/options.h"
#include "hub/web/request.h"

namespace lumora_hub::web {

enum class Verdict {
    ADMITTED,
    BAD_HOST,        // a name that is not the hub's: perhaps a foreign page's, by DNS rebinding
    FOREIGN_ORIGIN,  // sent by a page of another site
    NO_TOKEN         // the token, or the cookie of a login, is missing or wrong
};

// Not thread-safe.
class Admission {
public:
    explicit Admission(const WebOptions& options);

    // isOpen: the route needs no token, as the form for it.
    Verdict Judge(const Request& request, bool isOpen);

    bool NeedsToken() const { return !mToken.empty(); }
    bool IsToken(const std::string& text) const { return SameSecret(text, mToken); }
    // A new login, which ends after a week, or when 64 newer ones were made. The result is the cookie's
    // value; empty if the system has no random bytes.
    std::string LogIn();
    void LogOut(const Request& request);

    static constexpr const char* COOKIE = "lumora_hub";
    static constexpr std::chrono::hours LOGIN_TIME{24 * 7};

private:
    struct Login {
        std::string value;
        std::chrono::steady_clock::time_point end;
    };

    bool IsOwnName(const std::string& host) const;
    bool HasToken(const Request& request);

    const std::string mToken;
    std::vector<std::string> mNames;
    std::deque<Login> mLogins;  // the oldest first
};

}  // namespace lumora_hub::web
