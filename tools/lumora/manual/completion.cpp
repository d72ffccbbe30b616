// What may stand for the last word of a command line.
#include <algorithm>

#include "tools/lumora/manual/manual.h"

namespace lumora_cli {

namespace {

using Words = std::vector<std::string>;

std::string Line(const std::string& word, const std::string& text) {
    // A list has room for the beginning of what there is to say.
    std::size_t end = text.size();
    for (const char* const pause : {"; ", ". ", ": "}) {
        end = std::min(end, text.find(pause));
    }
    return word + '\t' + text.substr(0, end) + '\n';
}

bool IsSpelling(const Option& option, const std::string& word) {
    return word == option.name || (option.letter != 0 && word == std::string("-") + option.letter);
}

std::string ValuesOf(const Option& option, const std::string& type, const LookUp& lookUp) {
    if (option.offer == Option::Offer::FILES || option.offer == Option::Offer::FOLDERS) {
        return option.offer == Option::Offer::FILES ? "files\n" : "folders\n";
    }
    std::string lines = "words\n";
    for (const std::string& word :
         option.offer == Option::Offer::NOTHING ? option.choices : lookUp(option.offer, type)) {
        lines += Line(word, "");
    }
    return lines;
}

// Among the plain words, of which the first is the command. Most commands have the type first, record the
// file.
std::string TypeAmong(const Words& plain, const Command* command) {
    std::size_t at = 1;
    for (const Option& option : command != nullptr ? command->options : std::vector<Option>()) {
        if (option.IsArgument() && option.offer == Option::Offer::TYPES) {
            break;
        }
        at += option.IsArgument() ? 1U : 0U;
    }
    return plain.size() > at ? plain[at] : "";
}

}  // namespace

std::string Completions(const Manual& manual, const Words& words, const LookUp& lookUp) {
    const Command* command = nullptr;
    const Option* valued = nullptr;  // the option that the next word is the value of
    Words plain;                     // neither options nor their values: the command and its arguments
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        const std::string& word = words[i];
        if (valued != nullptr) {
            // --interface also holds for what is looked up.
            valued->take(word);
            valued = nullptr;
        } else if (word.size() > 1 && word[0] == '-') {
            for (const Option* const option : OptionsOf(manual, command)) {
                valued = IsSpelling(*option, word) && !option->IsFlag() ? option : valued;
            }
        } else {
            command = plain.empty() ? CommandNamed(manual, word) : command;
            plain.push_back(word);
        }
    }
    const std::string type = TypeAmong(plain, command);
    if (valued != nullptr) {
        return ValuesOf(*valued, type, lookUp);
    }
    std::string lines = "words\n";
    const bool wantsOption = !words.empty() && words.back().rfind('-', 0) == 0;
    if (plain.empty() && !wantsOption) {
        for (const Command& one : manual.commands) {
            lines += Line(one.name, one.summary);
        }
        return lines;
    }
    std::size_t before = 1;  // the command, and the arguments that are there
    for (const Option* const option : OptionsOf(manual, command)) {
        // A repeated argument takes all further words.
        if (!wantsOption && option->IsArgument() && (option->repeated || before++ == plain.size())) {
            return ValuesOf(*option, type, lookUp);
        }
    }
    for (const Option* const option : OptionsOf(manual, command)) {
        const bool used = std::any_of(words.begin(), words.end(),
                                      [&](const std::string& word) { return IsSpelling(*option, word); });
        lines += option->IsArgument() || (used && !option->repeated && option->name != words.back())
                     ? ""
                     : Line(option->name, option->text);
    }
    return lines + Line("--help", "shows how it is used");
}

}  // namespace lumora_cli
