// What the text-reading device sends to the subscribers of its service: one line that says what it is, then
// a text of any length.
//
//     text 312\n<the text that was read, in 312 milliseconds>
//     note\n<something worth knowing, such as a new language>
//     error\n<why a picture or a command failed>
#pragma once

#include <optional>
#include <string>

namespace text_reader {

inline constexpr char SERVICE_NAME[] = "text";
inline constexpr char DEFAULT_DEVICE_TYPE[] = "text-reader";
inline constexpr char SET_LANGUAGE_COMMAND[] = "SetLanguage";

struct Answer {
    enum class Kind { TEXT, NOTE, ERROR };
    Kind kind = Kind::TEXT;
    std::string text;
    unsigned int milliseconds = 0;  // of a TEXT
};

std::string FormatAnswer(const Answer& answer);

// Nothing when the bytes are not an answer.
std::optional<Answer> ParseAnswer(const std::string& bytes);

}  // namespace text_reader
