#include "hub/mqtt/content.h"

#include <algorithm>
#include <cstdlib>

#include "base/json.h"
#include "hub/core/text.h"

namespace lumora_hub {

namespace {

// Telling text from other bytes means to look at all of them. Larger blocks are not looked at.
constexpr std::size_t MOST_TEXT_BYTES = std::size_t{64} << 10;
constexpr std::size_t MOST_NUMBER_BYTES = 40;
constexpr std::size_t MOST_FIELDS = 16;
constexpr std::size_t MOST_NAME_BYTES = 40;
constexpr const char* NAME_BYTES = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

bool StartsWith(const std::string& bytes, std::string_view start) {
    return bytes.compare(0, start.size(), start) == 0;
}

bool IsNumber(const std::string& bytes) {
    const std::size_t begin = bytes.find_first_not_of(" \t");
    const std::size_t end = bytes.find_last_not_of(" \t\r\n");
    // The library takes "inf" and hexadecimal numbers too.
    if (begin == std::string::npos || bytes.size() > MOST_NUMBER_BYTES ||
        bytes.find_first_not_of("+-.0123456789eE", begin) < end) {
        return false;
    }
    char* stop = nullptr;
    std::strtod(bytes.c_str() + begin, &stop);
    return stop == bytes.c_str() + end + 1;
}

bool IsJson(const std::string& bytes) {
    const std::size_t begin = bytes.find_first_not_of(" \t\r\n");
    return begin != std::string::npos && (bytes[begin] == '{' || bytes[begin] == '[') &&
           lumora::JsonTree(cJSON_ParseWithOpts(bytes.c_str(), nullptr, 1)) != nullptr;
}

}  // namespace

ContentKind KindOf(const std::string& bytes) {
    if (StartsWith(bytes, "\xFF\xD8\xFF")) {
        return ContentKind::JPEG;
    }
    if (StartsWith(bytes, "\x89PNG\r\n\x1A\n")) {
        return ContentKind::PNG;
    }
    if (bytes.empty() || bytes.size() > MOST_TEXT_BYTES || !IsText(bytes)) {
        return ContentKind::UNKNOWN;
    }
    if (IsNumber(bytes)) {
        return ContentKind::NUMBER;
    }
    return IsJson(bytes) ? ContentKind::JSON : ContentKind::TEXT;
}

const char* MediaType(ContentKind kind) {
    switch (kind) {
        case ContentKind::JPEG:
            return "image/jpeg";
        case ContentKind::PNG:
            return "image/png";
        case ContentKind::JSON:
            return "application/json";
        case ContentKind::NUMBER:
        case ContentKind::TEXT:
            return "text/plain";
        case ContentKind::UNKNOWN:
            break;
    }
    return nullptr;
}

std::vector<JsonField> FieldsOf(const std::string& json) {
    std::vector<JsonField> fields;
    const lumora::JsonTree root = lumora::ParseJson(json);
    if (root == nullptr || cJSON_IsObject(root.get()) == 0) {
        return fields;
    }
    for (const cJSON* item = root->child; item != nullptr && fields.size() < MOST_FIELDS; item = item->next) {
        const std::string name = item->string;
        const bool isRepeated = std::any_of(fields.begin(), fields.end(),
                                            [&](const JsonField& field) { return field.name == name; });
        const bool isNamed = !isRepeated && !name.empty() && name.size() <= MOST_NAME_BYTES &&
                             name.find_first_not_of(NAME_BYTES) == std::string::npos;
        const bool isNumber = cJSON_IsNumber(item) != 0;
        if (isNamed && (isNumber || cJSON_IsString(item) != 0 || cJSON_IsBool(item) != 0)) {
            fields.push_back({name, isNumber});
        }
    }
    return fields;
}

}  // namespace lumora_hub
