#include "text_answer.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace text_reader {

namespace {

constexpr std::string_view TEXT_WORD = "text ";
constexpr std::string_view NOTE_LINE = "note";
constexpr std::string_view ERROR_LINE = "error";

std::optional<unsigned int> ParseMilliseconds(std::string_view digits) {
    unsigned int value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || rest != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::string FormatAnswer(const Answer& answer) {
    switch (answer.kind) {
        case Answer::Kind::TEXT:
            return std::string(TEXT_WORD) + std::to_string(answer.milliseconds) + "\n" + answer.text;
        case Answer::Kind::NOTE:
            return std::string(NOTE_LINE) + "\n" + answer.text;
        case Answer::Kind::ERROR:
            break;
    }
    return std::string(ERROR_LINE) + "\n" + answer.text;
}

std::optional<Answer> ParseAnswer(const std::string& bytes) {
    const std::size_t lineEnd = bytes.find('\n');
    if (lineEnd == std::string::npos) {
        return std::nullopt;
    }
    const std::string_view line(bytes.data(), lineEnd);
    const std::string text = bytes.substr(lineEnd + 1);
    if (line == NOTE_LINE) {
        return Answer{Answer::Kind::NOTE, text};
    }
    if (line == ERROR_LINE) {
        return Answer{Answer::Kind::ERROR, text};
    }
    if (line.substr(0, TEXT_WORD.size()) != TEXT_WORD) {
        return std::nullopt;
    }
    const auto milliseconds = ParseMilliseconds(line.substr(TEXT_WORD.size()));
    if (!milliseconds) {
        return std::nullopt;
    }
    return Answer{Answer::Kind::TEXT, text, *milliseconds};
}

}  // namespace text_reader
