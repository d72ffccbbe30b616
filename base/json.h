// cJSON trees with an owner.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace lumora {

struct JsonDeleter {
    void operator()(cJSON* root) const { cJSON_Delete(root); }
};
using JsonTree = std::unique_ptr<cJSON, JsonDeleter>;

// Null if text is not a JSON document, or if memory ran out. Text after the document is ignored.
JsonTree ParseJson(const std::string& text);

// Creates an object as a member of parent under key. parent owns it. Null if memory ran out.
cJSON* AddJsonObject(cJSON* parent, const std::string& key);

// Prints without blanks and line ends. False, with out unchanged, if memory ran out.
bool PrintJson(const cJSON* root, std::string& out);

}  // namespace lumora
