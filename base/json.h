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

// Null when text is no JSON document. Text behind the document is ignored.
JsonTree ParseJson(const std::string& text);

// Creates an object and hands it to parent under key. Null when memory ran out.
cJSON* AddJsonObject(cJSON* parent, const std::string& key);

// Prints without blanks and line ends. False, and out as it was, when memory ran out.
bool PrintJson(const cJSON* root, std::string& out);

}  // namespace lumora
