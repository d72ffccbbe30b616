#include "tools/lumora/terminal/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace lumora_cli {

namespace {

constexpr std::size_t USUAL_WIDTH = 80;

// NO_COLOR is a convention of many programs: any text that is not empty switches colours off.
bool TakesColours(int fd) {
    const char* refused = std::getenv("NO_COLOR");
    const char* kind = std::getenv("TERM");
    return IsTerminal(fd) && (refused == nullptr || *refused == '\0') && kind != nullptr &&
           std::strcmp(kind, "dumb") != 0;
}

// The numbers of the escape sequence ESC [ NUMBER m.
const char* CodeOf(Colour colour) {
    switch (colour) {
        case Colour::RED:
            return "31";
        case Colour::GREEN:
            return "32";
        case Colour::YELLOW:
            return "33";
        case Colour::BOLD:
            return "1";
        case Colour::FAINT:
            return "2";
    }
    return "0";
}

}  // namespace

bool IsTerminal(int fd) { return isatty(fd) == 1; }

std::string Coloured(const std::string& text, Colour colour, int fd) {
    return TakesColours(fd) ? std::string("\033[") + CodeOf(colour) + 'm' + text + "\033[0m" : text;
}

std::size_t Width(int fd) {
    // Asked each time, because a user may resize the window. Some terminals report 0 columns.
    winsize size = {};
    return IsTerminal(fd) && ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : USUAL_WIDTH;
}

}  // namespace lumora_cli
