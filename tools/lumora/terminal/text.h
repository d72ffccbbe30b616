// Text for people: safe for a terminal, readable numbers, times.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace lumora_cli {

using WallTime = std::chrono::system_clock::time_point;

// Whether it is UTF-8 that shows as text: line ends and tabs, and no other control characters.
bool IsReadable(std::string_view bytes);

// UTF-8 in any case; what is not becomes U+FFFD.
std::string ValidUtf8(std::string_view bytes);

// On one line, and without anything that would steer a terminal: names come from the network.
std::string OneLine(std::string_view bytes);

// Offset, bytes and characters, 16 to a line.
std::string HexDump(std::string_view bytes);
std::string Hex(std::string_view bytes);

std::string Grouped(unsigned long long number);                                   // 1,024,000
std::string ShortSize(unsigned long long bytes);                                  // 1.0 MiB
std::string Count(unsigned long long number, const char* one, const char* many);  // "1 device", "2 devices"
std::string Milliseconds(std::chrono::nanoseconds time);                          // "0.412"

std::string ClockTime(WallTime time);    // 12:03:04.123, local
std::string StampedTime(WallTime time);  // 2026-01-31T12:03:04.123+0100
std::string FileTime(WallTime time);     // 20260131T120304.123

// Breaks at blanks; every line but the first begins with indent blanks. Keeps line ends.
std::string Wrapped(const std::string& text, std::size_t indent, std::size_t width);

// The known word that a user may have meant; empty when none is near.
std::string Nearest(const std::string& word, const std::vector<std::string>& known);

std::vector<std::string> Split(const std::string& text, char separator);

}  // namespace lumora_cli
