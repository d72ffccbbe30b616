#include "hub/web/wsi_request.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <sys/socket.h>

#include <array>
#include <charconv>

namespace lumora_hub::web {
namespace {

constexpr std::size_t HEAD_SPACE = 2048;  // our own heads are shorter

// Sent with each reply. Nothing of the page comes from elsewhere, and nothing of it is shown inside of
// another page. Pictures are shown from memory (blob:). With no referrer at all, browsers would send "null"
// as the origin of a form.
constexpr std::array<std::pair<const char*, const char*>, 8> COMMON_HEADERS = {{
    {"content-security-policy:",
     "default-src 'self'; img-src 'self' blob:; object-src 'none'; base-uri 'none'; form-action 'self'; "
     "frame-ancestors 'none'"},
    {"x-frame-options:", "DENY"},
    {"x-content-type-options:", "nosniff"},
    {"referrer-policy:", "same-origin"},
    {"cross-origin-resource-policy:", "same-origin"},
    {"cross-origin-opener-policy:", "same-origin"},
    {"permissions-policy:", "camera=(), microphone=(), geolocation=()"},
    {"cache-control:", "no-store"},
}};

std::string Header(lws* wsi, lws_token_indexes token) {
    const int length = lws_hdr_total_length(wsi, token);
    std::string value(length > 0 ? static_cast<std::size_t>(length) + 1 : 1, '\0');
    const int copied = length > 0 ? lws_hdr_copy(wsi, value.data(), length + 1, token) : 0;
    value.resize(copied > 0 ? static_cast<std::size_t>(copied) : 0);
    return value;
}

std::string CustomHeader(lws* wsi, const std::string& name) {
    const int length = lws_hdr_custom_length(wsi, name.c_str(), static_cast<int>(name.size()));
    if (length <= 0) {
        return {};
    }
    std::string value(static_cast<std::size_t>(length) + 1, '\0');
    const int copied =
        lws_hdr_custom_copy(wsi, value.data(), length + 1, name.c_str(), static_cast<int>(name.size()));
    value.resize(copied > 0 ? static_cast<std::size_t>(copied) : 0);
    return value;
}

// Each pair stands in a fragment of its own. The library has decoded them.
std::map<std::string, std::string> ReadQuery(lws* wsi) {
    std::map<std::string, std::string> query;
    std::array<char, 256> pair{};
    for (int at = 0; at < 16; ++at) {
        const int length = lws_hdr_copy_fragment(wsi, pair.data(), static_cast<int>(pair.size()),
                                                 WSI_TOKEN_HTTP_URI_ARGS, at);
        if (length <= 0) {
            break;
        }
        const std::string_view text(pair.data(), static_cast<std::size_t>(length));
        const std::size_t end = text.find('=');
        query[std::string(text.substr(0, end))] =
            end == text.npos ? std::string() : std::string(text.substr(end + 1));
    }
    return query;
}

std::optional<std::size_t> ReadLength(const std::string& text) {
    std::size_t length = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, length);
    return error == std::errc() && stop == end ? std::optional(length) : std::nullopt;
}

void ReadMethod(lws* wsi, Request& request) {
    static constexpr std::array<std::pair<lws_token_indexes, Method>, 3> METHODS = {{
        {WSI_TOKEN_GET_URI, Method::GET},
        {WSI_TOKEN_POST_URI, Method::POST},
        {WSI_TOKEN_HEAD_URI, Method::HEAD},
    }};
    for (const auto& [token, method] : METHODS) {
        if (lws_hdr_total_length(wsi, token) > 0) {
            request.method = method;
            request.path = Header(wsi, token);
            return;
        }
    }
    for (const lws_token_indexes token :
         {WSI_TOKEN_PUT_URI, WSI_TOKEN_PATCH_URI, WSI_TOKEN_DELETE_URI, WSI_TOKEN_OPTIONS_URI}) {
        request.path = request.path.empty() ? Header(wsi, token) : request.path;
    }
}

class HeadWriter {
public:
    explicit HeadWriter(lws* wsi) : mWsi(wsi) {}

    bool Begin(const Reply& reply, std::optional<std::size_t> size) {
        const lws_filepos_t length = size ? *size : LWS_ILLEGAL_HTTP_CONTENT_LEN;
        return lws_add_http_common_headers(mWsi, static_cast<unsigned>(reply.status),
                                           reply.contentType.c_str(), length, &mAt, End()) == 0;
    }
    bool Add(const char* name, const std::string& value) {
        return lws_add_http_header_by_name(mWsi, reinterpret_cast<const unsigned char*>(name),
                                           reinterpret_cast<const unsigned char*>(value.data()),
                                           static_cast<int>(value.size()), &mAt, End()) == 0;
    }
    bool Write() { return lws_finalize_write_http_header(mWsi, Start(), &mAt, End()) == 0; }

private:
    unsigned char* Start() { return mSpace.data() + LWS_PRE; }
    unsigned char* End() { return mSpace.data() + mSpace.size(); }

    lws* const mWsi;
    std::array<unsigned char, LWS_PRE + HEAD_SPACE> mSpace{};
    unsigned char* mAt = Start();
};

}  // namespace

Request ReadRequest(lws* wsi, bool wantsWebSocket) {
    Request request;
    ReadMethod(wsi, request);
    request.query = ReadQuery(wsi);
    request.host = Header(wsi, WSI_TOKEN_HOST);
    request.origin = Header(wsi, WSI_TOKEN_ORIGIN);
    request.authorization = Header(wsi, WSI_TOKEN_HTTP_AUTHORIZATION);
    request.cookie = Header(wsi, WSI_TOKEN_HTTP_COOKIE);
    request.contentType = Header(wsi, WSI_TOKEN_HTTP_CONTENT_TYPE);
    request.fetchSite = CustomHeader(wsi, "sec-fetch-site:");
    request.contentLength = ReadLength(Header(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH));
    request.hasTransferEncoding = lws_hdr_total_length(wsi, WSI_TOKEN_HTTP_TRANSFER_ENCODING) > 0;
    request.wantsWebSocket = wantsWebSocket;
    request.isTls = lws_is_ssl(wsi) != 0;
    return request;
}

bool WriteHead(lws* wsi, const Reply& reply, std::optional<std::size_t> size, bool isLast) {
    HeadWriter head(wsi);
    bool isGood = head.Begin(reply, size);
    for (const auto& [name, value] : COMMON_HEADERS) {
        isGood = isGood && head.Add(name, value);
    }
    for (const auto& [name, value] : reply.headers) {
        isGood = isGood && head.Add(name.c_str(), value);
    }
    if (isLast && size) {  // without a size the library says so itself
        isGood = isGood && head.Add("connection:", "close");
    }
    return isGood && head.Write();
}

std::string PeerAddress(int socket) {
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return {};
    }
    const void* const bytes =
        peer.ss_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(&peer)->sin6_addr)
            : static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(&peer)->sin_addr);
    const char* const result = inet_ntop(peer.ss_family, bytes, text.data(), text.size());
    return result == nullptr ? std::string() : std::string(result);
}

}  // namespace lumora_hub::web
