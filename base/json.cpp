#include "base/json.h"

namespace lumora {

namespace {

struct PrintedTextDeleter {
    void operator()(char* text) const { cJSON_free(text); }
};

}  // namespace

// cJSON limits how deep a document may nest, so a peer cannot exhaust the stack of the thread that parses.
JsonTree ParseJson(const std::string& text) { return JsonTree(cJSON_Parse(text.c_str())); }

// cJSON takes the object over only if adding succeeds; otherwise the owner here frees it.
cJSON* AddJsonObject(cJSON* parent, const std::string& key) {
    JsonTree object(cJSON_CreateObject());
    if (object == nullptr || !cJSON_AddItemToObject(parent, key.c_str(), object.get())) {
        return nullptr;
    }
    return object.release();  // parent owns it now
}

bool PrintJson(const cJSON* root, std::string& out) {
    const std::unique_ptr<char, PrintedTextDeleter> text(cJSON_PrintUnformatted(root));
    if (text == nullptr) {
        return false;
    }
    out = text.get();
    return true;
}

}  // namespace lumora
