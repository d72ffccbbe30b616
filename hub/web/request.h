// A request of HTTP, and the small languages inside it. No sockets here.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace lumora_hub::web {

enum class Method { GET, HEAD, POST, OTHER };

struct Request {
    Method method = Method::OTHER;
    std::string path;  // decoded once, without the query
    std::map<std::string, std::string> query;
    std::string host;
    std::string origin;
    std::string authorization;
    std::string cookie;
    std::string contentType;
    std::string fetchSite;  // Sec-Fetch-Site
    std::optional<std::size_t> contentLength;
    bool hasTransferEncoding = false;
    bool wantsWebSocket = false;
    bool isTls = false;
    std::string address;  // of the peer
};

// Decodes %41 to A. What is no such code stays as it is.
std::string PercentDecode(std::string_view text, bool plusIsBlank = false);

// a=1&b=2, decoded. At most 16 pairs are read.
std::map<std::string, std::string> ReadForm(std::string_view text);

// The value of a cookie in a Cookie header; empty if it is not there.
std::string CookieValue(std::string_view header, std::string_view name);

// The name in a Host header: without its port, in lower case, without the brackets of IPv6. Empty if it
// cannot be one.
std::string HostName(std::string_view host);

// Takes the same time for all texts of a length.
bool SameSecret(std::string_view left, std::string_view right);

}  // namespace lumora_hub::web
