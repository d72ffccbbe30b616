// Names and blocks come from devices. What of them is text, and how to show what is none.
#pragma once

#include <string>
#include <string_view>

namespace lumora_hub {

// True if the text is UTF-8 without control characters other than tabs and line ends.
bool IsText(std::string_view bytes);

// The text with U+FFFD in place of what is not UTF-8.
std::string Utf8(std::string_view text);

}  // namespace lumora_hub
