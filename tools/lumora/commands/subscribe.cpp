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
    std::string service;
    unsigned count = 0;
    std::chrono::milliseconds timeout{0};
    BlockFormat format;
};

int Run(const Options& options) {
    CheckName("SERVICE", options.service);
    BlockWriter writer(options.format);
    ClientSession session;
    session.Find(options.session, options.service);
    session.Connect();
    session.Subscribe(options.service);
    const bool endless = options.timeout.count() == 0;
    for (unsigned received = 0; options.count == 0 || received < options.count; ++received) {
        const std::optional<Block> block = session.Take(endless ? Never() : In(options.timeout));
        if (!block && options.count != 0) {
            ThrowWhenStopped();
        }
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
    Command command("subscribe", "prints or saves what a service of a device sends");
    command.Describe(
        "Each block has its time, service and size before it. Goes on until a signal ends it, --count blocks "
        "have come, or the device leaves.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected, "
        "and ends when another takes its place.");
    AddSessionOptions(command, options->session);
    command.Argument("SERVICE", options->service, "one of the device's services; lumora info lists them")
        .required = true;
    command.Number("--count", "N", options->count, 1, 1000000000, "ends after N blocks");
    command.Seconds("--timeout", options->timeout, std::chrono::hours(24 * 365),
                    "gives up when no block came for so long; 0, the default, never does");
    AddBlockFormat(command, options->format);
    command.Show("lumora subscribe text-reader text", "prints the texts that the device reads");
    command.Show("lumora subscribe camera picture --count 10 --out pictures", "saves ten pictures");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
