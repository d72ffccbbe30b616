#include "tools/lumora/terminal/event_line.h"

#include <unistd.h>

#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

EventLine::EventLine(const char* event) {
    const WallTime now = std::chrono::system_clock::now();
    mJson.Add("time", StampedTime(now)).Add("event", event);
    mClock = ClockTime(now);
}

// OneLine: names come from the network or from a file, and must not steer the terminal.
void EventLine::Print(const std::string& text) const {
    if (IsJson()) {
        PrintLine(mJson.Text());
    } else {
        PrintLine(Coloured(mClock, Colour::FAINT, STDOUT_FILENO) + "  " + OneLine(text));
    }
}

}  // namespace lumora_cli
