// What a block holds, as far as its first bytes tell.
#pragma once

#include <string_view>

namespace lumora_hub::web {

// image/jpeg, image/png, application/json (an object or an array), text/plain; charset=utf-8, or
// application/octet-stream.
const char* ContentType(std::string_view bytes);

}  // namespace lumora_hub::web
