// What the bytes of a block are, as far as they tell.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora_hub {

enum class ContentKind { UNKNOWN, JPEG, PNG, JSON, NUMBER, TEXT };

ContentKind KindOf(const std::string& bytes);

// Its media type; null for UNKNOWN.
const char* MediaType(ContentKind kind);

struct JsonField {
    std::string name;
    bool isNumber = false;
};

// The members of an object that are numbers, texts or truth values, and have names of letters, digits and
// '_': those can stand in a template without being one. At most 16.
std::vector<JsonField> FieldsOf(const std::string& json);

}  // namespace lumora_hub
