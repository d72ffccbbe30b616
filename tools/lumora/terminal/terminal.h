// What only a terminal gets: colours, and a line that is written over.
#pragma once

#include <string>

namespace lumora_cli {

enum class Colour { RED, GREEN, YELLOW, BOLD, FAINT };

bool IsTerminal(int fd);

// The text in a colour if fd is a terminal, unless NO_COLOR is set or TERM is "dumb".
std::string Coloured(const std::string& text, Colour colour, int fd);

// Columns of a terminal, 80 of anything else.
std::size_t Width(int fd);

}  // namespace lumora_cli
