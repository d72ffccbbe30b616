#include "tools/lumora/session/await.h"

#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

void AddAwaitOptions(Command& command, AwaitOptions& options) {
    Option& service = command.Text(
        "--await", "SERVICE", options.service,
        "subscribes to the service first, and afterwards waits for its next block and prints it");
    service.letter = 'A';
    service.offer = Option::Offer::SERVICES;
    command.Seconds("--timeout", options.timeout, std::chrono::hours(24), "how long to wait for it (10)")
        .letter = 't';
    AddBlockFormat(command, options.format);
}

std::vector<std::string> ServicesFor(const AwaitOptions& options) {
    return options.service.empty() ? std::vector<std::string>() : std::vector<std::string>{options.service};
}

// Before anything is sent: the device sends to subscribers only, and the answer may come at once.
void SubscribeForAnswer(ClientSession& session, const AwaitOptions& options) {
    if (!options.service.empty()) {
        session.Subscribe(options.service);
    }
}

void PrintAnswer(ClientSession& session, const AwaitOptions& options, BlockWriter& writer) {
    if (options.service.empty()) {
        return;
    }
    // Blocks up to --timeout, and ends early by a signal.
    const std::optional<Block> block = session.Take(In(options.timeout));
    ThrowWhenStopped();
    if (!block) {
        throw Failure(EXIT_TIMED_OUT, "nothing came from the service \"" + options.service + "\" in time",
                      "--timeout waits longer");
    }
    writer.Write(*block);
}

}  // namespace lumora_cli
