#include "tools/lumora/session/await.h"

#include "tools/lumora/os/signals.h"
#include "tools/lumora/terminal/failure.h"

namespace lumora_cli {

void AddAwaitOptions(Command& command, AwaitOptions& options) {
    command.Text("--await", "SERVICE", options.service,
                 "subscribes to the service first, and afterwards waits for its next block and prints it");
    command.Seconds("--timeout", options.timeout, std::chrono::hours(24), "how long to wait for it (10)");
    AddBlockFormat(command, options.format);
}

void SubscribeForAnswer(ClientSession& session, const AwaitOptions& options) {
    if (!options.service.empty()) {
        session.Subscribe(options.service);
    }
}

void PrintAnswer(ClientSession& session, const AwaitOptions& options) {
    if (options.service.empty()) {
        return;
    }
    BlockWriter writer(options.format);
    const std::optional<Block> block = session.Take(In(options.timeout));
    ThrowWhenStopped();
    if (!block) {
        throw Failure(EXIT_TIMED_OUT, "nothing came from the service \"" + options.service + "\" in time",
                      "--timeout waits longer");
    }
    writer.Write(*block);
}

}  // namespace lumora_cli
