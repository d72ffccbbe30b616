#include "tools/lumora/session/block_writer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/lumora/os/files.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

// Guesses the kind of a file by its first bytes, so that a viewer opens it.
const char* EndingOf(const std::string& data) {
    if (data.compare(0, 4, "\x89PNG") == 0) {
        return ".png";
    }
    if (data.compare(0, 3, "\xFF\xD8\xFF") == 0) {
        return ".jpg";
    }
    return IsReadable(data) ? ".txt" : ".bin";
}

std::string JsonLine(const Block& block, const std::string& form, const std::string& file) {
    JsonObject line;
    line.Add("time", StampedTime(block.time)).Add("service", block.service).Add("bytes", block.data.size());
    if (!file.empty()) {
        line.Add("file", file);
    } else if (form == "text" || (form == "auto" && IsReadable(block.data))) {
        line.Add("text", block.data);
    } else {
        line.Add("hex", Hex(block.data));
    }
    return line.Text();
}

// A block that is text may lack its last line end. The next block must begin on a line of its own.
std::string WithLineEnd(std::string text) {
    if (text.empty() || text.back() != '\n') {
        text += '\n';
    }
    return text;
}

std::string WithoutLineEnd(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

// For --as text: line ends and tabs stay, other control characters must not reach a terminal.
std::string SafeText(const std::string& bytes) {
    std::string text;
    for (const std::string& line : Split(bytes, '\n')) {
        text += (text.empty() ? "" : "\n") + OneLine(line);
    }
    return text;
}

std::string ForPeople(const Block& block, const std::string& form) {
    if (form == "hex" || (form == "auto" && !IsReadable(block.data))) {
        return '\n' + HexDump(block.data);
    }
    const std::string text = WithoutLineEnd(IsReadable(block.data) ? block.data : SafeText(block.data));
    // Text of one line stands beside its head; longer text begins below.
    const bool oneLine = text.find('\n') == std::string::npos;
    return (oneLine ? "  " : "\n") + WithLineEnd(text);
}

}  // namespace

void AddBlockFormat(Command& command, BlockFormat& format) {
    command.Choice("--as", format.form, {"auto", "text", "hex", "raw"},
                   "how a block is shown: auto is text if it is text and else hex, raw the bytes and nothing "
                   "else");
    Option& out =
        command.Text("--out", "DIR", format.folder,
                     "saves each block to a file of its own in this folder, which is made if it is missing");
    out.letter = 'o';
    out.offer = Option::Offer::FOLDERS;
    command
        .Text("--format", "TEXT", format.pattern,
              "prints a line of this form for each block: %t is its time, %s its service, %n its number of "
              "bytes, %p its text, %x its bytes in hex, %f its file, %% a percent sign")
        .letter = 'F';
}

BlockWriter::BlockWriter(BlockFormat format) : mFormat(std::move(format)) {
    if (mFormat.form == "raw" && (IsJson() || !mFormat.folder.empty())) {
        throw Failure(EXIT_USAGE, "--as raw goes neither with --json nor with --out",
                      "leave one of them out");
    }
    if (!mFormat.pattern.empty() && (IsJson() || mFormat.form == "raw")) {
        throw Failure(EXIT_USAGE, "--format goes neither with --json nor with --as raw",
                      "leave one of them out");
    }
    if (!mFormat.folder.empty()) {
        MakeFolder(mFormat.folder);
    }
}

void BlockWriter::Write(const Block& block) {
    if (mFormat.form == "raw") {
        // Raw blocks follow each other without any separator, as a program expects that reads them.
        Print(block.data);
        return;
    }
    const std::string file = mFormat.folder.empty() ? "" : Save(block);
    if (IsJson()) {
        PrintLine(JsonLine(block, mFormat.form, file));
        return;
    }
    if (!mFormat.pattern.empty()) {
        PrintLine(Filled(block, file));
        return;
    }
    const std::string head = ClockTime(block.time) + "  " + OneLine(block.service) + "  " +
                             Count(block.data.size(), "byte", "bytes");
    Print(Coloured(head, Colour::FAINT, STDOUT_FILENO) +
          (file.empty() ? ForPeople(block, mFormat.form) : "  " + OneLine(file) + '\n'));
}

std::string BlockWriter::Filled(const Block& block, const std::string& file) const {
    std::string line;
    for (std::size_t i = 0; i < mFormat.pattern.size(); ++i) {
        const char character = mFormat.pattern[i];
        const char directive =
            character == '%' && i + 1 < mFormat.pattern.size() ? mFormat.pattern[i + 1] : '\0';
        const std::string known = "tsnpxf%";
        // An unknown directive is printed as it stands.
        if (directive == 0 || known.find(directive) == std::string::npos) {
            line += character;
            continue;
        }
        ++i;
        line += directive == 't'   ? StampedTime(block.time)
                : directive == 's' ? OneLine(block.service)
                : directive == 'n' ? std::to_string(block.data.size())
                : directive == 'p' ? WithoutLineEnd(SafeText(block.data))
                : directive == 'x' ? Hex(block.data)
                : directive == 'f' ? file
                                   : "%";
    }
    return line;
}

std::string BlockWriter::Save(const Block& block) {
    std::string service = OneLine(block.service);
    // The service's name comes from the device. With a slash it could leave the folder.
    std::replace(service.begin(), service.end(), '/', '_');
    char number[16];
    // The number keeps blocks of the same millisecond apart.
    std::snprintf(number, sizeof(number), "-%06u", ++mNumber);
    std::string path =
        mFormat.folder + '/' + service + '-' + FileTime(block.time) + number + EndingOf(block.data);
    WriteFile(path, block.data);
    return path;
}

}  // namespace lumora_cli
