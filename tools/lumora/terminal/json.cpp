#include "tools/lumora/terminal/json.h"

#include <cstdio>

#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

// JSON is UTF-8 by definition, so other bytes are replaced first.
std::string JsonText(std::string_view text) {
    std::string quoted = "\"";
    for (const char character : ValidUtf8(text)) {
        const auto code = static_cast<unsigned char>(character);
        // JSON forbids these characters in a text: the two quoting ones, and controls below 0x20.
        if (character == '"' || character == '\\') {
            quoted += {'\\', character};
        } else if (code < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(code));
            quoted += escaped;
        } else {
            quoted.push_back(character);
        }
    }
    return quoted + '"';
}

JsonObject& JsonObject::AddRaw(const char* key, const std::string& json) {
    if (!mMembers.empty()) {
        mMembers += ',';
    }
    mMembers += JsonText(key) + ':' + json;
    return *this;
}

std::string JsonArray(const std::vector<std::string>& elements) {
    std::string array = "[";
    for (const std::string& element : elements) {
        array += (array.size() > 1 ? "," : "") + element;
    }
    return array + ']';
}

}  // namespace lumora_cli
