// What a shell offers when TAB is pressed. The scripts lumora.bash and _lumora ask for it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/lumora/manual/pages.h"

namespace lumora_cli {

// The names that can only be looked up when TAB is pressed; the type is that of the device whose services it
// asks for.
using LookUp = std::function<std::vector<std::string>(Option::Offer offer, const std::string& type)>;

// The words are those behind the program's name, up to the one to complete. The first line of the result is
// "words", "files" or "folders". Behind "words" each line has a word, a tab and what it means; words that the
// last one does not begin with are not left out.
std::string Completions(const Manual& manual, const std::vector<std::string>& words, const LookUp& lookUp);

}  // namespace lumora_cli
