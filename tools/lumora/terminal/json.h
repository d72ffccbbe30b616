// JSON as this program writes it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora_cli {

// A text with its quotation marks; bytes that are no UTF-8 are replaced.
std::string JsonText(std::string_view text);

class JsonObject {
public:
    JsonObject& Add(const char* key, std::string_view text) { return AddRaw(key, JsonText(text)); }
    JsonObject& Add(const char* key, const char* text) { return AddRaw(key, JsonText(text)); }
    JsonObject& Add(const char* key, bool value) { return AddRaw(key, value ? "true" : "false"); }
    JsonObject& Add(const char* key, int number) { return AddRaw(key, std::to_string(number)); }
    JsonObject& Add(const char* key, unsigned number) { return AddRaw(key, std::to_string(number)); }
    JsonObject& Add(const char* key, unsigned long number) { return AddRaw(key, std::to_string(number)); }
    JsonObject& Add(const char* key, unsigned long long number) {
        return AddRaw(key, std::to_string(number));
    }
    JsonObject& AddRaw(const char* key, const std::string& json);
    std::string Text() const { return "{" + mMembers + "}"; }

private:
    std::string mMembers;
};

std::string JsonArray(const std::vector<std::string>& elements);

template <typename Item, typename Write>
std::string JsonArray(const std::vector<Item>& items, const Write& write) {
    std::vector<std::string> elements;
    elements.reserve(items.size());
    for (const Item& item : items) {
        elements.push_back(write(item));
    }
    return JsonArray(elements);
}

}  // namespace lumora_cli
