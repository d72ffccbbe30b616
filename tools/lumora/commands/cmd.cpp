// lumora cmd: one command for a device's application.
#include <lumora.h>

#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/session/await.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

struct Options {
    SessionOptions session;
    std::string name;
    std::string parameter;
    AwaitOptions await;
};

void Check(const Options& options) {
    // Clients subscribe by commands of these two names, and the library expects another kind of parameter
    // there.
    if (options.name == "subscribe" || options.name == "unsubscribe") {
        throw Failure(EXIT_USAGE, '"' + options.name + "\" is no command of the application",
                      "lumora subscribe subscribes, and its end cancels that");
    }
    if (options.name.empty() || options.name.size() + options.parameter.size() > LUM_MAX_CMD_LENGTH) {
        throw Failure(EXIT_USAGE, "NAME is empty, or NAME and PARAM have more than 400 characters together");
    }
}

int Run(const Options& options) {
    Check(options);
    // Made before the session, because it refuses options that contradict each other.
    BlockWriter writer(options.await.format);
    ClientSession session(options.session, ServicesFor(options.await));
    // Before the command: the device may answer at once.
    SubscribeForAnswer(session, options.await);
    session.SendCommand(options.name, options.parameter);
    if (!options.await.service.empty()) {
        PrintAnswer(session, options.await, writer);
    } else if (IsJson()) {
        PrintLine(JsonObject()
                      .Add("type", options.session.device.type)
                      .Add("command", options.name)
                      .Add("parameter", options.parameter)
                      .Add("taken", true)
                      .Text());
    }
    return EXIT_OK;
}

}  // namespace

Command CmdCommand() {
    const auto options = std::make_shared<Options>();
    Command command("cmd", "sends a command to a device");
    command.Describe(
        "A command has no answer of its own. What the device has to say comes as data of one of its "
        "services, which --await shows. Exit code 0 says that the device's application was called.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected.");
    AddSessionOptions(command, options->session);
    command.Argument("NAME", options->name, "the command, as the device knows it").required = true;
    command.Argument("PARAM", options->parameter,
                     "its parameter; NAME and PARAM have up to 400 characters together. Put -- before what "
                     "begins with a hyphen.");
    AddAwaitOptions(command, options->await);
    command.Prints({
        {"type", "without --await: the type of the device, as it was named"},
        {"command", "without --await: NAME"},
        {"parameter", "without --await: PARAM"},
        {"taken", "without --await: true"},
        {"time", "of an answer: when it came, as 2026-01-31T12:03:04.123+0100"},
        {"service", "of an answer"},
        {"bytes", "of an answer: its length"},
        {"text", "an answer that is text"},
        {"hex", "any other answer"},
        {"file", "with --out, the file of an answer"},
    });
    command.Show("lumora cmd camera SetMode night", "sets the mode of a camera that knows this command");
    command.Show("lumora cmd text-reader SetLanguage deu --await text",
                 "and prints what the device says to it");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
