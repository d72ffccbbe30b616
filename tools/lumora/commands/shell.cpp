// lumora shell: an interactive session on one connection.
#include <unistd.h>

#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/files.h"
#include "tools/lumora/os/line_editor.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/block_writer.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    SessionOptions session;
    BlockFormat format;
};

constexpr const char* WORDS[] = {"cmd",       "help", "quit",        "send",   "services",
                                 "subscribe", "text", "unsubscribe", "version"};

// Answers to the last lines may be under way when the input ends.
constexpr std::chrono::milliseconds LINGER(300);

// What a line begins with, and what is behind that.
struct Line {
    explicit Line(const std::string& text) {
        const std::size_t begin = text.find_first_not_of(' ');
        const std::size_t end = begin == std::string::npos ? begin : text.find(' ', begin);
        word = begin == std::string::npos ? "" : text.substr(begin, end - begin);
        const std::size_t next = end == std::string::npos ? end : text.find_first_not_of(' ', end);
        rest = next == std::string::npos ? "" : text.substr(next);
    }

    // Completion leaves a blank behind a name.
    std::string Name() const { return rest.substr(0, rest.find_last_not_of(' ') + 1); }

    std::string word;
    std::string rest;
};

class Shell {
public:
    explicit Shell(const Options& options) : mWriter(options.format), mSession(options.session, {}) {}

    int Run() {
        // Made after the session, because it offers the names of the device's services.
        LineEditor editor("lumora> ", Completions());
        while (StopSignal() == 0) {
            const std::optional<std::string> line =
                // Waits for a line and for data of the device at the same time. Blocks are printed above the
                // prompt.
                editor.Next(mSession.ReadyFd(), [this] { PrintBlocks(Clock::now()); });
            if (!line || Line(*line).word == "quit") {
                break;
            }
            Obey(Line(*line));
        }
        // Also after the end of a script: its last commands may have answers.
        PrintBlocks(In(LINGER));
        return EXIT_OK;
    }

private:
    std::vector<std::string> Completions() const {
        std::vector<std::string> words(std::begin(WORDS), std::end(WORDS));
        for (const lumora::Service& service : mSession.Services()) {
            words.push_back(service.name);
        }
        return words;
    }

    void PrintBlocks(Deadline deadline) {
        while (const std::optional<Block> block = mSession.Take(deadline)) {
            mWriter.Write(*block);
        }
    }

    // A line that cannot be obeyed is told of, and the session goes on.
    void Obey(const Line& line) try {
        if (line.word == "subscribe") {
            mSession.Subscribe(line.Name());
        } else if (line.word == "unsubscribe") {
            mSession.Unsubscribe(line.Name());
        } else if (line.word == "cmd") {
            // Splits "NAME PARAM" in the same way as the line itself.
            const Line command(line.rest);
            mSession.SendCommand(command.word, command.rest);
        } else if (line.word == "text") {
            mSession.Send(line.rest);
        } else if (line.word == "send") {
            // One byte more than a block may have: the library then refuses it with its own message, instead
            // of a cut block.
            mSession.Send(InputFile(line.Name()).Read(LUM_MAX_CLIENT_DATA_LENGTH + 1));
        } else if (line.word == "version") {
            PrintLine(OneLine(mSession.DeviceVersion()));
        } else if (line.word == "services") {
            PrintServices();
        } else if (line.word == "help") {
            PrintHelp();
        } else if (!line.word.empty()) {
            const std::string nearest = Nearest(line.word, Completions());
            Remark("unknown word " + line.word +
                   (nearest.empty() ? "; try help" : "; did you mean " + nearest + '?'));
        }
    } catch (const Failure& failure) {
        Remark(failure.what());
    }

    void PrintServices() const {
        for (const lumora::Service& service : mSession.Services()) {
            PrintLine(OneLine(service.name));
        }
    }

    static void PrintHelp() {
        Print(
            "subscribe SERVICE     prints what the service sends from now on\n"
            "unsubscribe SERVICE   ends that\n"
            "cmd NAME [PARAM]      sends a command\n"
            "text TEXT             sends a text as a block\n"
            "send FILE             sends a file as a block\n"
            "services              lists the services\n"
            "version               asks for the version of the device's library\n"
            "quit                  ends the session; so does Ctrl-D\n");
    }

    BlockWriter mWriter;
    ClientSession mSession;
};

}  // namespace

Command ShellCommand() {
    const auto options = std::make_shared<Options>();
    Command command("shell", "talks with a device, line by line, on one connection");
    command.Describe(
        "Reads lines such as \"subscribe SERVICE\", \"cmd NAME PARAM\" and \"text TEXT\"; help lists them. "
        "What the device sends is printed as it comes. On a terminal lines can be edited, the arrow keys "
        "bring back earlier ones, and TAB completes. A line that fails does not end the session.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected.");
    AddSessionOptions(command, options->session);
    command.Flag("--again", options->session.again, "connects again after the end of a connection").letter =
        'r';
    AddBlockFormat(command, options->format);
    command.Prints({{"time", "when a block came, as 2026-01-31T12:03:04.123+0100"},
                    {"service", "that sent it"},
                    {"bytes", "its length"},
                    {"text", "a block that is text"},
                    {"hex", "any other block"},
                    {"file", "with --out, the file"}});
    command.Show("lumora shell shouter", "an interactive session");
    command.Show("printf 'cmd SetMode night\\n' | lumora shell camera", "lines from a script");
    command.run = [options] { return Shell(*options).Run(); };
    return command;
}

}  // namespace lumora_cli
