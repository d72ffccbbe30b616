// lumora send: files, or standard input, as blocks of data.
#include <lumora.h>
#include <unistd.h>

#include <memory>

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
    unsigned split = 0;
    std::chrono::milliseconds linger{300};
    AwaitOptions await;
};

struct Sum {
    unsigned long blocks = 0;
    unsigned long bytes = 0;
};

[[noreturn]] void ThrowTooLong(const std::string& name) {
    throw Failure(EXIT_USAGE, name + " has more than the 5,242,880 bytes of one block",
                  "--split 1M sends it as several");
}

// Before anybody is searched for: what cannot be sent is known at once. The sum is 0 where it is not known.
std::uint64_t CheckFiles(const Options& options) {
    std::uint64_t total = 0;
    bool known = true;
    for (const std::string& path : options.files) {
        const std::size_t length = InputFile(path).Length();
        if (length > LUM_MAX_CLIENT_DATA_LENGTH && options.split == 0) {
            ThrowTooLong(path);
        }
        known = known && length > 0;
        total += length;
    }
    return known ? total : 0;
}

Sum SendFile(ClientSession& session, const Options& options, const std::string& path, Progress& progress) {
    InputFile file(path);
    Sum sum;
    // One byte more shows that there is more than fits.
    const std::size_t most = options.split != 0 ? options.split : LUM_MAX_CLIENT_DATA_LENGTH + 1;
    for (std::string block = file.Read(most); !block.empty();
         block = options.split != 0 ? file.Read(most) : std::string()) {
        if (block.size() > LUM_MAX_CLIENT_DATA_LENGTH) {
            ThrowTooLong(file.Name());
        }
        session.Send(block);
        ++sum.blocks;
        sum.bytes += block.size();
        progress.Advance(file.Name().substr(file.Name().rfind('/') + 1), block.size());
        ThrowWhenStopped();
    }
    if (sum.blocks == 0) {
        throw Failure(EXIT_FILE, file.Name() + " is empty", "a block has at least one byte");
    }
    return sum;
}

Sum SendFiles(ClientSession& session, const Options& options, std::uint64_t total) {
    Progress progress(total);
    Sum sum;
    for (const std::string& path : options.files) {
        const Sum sent = SendFile(session, options, path, progress);
        sum.blocks += sent.blocks;
        sum.bytes += sent.bytes;
        if (IsJson()) {
            PrintLine(
                JsonObject().Add("file", path).Add("blocks", sent.blocks).Add("bytes", sent.bytes).Text());
        }
    }
    return sum;
}

int Run(const Options& options) {
    const std::uint64_t total = CheckFiles(options);
    ClientSession session;
    session.Find(options.session, options.await.service);
    session.Connect();
    SubscribeForAnswer(session, options.await);
    const Sum sum = SendFiles(session, options, total);
    if (!IsJson() && isatty(STDERR_FILENO) == 1) {
        Remark(ShortSize(sum.bytes) + " sent in " + Count(sum.blocks, "block", "blocks"));
    }
    PrintAnswer(session, options.await);
    if (options.await.service.empty()) {
        PauseUnlessStopped(static_cast<int>(options.linger.count()));
    }
    return EXIT_OK;
}

}  // namespace

Command SendCommand() {
    const auto options = std::make_shared<Options>();
    Command command("send", "sends files to a device");
    command.Describe(
        "Each file goes as one block of up to 5,242,880 bytes. Longer ones are refused: --split cuts them, "
        "and "
        "the device gets several blocks. On a terminal a long send shows how far it is.");
    command.Describe(
        "Exit code 0 says that the network has taken all; a device does not acknowledge data. The connection "
        "stays for the time of --linger, so that the device can read what is under way: allow more for one "
        "that "
        "works slowly, or let --await wait for its answer.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected.");
    AddSessionOptions(command, options->session);
    Option& files = command.Arguments("FILE", options->files, "files of any kind; - is standard input");
    files.required = true;
    files.offer = Option::Offer::FILES;
    command.Size("--split", options->split, 1, LUM_MAX_CLIENT_DATA_LENGTH,
                 "cuts files into blocks of so many bytes; 64K and 1M mean what they say");
    command.Seconds("--linger", options->linger, std::chrono::hours(1),
                    "how long the connection stays after the last block (0.3)");
    AddAwaitOptions(command, options->await);
    command.Show("lumora send text-reader page.png --await text", "has a page read, and prints its text");
    command.Show("tar -c src | lumora send archive --split 1M -", "sends what a pipe brings");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
