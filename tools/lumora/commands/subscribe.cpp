// lumora subscribe: what a device's service sends, as it comes.
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/block_writer.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

namespace {

struct Options {
    SessionOptions session;
    std::vector<std::string> services;
    bool all = false;
    unsigned count = 0;
    std::chrono::milliseconds timeout{0};
    BlockFormat format;
};

std::vector<std::string> NamesOf(const std::vector<lumora::Service>& services) {
    std::vector<std::string> names;
    names.reserve(services.size());
    for (const lumora::Service& service : services) {
        names.push_back(service.name);
    }
    return names;
}

int Run(const Options& options) {
    if (options.services.empty() != options.all) {
        throw Failure(EXIT_USAGE, "either SERVICE or --all is needed", "see lumora subscribe --help");
    }
    for (const std::string& service : options.services) {
        CheckName("SERVICE", service);
    }
    // Before the session: it creates the folder and refuses options that contradict each other.
    BlockWriter writer(options.format);
    ClientSession session(options.session, options.services);
    for (const std::string& service : options.all ? NamesOf(session.Services()) : options.services) {
        session.Subscribe(service);
    }
    // A timeout of 0 waits for ever; each block starts the time anew.
    const bool endless = options.timeout.count() == 0;
    for (unsigned received = 0; options.count == 0 || received < options.count; ++received) {
        const std::optional<Block> block = session.Take(endless ? Never() : In(options.timeout));
        // With --count a signal ends the command before it is done, so its exit code tells the signal.
        if (!block && options.count != 0) {
            ThrowWhenStopped();
        }
        // Without --count the command is endless, and a signal is its normal end.
        if (!block && StopSignal() != 0) {
            return EXIT_OK;
        }
        if (!block) {
            throw Failure(EXIT_TIMED_OUT, "no block came in time", "--timeout waits longer, 0 for ever");
        }
        writer.Write(*block);
    }
    return EXIT_OK;
}

}  // namespace

Command SubscribeCommand() {
    const auto options = std::make_shared<Options>();
    Command command("subscribe", "prints or saves what services of a device send");
    command.Describe(
        "Each block has its time, service and size before it. Goes on until a signal ends it, --count blocks "
        "have come, or the device leaves; with --again until a signal or --count.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected, and ends when another takes its place.");
    AddSessionOptions(command, options->session);
    command
        .Arguments("SERVICE", options->services,
                   "services of the device, one or several; lumora info lists them")
        .offer = Option::Offer::SERVICES;
    command.Flag("--all", options->all, "all services of the device");
    command
        .Flag("--again", options->session.again,
              "waits until the device is there, and after the end of a connection connects and subscribes "
              "again")
        .letter = 'r';
    command.Number("--count", "N", options->count, 1, 1000000000, "ends after N blocks").letter = 'c';
    command
        .Seconds("--timeout", options->timeout, std::chrono::hours(24 * 365),
                 "gives up when no block came for so long; 0, the default, never does")
        .letter = 't';
    AddBlockFormat(command, options->format);
    command.Prints({{"time", "when the block came, as 2026-01-31T12:03:04.123+0100"},
                    {"service", "that sent it"},
                    {"bytes", "its length"},
                    {"text", "a block that is text"},
                    {"hex", "any other block"},
                    {"file", "with --out, the file"}});
    command.Show("lumora subscribe text-reader text", "prints the texts that the device reads");
    command.Show("lumora subscribe camera --all --again --format '%t %s %p'",
                 "all that the camera sends, as long as this host runs");
    command.Show("lumora subscribe camera picture --count 10 --out pictures", "saves ten pictures");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
