// The files of the page, which the build puts into the program.
#pragma once

#include <string>
#include <string_view>

namespace lumora_hub::web {

struct Resource {
    std::string_view name;  // of the file
    std::string_view bytes;
};

// Null if there is none of this name. Made by embed.cmake.
const Resource* FindResource(std::string_view name);

}  // namespace lumora_hub::web
