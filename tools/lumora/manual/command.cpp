#include "tools/lumora/manual/command.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <utility>

#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

// Nothing unless the whole text is one number. from_chars does not depend on the locale, as strtod does.
template <typename Value>
std::optional<Value> Read(const std::string& text) {
    Value value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

// Stores a number within the bounds, or says what was expected. Also refuses "nan": each comparison with it
// is false.
template <typename Value, typename Variable>
std::string Store(std::optional<Value> value, Value least, Value most, const Variable& store,
                  const char* what, const char* unit = "") {
    if (!value || !(*value >= least && *value <= most)) {
        return std::string("is no ") + what + " from " + Grouped(static_cast<unsigned long long>(least)) +
               " to " + Grouped(static_cast<unsigned long long>(most)) + unit;
    }
    store(*value);
    return "";
}

}  // namespace

std::optional<unsigned long long> ParseSize(const std::string& text) {
    constexpr double MOST = 1ULL << 40U;
    static const std::pair<const char*, double> UNITS[] = {
        {"KiB", 1024}, {"MiB", 1024 * 1024}, {"K", 1024}, {"M", 1024 * 1024}, {"B", 1}, {"", 1}};
    for (const auto& [unit, factor] : UNITS) {
        const std::size_t length = std::strlen(unit);
        // The longer units come first in the table: "KiB" also ends in "B".
        const bool fits = text.size() > length && text.compare(text.size() - length, length, unit) == 0;
        const auto count = fits ? Read<double>(text.substr(0, text.size() - length)) : std::nullopt;
        if (count) {
            const double bytes = *count * factor;
            // 1.5K is a whole number of bytes, 1.0001K is not.
            const bool whole = bytes >= 0 && bytes <= MOST && bytes == std::floor(bytes);
            return whole ? std::optional(static_cast<unsigned long long>(bytes)) : std::nullopt;
        }
    }
    return std::nullopt;
}

Command& Command::Describe(std::string paragraph) {
    paragraphs.push_back(std::move(paragraph));
    return *this;
}

Command& Command::Show(std::string line, std::string what) {
    examples.emplace_back(std::move(line), std::move(what));
    return *this;
}

Command& Command::Prints(Terms jsonFields) {
    fields = std::move(jsonFields);
    return *this;
}

Option& Command::Add(const std::string& option, const std::string& word, const std::string& text, Take take) {
    Option& added = options.emplace_back();
    added.name = option;
    added.value = word;
    added.text = text;
    added.take = std::move(take);
    return added;
}

Option& Command::Flag(const std::string& option, bool& variable, const std::string& text) {
    return Add(option, "", text, [&variable](const std::string&) {
        // Called only if the option is given.
        variable = true;
        return "";
    });
}

Option& Command::Text(const std::string& option, const std::string& word, std::string& variable,
                      const std::string& text) {
    return Add(option, word, text, [&variable](const std::string& value) {
        variable = value;
        return "";
    });
}

Option& Command::Texts(const std::string& option, const std::string& word, std::vector<std::string>& variable,
                       const std::string& text) {
    Option& added = Add(option, word, text, [&variable](const std::string& value) {
        variable.push_back(value);
        return "";
    });
    added.repeated = true;
    return added;
}

Option& Command::Choice(const std::string& option, std::string& variable, std::vector<std::string> choices,
                        const std::string& text) {
    const Take take = [&variable, choices](const std::string& value) {
        if (std::find(choices.begin(), choices.end(), value) == choices.end()) {
            return "is none of " + Joined(choices);
        }
        variable = value;
        return std::string();
    };
    Option& added = Add(option, "WORD", text + " (" + Joined(choices) + ")", take);
    added.choices = std::move(choices);
    return added;
}

Option& Command::Number(const std::string& option, const std::string& word, unsigned& variable,
                        unsigned least, unsigned most, const std::string& text) {
    return Add(option, word, text, [&variable, least, most](const std::string& value) {
        return Store(
            Read<unsigned>(value), least, most, [&](unsigned number) { variable = number; }, "number");
    });
}

Option& Command::Factor(const std::string& option, const std::string& word, double& variable, unsigned most,
                        const std::string& text) {
    return Add(option, word, text, [&variable, most](const std::string& value) {
        return Store<double>(
            Read<double>(value), 0, most, [&](double number) { variable = number; }, "number");
    });
}

Option& Command::Seconds(const std::string& option, std::chrono::milliseconds& variable,
                         std::chrono::milliseconds most, const std::string& text) {
    using FloatSeconds = std::chrono::duration<double>;
    return Add(option, "SECONDS", text, [&variable, most](const std::string& value) {
        const auto store = [&](double seconds) {
            variable = std::chrono::round<std::chrono::milliseconds>(FloatSeconds(seconds));
        };
        return Store(Read<double>(value), 0.0, FloatSeconds(most).count(), store, "number of seconds");
    });
}

Option& Command::Size(const std::string& option, unsigned& variable, unsigned least, unsigned most,
                      const std::string& text) {
    return Add(option, "BYTES", text, [&variable, least, most](const std::string& value) {
        const auto store = [&](unsigned long long bytes) { variable = static_cast<unsigned>(bytes); };
        return Store<unsigned long long>(ParseSize(value), least, most, store, "size", " bytes");
    });
}

}  // namespace lumora_cli
