// Standard output that notices when it cannot be written, and standard error for people.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace lumora_cli {

// Where one of the standard descriptors is closed, no file of ours may take its number.
void HoldStandardDescriptors();

// Throws a Failure when the output is full, a QuietEnd when its reader has left.
void Print(std::string_view text);
inline void PrintLine(const std::string& line) { Print(line + '\n'); }

// Whose remarks and last words they are; otherwise "lumora".
void UseName(const char* program);

// A remark beside the results; lost when nobody can read it.
void Remark(const std::string& line);

// The last words of a command that failed.
void PrintFailure(const std::string& what, int code);

// The exit code of a program whose work this is; whatever it throws gets its last words.
int RunToTheEnd(const std::function<int()>& run);

// --json: results, and the last words, are JSON.
void UseJson();
bool IsJson();

}  // namespace lumora_cli
