// lumora send: files, or standard input, as blocks of data.
#include <unistd.h>

#include <memory>
#include <optional>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/files.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/await.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/progress.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    SessionOptions session;
    std::vector<std::string> files;
    std::vector<std::string> texts;
    bool lines = false;
    unsigned split = 0;
    std::chrono::milliseconds linger{300};
    AwaitOptions await;
};

// Blocks and bytes sent so far.
struct Sum {
    unsigned long blocks = 0;
    unsigned long bytes = 0;
};

[[noreturn]] void ThrowTooLong(const std::string& name) {
    throw Failure(EXIT_USAGE, name + " has more than the 5,242,880 bytes of one block",
                  "--split 1M sends it as several");
}

// Before the network is joined: what cannot be sent is known at once. The sum is 0 if it is not known.
std::uint64_t CheckFiles(const Options& options) {
    std::uint64_t total = 0;
    bool known = true;
    for (const std::string& path : options.files) {
        const std::size_t length = InputFile::LengthOf(path);
        if (length > LUM_MAX_CLIENT_DATA_LENGTH && options.split == 0 && !options.lines) {
            ThrowTooLong(path);
        }
        known = known && length > 0;
        total += length;
    }
    return known ? total : 0;
}

void Check(const Options& options) {
    if (options.files.empty() && options.texts.empty()) {
        throw Failure(EXIT_USAGE, "FILE or --text is needed", "- is standard input; see lumora send --help");
    }
    if (options.lines && options.split != 0) {
        throw Failure(EXIT_USAGE, "--lines and --split both say where blocks end", "use one of them");
    }
    for (const std::string& text : options.texts) {
        if (text.empty() || text.size() > LUM_MAX_CLIENT_DATA_LENGTH) {
            throw Failure(EXIT_USAGE, "a block has 1 to 5,242,880 bytes, and --text " +
                                          Count(text.size(), "byte", "bytes"));
        }
    }
}

// Sends what the user named, and prints one answer for each text, file, or line.
class Sender {
public:
    Sender(ClientSession& session, const Options& options, std::uint64_t total)
        : mSession(session), mOptions(options), mWriter(options.await.format), mProgress(total) {}

    void SendAll() {
        for (const std::string& text : mOptions.texts) {
            Sum sum;
            SendBlock("--text", text, sum);
            Finish("", sum);
        }
        for (const std::string& path : mOptions.files) {
            SendFile(path);
        }
    }

    const Sum& Total() const { return mTotal; }

private:
    void SendFile(const std::string& path) {
        InputFile file(path);
        Sum sum;
        while (std::optional<std::string> block = NextBlock(file, sum)) {
            SendBlock(file.Name(), *block, sum);
            // With --lines each line has its own answer. It is awaited before the next line is sent.
            if (mOptions.lines) {
                Answer();
            }
        }
        if (sum.blocks == 0) {
            throw Failure(EXIT_FILE, file.Name() + " is empty", "a block has at least one byte");
        }
        Finish(path, sum);
    }

    std::optional<std::string> NextBlock(InputFile& file, const Sum& sum) const {
        constexpr std::size_t TOO_LONG =
            LUM_MAX_CLIENT_DATA_LENGTH + 1;  // shows that there is more than fits
        std::string block;
        if (mOptions.lines) {
            // Skips empty lines: a block has at least one byte.
            do {
                std::optional<std::string> line = file.ReadLine(TOO_LONG);
                if (!line) {
                    return std::nullopt;
                }
                block = std::move(*line);
            } while (block.empty());
        } else if (mOptions.split != 0 || sum.blocks == 0) {
            block = file.Read(mOptions.split != 0 ? mOptions.split : TOO_LONG);
        }
        if (block.size() > LUM_MAX_CLIENT_DATA_LENGTH) {
            ThrowTooLong(file.Name());
        }
        return block.empty() ? std::nullopt : std::optional(std::move(block));
    }

    void SendBlock(const std::string& name, const std::string& block, Sum& sum) {
        mSession.Send(block);
        ++sum.blocks;
        sum.bytes += block.size();
        mProgress.Advance(name.substr(name.rfind('/') + 1), block.size());
        ThrowWhenStopped();
    }

    void Finish(const std::string& path, const Sum& sum) {
        // The total is summed per file, so that JSON tells each file's own figures.
        mTotal.blocks += sum.blocks;
        mTotal.bytes += sum.bytes;
        if (IsJson()) {
            PrintLine(
                JsonObject().Add("file", path).Add("blocks", sum.blocks).Add("bytes", sum.bytes).Text());
        }
        if (!mOptions.lines || path.empty()) {
            Answer();
        }
    }

    void Answer() {
        // The answer goes to the same terminal and must not stand in the progress line.
        mProgress.Clear();
        PrintAnswer(mSession, mOptions.await, mWriter);
    }

    ClientSession& mSession;
    const Options& mOptions;
    BlockWriter mWriter;
    Progress mProgress;
    Sum mTotal;
};

int Run(const Options& options) {
    Check(options);
    const std::uint64_t total = CheckFiles(options);
    ClientSession session(options.session, ServicesFor(options.await));
    SubscribeForAnswer(session, options.await);
    Sum sum;
    {
        // A scope of its own: the destructor of the progress line clears it before the summary is printed.
        Sender sender(session, options, total);
        sender.SendAll();
        sum = sender.Total();
    }
    if (!IsJson() && isatty(STDERR_FILENO) == 1) {
        Remark(ShortSize(sum.bytes) + " sent in " + Count(sum.blocks, "block", "blocks"));
    }
    if (options.await.service.empty()) {
        // The session's end waits until the device's host has all, and a device hands it over before it
        // closes. Devices of other makes may drop what they have not read, so the program waits a little.
        PauseUnlessStopped(static_cast<int>(options.linger.count()));
    }
    return EXIT_OK;
}

}  // namespace

Command SendCommand() {
    const auto options = std::make_shared<Options>();
    Command command("send", "sends files, texts or lines to a device");
    command.Describe(
        "Each file goes as one block of up to 5,242,880 bytes. Longer ones are refused: --split cuts them, "
        "and the device gets several blocks. On a terminal a long send shows how far it is.");
    command.Describe(
        "Exit code 0 says that the network has taken all; a device does not acknowledge data. The program "
        "ends when the device's host has all, and the device's application gets 7 s for what it has not "
        "read. A device of another make may drop that: let the connection stay with --linger, or let "
        "--await wait for an answer. With --await each file, text, or line has one answer, and the next is "
        "sent after it.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected.");
    AddSessionOptions(command, options->session);
    command.Arguments("FILE", options->files, "files of any kind; - is standard input").offer =
        Option::Offer::FILES;
    command
        .Texts("--text", "TEXT", options->texts,
               "sends this text as a block, before the files; may be repeated")
        .letter = 'm';
    command
        .Flag("--lines", options->lines, "each line of the files is a block, as it comes; empty ones are not")
        .letter = 'l';
    command
        .Size("--split", options->split, 1, LUM_MAX_CLIENT_DATA_LENGTH,
              "cuts files into blocks of so many bytes: 1500, 64K (64KiB), 1.5M")
        .letter = 's';
    command.Seconds("--linger", options->linger, std::chrono::hours(1),
                    "how long the connection stays after the last block (0.3)");
    AddAwaitOptions(command, options->await);
    command.Prints({
        {"file", "the file, as it was named; empty for --text. With --out, the file of an answer"},
        {"blocks", "how many it became"},
        {"bytes", "how many were sent; of an answer, its length"},
        {"time", "of an answer: when it came, as 2026-01-31T12:03:04.123+0100"},
        {"service", "of an answer"},
        {"text", "an answer that is text"},
        {"hex", "any other answer"},
    });
    command.Show("lumora send shouter --text hello --await shout", "sends a word, and prints the answer");
    command.Show("lumora send text-reader page.png --await text", "has a page read, and prints its text");
    command.Show("tar -c src | lumora send archive --split 1M -", "sends what a pipe brings");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
