#include "tools/lumora/terminal/text.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

constexpr char REPLACEMENT[] = "\xEF\xBF\xBD";

bool Continues(std::string_view bytes, std::size_t at) {
    return at < bytes.size() && (static_cast<unsigned char>(bytes[at]) & 0xC0U) == 0x80U;
}

// The length of the character at a place, 0 when there is none. Overlong forms, surrogates and numbers above
// U+10FFFF are none.
std::size_t CharacterLength(std::string_view bytes, std::size_t at) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    const auto second = static_cast<unsigned char>(at + 1 < bytes.size() ? bytes[at + 1] : 0);
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return Continues(bytes, at + 1) ? 2 : 0;
    }
    // Three bytes. E0 below A0 would be an overlong form, ED above 9F a surrogate.
    if (first >= 0xE0 && first <= 0xEF) {
        const bool forbidden = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F);
        return !forbidden && Continues(bytes, at + 1) && Continues(bytes, at + 2) ? 3 : 0;
    }
    // Four bytes. F0 below 90 would be overlong, F4 above 8F is beyond U+10FFFF.
    if (first >= 0xF0 && first <= 0xF4) {
        const bool forbidden = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
        const bool whole = Continues(bytes, at + 1) && Continues(bytes, at + 2) && Continues(bytes, at + 3);
        return !forbidden && whole ? 4 : 0;
    }
    return 0;
}

// The C1 controls steer terminals as well.
bool IsControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1) {
        return first < 0x20 || first == 0x7F;
    }
    return character.size() == 2 && first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0;
}

std::string Fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

std::string Format(const char* format, WallTime time) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm parts = {};
    // localtime shares one buffer among all threads.
    localtime_r(&seconds, &parts);
    std::ostringstream text;
    text << std::put_time(&parts, format);
    return text.str();
}

// How many letters have to be added, left out, replaced or exchanged with their neighbour.
std::size_t EditDistance(const std::string& from, const std::string& to) {
    std::vector<std::vector<std::size_t>> cost(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t k = 0; k <= to.size(); ++k) {
            if (i == 0 || k == 0) {
                cost[i][k] = i + k;
                continue;
            }
            const bool same = from[i - 1] == to[k - 1];
            cost[i][k] =
                std::min({cost[i - 1][k] + 1, cost[i][k - 1] + 1, cost[i - 1][k - 1] + (same ? 0 : 1)});
            // Two neighbours exchanged count as one mistake.
            if (i > 1 && k > 1 && from[i - 1] == to[k - 2] && from[i - 2] == to[k - 1]) {
                cost[i][k] = std::min(cost[i][k], cost[i - 2][k - 2] + 1);
            }
        }
    }
    return cost[from.size()][to.size()];
}

std::string Thousandths(WallTime time) {
    const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    char text[8];
    std::snprintf(text, sizeof(text), ".%03d", static_cast<int>(sinceEpoch.count() % 1000));
    return text;
}

}  // namespace

std::string SystemError(int error) {
    char buffer[128];
    // The GNU variant returns the text, which may be a constant outside the buffer.
    return strerror_r(error, buffer, sizeof(buffer));
}

bool IsReadable(std::string_view bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = CharacterLength(bytes, at);
        if (length == 0) {
            return false;
        }
        const char first = bytes[at];
        if (IsControl(bytes.substr(at, length)) && first != '\n' && first != '\t' && first != '\r') {
            return false;
        }
        at += length;
    }
    return true;
}

std::string ValidUtf8(std::string_view bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = CharacterLength(bytes, at);
        // A byte that begins no character becomes U+FFFD, and reading goes on behind it.
        text += length == 0 ? std::string_view(REPLACEMENT) : bytes.substr(at, length);
        at += length == 0 ? 1 : length;
    }
    return text;
}

std::string OneLine(std::string_view bytes) {
    const std::string valid = ValidUtf8(bytes);
    std::string text;
    for (std::size_t at = 0; at < valid.size();) {
        const std::string_view character = std::string_view(valid).substr(at, CharacterLength(valid, at));
        text += IsControl(character) ? std::string_view(REPLACEMENT) : character;
        at += character.size();
    }
    return text;
}

std::string Hex(std::string_view bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        text.push_back(DIGITS[static_cast<unsigned char>(byte) >> 4U]);
        text.push_back(DIGITS[static_cast<unsigned char>(byte) & 0xFU]);
    }
    return text;
}

std::string HexDump(std::string_view bytes) {
    constexpr std::size_t PER_LINE = 16;
    std::string dump;
    for (std::size_t at = 0; at < bytes.size(); at += PER_LINE) {
        const std::string_view line = bytes.substr(at, PER_LINE);
        char offset[24];
        std::snprintf(offset, sizeof(offset), "  %08zx ", at);
        dump += offset;
        for (std::size_t i = 0; i < PER_LINE; ++i) {
            dump += i < line.size() ? ' ' + Hex(line.substr(i, 1)) : "   ";
        }
        dump += "  ";
        for (const char byte : line) {
            dump.push_back(std::isprint(static_cast<unsigned char>(byte)) != 0 ? byte : '.');
        }
        dump.push_back('\n');
    }
    return dump;
}

std::string Grouped(unsigned long long number) {
    constexpr int GROUP = 3;
    std::string text = std::to_string(number);
    for (int at = static_cast<int>(text.size()) - GROUP; at > 0; at -= GROUP) {
        text.insert(static_cast<std::size_t>(at), ",");
    }
    return text;
}

std::string ShortSize(unsigned long long bytes) {
    constexpr double STEP = 1024;
    if (bytes < static_cast<unsigned long long>(STEP)) {
        return std::to_string(bytes) + " B";
    }
    const auto size = static_cast<double>(bytes);
    return size < STEP * STEP ? Fixed(size / STEP, 1) + " KiB" : Fixed(size / STEP / STEP, 1) + " MiB";
}

std::string Count(unsigned long long number, const char* one, const char* many) {
    return Grouped(number) + ' ' + (number == 1 ? one : many);
}

std::string Milliseconds(std::chrono::nanoseconds time) {
    return Fixed(std::chrono::duration<double, std::milli>(time).count(), 3);
}

std::string ClockTime(WallTime time) { return Format("%H:%M:%S", time) + Thousandths(time); }

std::string StampedTime(WallTime time) {
    return Format("%Y-%m-%dT%H:%M:%S", time) + Thousandths(time) + Format("%z", time);
}

std::string FileTime(WallTime time) { return Format("%Y%m%dT%H%M%S", time) + Thousandths(time); }

std::string Wrapped(const std::string& text, std::size_t indent, std::size_t width) {
    std::string out;
    std::size_t column = indent;
    // Line ends in the text stay; within a line only blanks are places to break.
    for (const std::string& line : Split(text, '\n')) {
        if (!out.empty()) {
            out += '\n' + std::string(indent, ' ');
            column = indent;
        }
        for (const std::string& word : Split(line, ' ')) {
            const bool first = column == indent;
            if (!first && column + 1 + word.size() > width) {
                out += '\n' + std::string(indent, ' ');
                column = indent;
            } else if (!first) {
                out += ' ';
                ++column;
            }
            out += word;
            column += word.size();
        }
    }
    return out;
}

std::string Nearest(const std::string& word, const std::vector<std::string>& known) {
    std::string nearest;
    std::size_t least = word.size() / 3 + 2;  // a third of the letters may be wrong
    for (const std::string& candidate : known) {
        const std::size_t distance = EditDistance(word, candidate);
        if (distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
        end = text.find(separator, begin);
        parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
    }
    return parts;
}

}  // namespace lumora_cli
