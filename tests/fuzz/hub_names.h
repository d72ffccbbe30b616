// Devices with odd names, as a network may have them.
#pragma once

#include <cjson/cJSON.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/json.h"
#include "hub/core/device.h"
#include "hub/core/text.h"

namespace lumora_fuzz {

// The library's limit for names, without their end.
constexpr std::size_t LONGEST_NAME = 39;

// Cuts a text at each occurrence of a byte.
inline std::vector<std::string> Cut(const std::string& text, char at) {
    std::vector<std::string> parts(1);
    for (const char byte : text) {
        if (byte == at) {
            parts.emplace_back();
        } else {
            parts.back() += byte;
        }
    }
    return parts;
}

// The first line of the text is the type, the others are services. What a name cannot be is left out.
inline lumora_hub::DeviceState DeviceOf(const std::string& text) {
    lumora_hub::DeviceState device;
    for (std::string& name : Cut(text, '\n')) {
        name = name.substr(0, std::min(name.find('\0'), LONGEST_NAME));
        if (device.type.empty()) {
            device.type = name;
        } else if (!name.empty() && device.services.size() < 8) {
            device.services.emplace_back();
            device.services.back().name = name;
        }
    }
    device.address = "192.0.2.1";
    device.port = 5683;
    device.id = device.type + '@' + device.address;
    device.trouble = "the device refuses the subscription to \"" + device.type + '"';
    device.isPresent = true;
    return device;
}

// The document of a text that must be JSON and nothing else.
inline lumora::JsonTree WholeDocument(const std::string& text) {
    return lumora::JsonTree(lumora_hub::Utf8(text) == text ? cJSON_ParseWithOpts(text.c_str(), nullptr, 1)
                                                           : nullptr);
}

inline std::string TextMember(const lumora::JsonTree& root, const char* name) {
    const cJSON* const member = cJSON_GetObjectItemCaseSensitive(root.get(), name);
    return cJSON_IsString(member) != 0 ? member->valuestring : "";
}

}  // namespace lumora_fuzz
