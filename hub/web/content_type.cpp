#include "hub/web/content_type.h"

#include <string>

#include "base/json.h"
#include "hub/core/text.h"

namespace lumora_hub::web {
namespace {

// Longer texts are not looked at as JSON: parsing takes the service thread.
constexpr std::size_t LONGEST_JSON = 65536;

bool IsJson(std::string_view bytes) {
    const std::size_t first = bytes.find_first_not_of(" \t\r\n");
    if (first == bytes.npos || (bytes[first] != '{' && bytes[first] != '[') || bytes.size() > LONGEST_JSON) {
        return false;
    }
    const std::string text(bytes);
    return lumora::JsonTree(cJSON_ParseWithOpts(text.c_str(), nullptr, 1)) != nullptr;
}

}  // namespace

const char* ContentType(std::string_view bytes) {
    if (bytes.substr(0, 3) == "\xFF\xD8\xFF") {
        return "image/jpeg";
    }
    if (bytes.substr(0, 8) == "\x89PNG\r\n\x1A\n") {
        return "image/png";
    }
    if (!IsText(bytes)) {
        return "application/octet-stream";
    }
    return IsJson(bytes) ? "application/json" : "text/plain; charset=utf-8";
}

}  // namespace lumora_hub::web
