// Standard output that notices when it cannot be written, and standard error for people.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace lumora_cli {

// If a standard descriptor is closed, the next file that is opened would get its number, and output would go
// into that file. Opens /dev/null on closed ones.
void HoldStandardDescriptors();

// Throws a Failure when the output is full, a QuietEnd when its reader has left.
void Print(std::string_view text);
inline void PrintLine(const std::string& line) { Print(line + '\n'); }

// Whose remarks and last words they are; otherwise "lumora".
void UseName(const char* program);

// A remark beside the results, on standard error. A failed write is ignored.
void Remark(const std::string& line);

// The last words of a command that failed.
void PrintFailure(const std::string& what, int code);

// The exit code of a program whose work this is; whatever it throws gets its last words.
int RunToTheEnd(const std::function<int()>& run);

// --json: results, and the last words, are JSON.
void UseJson();
bool IsJson();

}  // namespace lumora_cli
