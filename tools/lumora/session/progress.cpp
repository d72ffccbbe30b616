#include "tools/lumora/session/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

// What is done sooner needs no line.
constexpr std::chrono::milliseconds QUIET(300);
// Redrawing more often costs time and cannot be read.
constexpr std::chrono::milliseconds BETWEEN_LINES(100);
// Carriage return, and the escape sequence that erases to the end of the line.
const char CLEAR_LINE[] = "\r\033[K";

void Show(const std::string& text) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
}

std::string Time(double seconds) {
    constexpr int MINUTE = 60;
    char text[32];
    const auto whole = static_cast<long>(seconds);
    std::snprintf(text, sizeof(text), "%ld:%02ld", whole / MINUTE, whole % MINUTE);
    return text;
}

std::string Bar(double share, std::size_t width) {
    const auto full = static_cast<std::size_t>(share * static_cast<double>(width));
    return '[' + std::string(full, '#') + std::string(width - full, '.') + ']';
}

std::string ShortName(const std::string& name) {
    constexpr std::size_t LONGEST = 24;
    const std::string shown = OneLine(name);
    return shown.size() <= LONGEST ? shown : "..." + ValidUtf8(shown.substr(shown.size() - LONGEST + 3));
}

std::string Padded(const std::string& text, std::size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

}  // namespace

Progress::Progress(std::uint64_t total)
    : mShown(!IsJson() && IsTerminal(STDERR_FILENO)),
      mTotal(total),
      mBegin(Clock::now()),
      mNext(mBegin + QUIET) {}

Progress::~Progress() { Clear(); }

void Progress::Clear() {
    if (mOnScreen) {
        Show(CLEAR_LINE);
        mOnScreen = false;
    }
}

void Progress::Advance(const std::string& name, std::uint64_t done) {
    mDone += done;
    if (!mShown || Clock::now() < mNext) {
        return;
    }
    mNext = Clock::now() + BETWEEN_LINES;
    mOnScreen = true;
    // One column less than the width: a full line would wrap on some terminals, and then it cannot be
    // cleared.
    Show(CLEAR_LINE + Line(name, Width(STDERR_FILENO) - 1));
}

// Without a total there is no bar. On a narrow terminal the name is left out first, and then the bar shrinks.
std::string Progress::Line(const std::string& name, std::size_t width) const {
    constexpr std::size_t SHORTEST_BAR = 8;
    constexpr std::size_t LONGEST_BAR = 20;
    constexpr std::size_t FRAME = 5;  // two blanks, two brackets, a blank
    const std::string figures = Figures();
    std::string line = ShortName(name) + "  ";
    if (line.size() + figures.size() + (mTotal > 0 ? LONGEST_BAR + FRAME : 0) > width) {
        line.clear();
    }
    const std::size_t room = width > figures.size() + FRAME ? width - figures.size() - FRAME : 0;
    if (mTotal > 0 && room >= SHORTEST_BAR) {
        line += Bar(Share(), std::min(room, LONGEST_BAR)) + ' ';
    }
    return line + figures.substr(0, width);
}

double Progress::Share() const {
    return std::min(1.0, static_cast<double>(mDone) / static_cast<double>(mTotal));
}

std::string Progress::Figures() const {
    constexpr double PERCENT = 100;
    const double seconds = std::chrono::duration<double>(Clock::now() - mBegin).count();
    // The lower bound avoids a division by zero in the first millisecond.
    const double rate = static_cast<double>(mDone) / std::max(seconds, 0.001);
    const std::string sums = Padded(ShortSize(mDone), 10) + "  " +
                             Padded(ShortSize(static_cast<unsigned long long>(rate)) + "/s", 12) + "  ";
    if (mTotal == 0) {
        return sums + Time(seconds);
    }
    const double left = static_cast<double>(mTotal - std::min(mDone, mTotal)) / std::max(rate, 1.0);
    return Padded(std::to_string(static_cast<int>(Share() * PERCENT)) + " %", 5) + sums + Time(left) +
           " left";
}

}  // namespace lumora_cli
