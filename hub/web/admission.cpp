#include "hub/web/admission.h"

#include <arpa/inet.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace lumora_hub::web {
namespace {

constexpr std::size_t MOST_LOGINS = 64;
constexpr std::string_view BEARER = "Bearer ";

bool IsNumericAddress(const std::string& name) {
    in6_addr ignored{};
    return inet_pton(AF_INET, name.c_str(), &ignored) == 1 ||
           inet_pton(AF_INET6, name.c_str(), &ignored) == 1;
}

std::string RandomText() {
    std::array<unsigned char, 32> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return {};
    }
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

std::string_view WithoutScheme(std::string_view origin) {
    const std::size_t end = origin.find("://");
    return end == std::string_view::npos ? std::string_view() : origin.substr(end + 3);
}

// Browsers send Origin with each WebSocket and each POST; programs need not. The scheme is not compared: a
// proxy in front of the hub may add TLS.
bool IsForeign(const Request& request) {
    if (!request.origin.empty()) {
        return WithoutScheme(request.origin) != request.host;
    }
    // A foreign page that embeds a picture sends no Origin, but browsers tell by this header.
    return request.fetchSite == "cross-site" || request.fetchSite == "same-site";
}

}  // namespace

Admission::Admission(const WebOptions& options) : mToken(options.token), mNames(options.hostNames) {
    for (std::string& name : mNames) {
        name = HostName(name);
    }
    mNames.emplace_back("localhost");
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0') {
        mNames.push_back(HostName(name.data()));
        mNames.push_back(mNames.back() + ".local");
    }
}

Verdict Admission::Judge(const Request& request, bool isOpen) {
    if (!IsOwnName(request.host)) {
        return Verdict::BAD_HOST;
    }
    // A link from another site may lead to an open page, which neither acts nor tells.
    const bool isHarmless = isOpen && request.method != Method::POST && !request.wantsWebSocket;
    if (!isHarmless && IsForeign(request)) {
        return Verdict::FOREIGN_ORIGIN;
    }
    return isOpen || HasToken(request) ? Verdict::ADMITTED : Verdict::NO_TOKEN;
}

// A name of a foreign site can be made to lead to this host, an address cannot.
bool Admission::IsOwnName(const std::string& host) const {
    const std::string name = HostName(host);
    return !name.empty() &&
           (IsNumericAddress(name) || std::find(mNames.begin(), mNames.end(), name) != mNames.end());
}

bool Admission::HasToken(const Request& request) {
    if (mToken.empty()) {
        return true;
    }
    const std::string_view given = request.authorization;
    if (given.substr(0, BEARER.size()) == BEARER && SameSecret(given.substr(BEARER.size()), mToken)) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    const auto isOver = [&](const Login& login) { return login.end <= now; };
    mLogins.erase(std::remove_if(mLogins.begin(), mLogins.end(), isOver), mLogins.end());
    const std::string cookie = CookieValue(request.cookie, COOKIE);
    return std::any_of(mLogins.begin(), mLogins.end(),
                       [&](const Login& login) { return SameSecret(login.value, cookie); });
}

std::string Admission::LogIn() {
    std::string value = RandomText();
    if (!value.empty()) {
        if (mLogins.size() == MOST_LOGINS) {
            mLogins.pop_front();
        }
        mLogins.push_back({value, std::chrono::steady_clock::now() + LOGIN_TIME});
    }
    return value;
}

void Admission::LogOut(const Request& request) {
    const std::string cookie = CookieValue(request.cookie, COOKIE);
    const auto isThis = [&](const Login& login) { return SameSecret(login.value, cookie); };
    mLogins.erase(std::remove_if(mLogins.begin(), mLogins.end(), isThis), mLogins.end());
}

}  // namespace lumora_hub::web
