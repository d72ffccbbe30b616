// lumora serve: a device from the command line.
#include <unistd.h>
#include <lumora.hpp>

#include <atomic>
#include <memory>
#include <optional>

#include "nodes/platform_front.h"
#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/program.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/device_start.h"
#include "tools/lumora/session/inbox.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

using lumora_nodes::TakeCause;
using lumora_nodes::WithCause;

struct Options {
    std::string type;
    std::vector<std::string> services;
    bool echo = false;
    std::string program;
    std::string onCommand;
    std::chrono::milliseconds every{0};
    std::chrono::milliseconds timeout{60000};
};

// A program may be slower than a client.
constexpr std::size_t MOST_WAITING_BYTES = std::size_t{64} * 1024 * 1024;

// Something that a client has done.
struct Event {
    enum class Kind { SUBSCRIBED, LEFT, COMMAND, DATA };

    Kind kind;
    WallTime time;
    int client = 0;
    std::string name;       // of the service or the command
    std::string parameter;  // of the command
    std::size_t length = 0;
    std::string data;  // empty unless a program gets it
    std::string fault;
};

// Events take their time here, on the thread that received them, and not when they are printed.
Event NewEvent(Event::Kind kind, int client, std::string_view name) {
    return {kind, std::chrono::system_clock::now(), client, std::string(name), "", 0, "", ""};
}

// ---- Setting up

[[noreturn]] void ThrowBadService(const std::string& spec) {
    throw Failure(EXIT_USAGE,
                  "--service \"" + spec + "\" is not NAME, NAME:TRANSPORT or NAME:TRANSPORT:BYTES",
                  "as in picture:tcp:1024000");
}

std::optional<lumora::Transport> ParseTransport(const std::string& word) {
    for (const auto kind : {lumora::Transport::UDP, lumora::Transport::TCP, lumora::Transport::RTP}) {
        if (TransportName(static_cast<int>(kind)) == word) {
            return kind;
        }
    }
    return std::nullopt;
}

lumora::Service ParseServiceOption(const std::string& spec) {
    const std::vector<std::string> parts = Split(spec, ':');
    if (parts.size() > 3 || parts[0].empty()) {
        ThrowBadService(spec);
    }
    CheckName("the name of a service", parts[0]);
    const auto transport = parts.size() > 1 ? ParseTransport(parts[1]) : lumora::Transport::TCP;
    // Without a length the service announces the longest output that a device may send.
    const auto bytes = parts.size() > 2 ? ParseSize(parts[2]) : LUM_MAX_SERVER_DATA_LENGTH;
    if (!transport || !bytes || *bytes > INT32_MAX) {
        ThrowBadService(spec);
    }
    return {parts[0], static_cast<unsigned>(*bytes), *transport};
}

std::vector<lumora::Service> ServicesOf(const Options& options) {
    std::vector<std::string> names = options.services;
    // --echo alone offers one service of this name, which lumora ping expects.
    if (names.empty() && options.echo) {
        names = {"echo"};
    }
    if (names.empty() || names.size() > LUM_MAX_SERVICES) {
        throw Failure(EXIT_USAGE, "a device has 1 to 8 services", "name them with --service, or use --echo");
    }
    CheckName("TYPE", options.type);
    std::vector<lumora::Service> services;
    services.reserve(names.size());
    for (const std::string& name : names) {
        services.push_back(ParseServiceOption(name));
    }
    return services;
}

// The device in the network. What clients do waits in Events.
class ServedDevice {
public:
    ServedDevice(const Options& options, const std::vector<lumora::Service>& services)
        : mOptions(options), mAnswersOn(services.front().name), mDevice(options.type) {
        for (const lumora::Service& service : services) {
            mDevice.Offer(service.name, service.outputBytes, service.transport);
        }
        // Handlers are set before Start: a client may come at once.
        Handle();
        StartDevice(mDevice);
    }

    Inbox<Event>& Events() { return mEvents; }
    // The service that answers go to: the first one.
    const std::string& AnswersOn() const { return mAnswersOn; }
    bool HasSubscribers() const { return !mDevice.Subscribers(mAnswersOn).empty(); }
    // Gives back the memory of a block that has been worked off.
    void Release(const Event& event) { mWaitingBytes -= event.data.size(); }

    // Empty, or what went wrong.
    std::string Send(std::string_view data) {
        if (data.size() > LUM_MAX_SERVER_DATA_LENGTH) {
            return Grouped(data.size()) + " bytes are more than a device may send, " +
                   Grouped(LUM_MAX_SERVER_DATA_LENGTH);
        }
        std::error_code error;
        TakeCause();
        return mDevice.Send(mAnswersOn, data, error)
                   ? ""
                   : WithCause("the client could not be reached: " + error.message());
    }

private:
    void Handle() {
        mDevice.OnCommand([this](std::string_view name, std::string_view parameter) {
            Event event = NewEvent(Event::Kind::COMMAND, 0, name);
            event.parameter = parameter;
            mEvents.Put(std::move(event));
        });
        mDevice.OnSubscribe([this](const lumora::Subscription& begun) {
            mEvents.Put(NewEvent(Event::Kind::SUBSCRIBED, begun.client, begun.service));
        });
        mDevice.OnUnsubscribe([this](const lumora::Subscription& ended) {
            mEvents.Put(NewEvent(Event::Kind::LEFT, ended.client, ended.service));
        });
        mDevice.OnData([this](int client, lumora::Bytes data) { TakeData(client, data); });
    }

    // Runs on the transport's receive thread. An echo is sent from here, because the queue would add a delay
    // to what ping measures. Programs run on the main thread, since they may take long.
    void TakeData(int client, lumora::Bytes data) {
        Event event = NewEvent(Event::Kind::DATA, client, mAnswersOn);
        event.length = data.size();
        if (mOptions.echo && !data.empty()) {
            event.fault = Send(data.Text());
        } else if (!mOptions.program.empty() && mWaitingBytes + data.size() > MOST_WAITING_BYTES) {
            // The queue is bounded: a client can send faster than the program works.
            event.fault = "the block was dropped: the program is too slow";
        } else if (!mOptions.program.empty()) {
            // Added on the receive thread and subtracted on the main thread, hence atomic.
            mWaitingBytes += data.size();
            event.data = data.Text();
        }
        mEvents.Put(std::move(event));
    }

    const Options& mOptions;
    const std::string mAnswersOn;
    Inbox<Event> mEvents;  // filled on the library's threads
    std::atomic<std::size_t> mWaitingBytes{0};
    lumora::Device mDevice;  // the last one: no handler runs once it is gone
};

// ---- Telling

const char* WordOf(Event::Kind kind) {
    switch (kind) {
        case Event::Kind::SUBSCRIBED:
            return "subscribed";
        case Event::Kind::LEFT:
            return "unsubscribed";
        case Event::Kind::COMMAND:
            return "command";
        case Event::Kind::DATA:
            return "data";
    }
    return "";
}

std::string JsonLine(const Event& event) {
    JsonObject line;
    line.Add("time", StampedTime(event.time)).Add("event", WordOf(event.kind));
    if (event.kind == Event::Kind::COMMAND) {
        return line.Add("command", event.name).Add("parameter", event.parameter).Text();
    }
    line.Add("client", event.client);
    if (event.kind != Event::Kind::DATA) {
        return line.Add("service", event.name).Text();
    }
    line.Add("bytes", event.length);
    return event.fault.empty() ? line.Text() : line.Add("fault", event.fault).Text();
}

// The same event for people, without the time.
std::string TextLine(const Event& event) {
    const std::string client = "client " + std::to_string(event.client);
    switch (event.kind) {
        case Event::Kind::SUBSCRIBED:
            return client + " subscribed to " + event.name;
        case Event::Kind::LEFT:
            return client + " left " + event.name;
        case Event::Kind::COMMAND:
            return "command " + event.name + (event.parameter.empty() ? "" : ' ' + event.parameter);
        case Event::Kind::DATA:
            break;
    }
    return client + " sent " + Count(event.length, "byte", "bytes") +
           (event.fault.empty() ? "" : "; " + event.fault);
}

// OneLine: names and texts come from the network and must not steer the terminal.
void PrintLineAt(WallTime time, const std::string& line) {
    PrintLine(Coloured(ClockTime(time), Colour::FAINT, STDOUT_FILENO) + "  " + OneLine(line));
}

void Tell(const Event& event) {
    if (IsJson()) {
        PrintLine(JsonLine(event));
    } else {
        PrintLineAt(event.time, TextLine(event));
    }
}

void TellReady(const Options& options, const std::vector<lumora::Service>& services) {
    const WallTime now = std::chrono::system_clock::now();
    std::string names;
    for (const lumora::Service& service : services) {
        names += (names.empty() ? "" : ", ") + service.name;
    }
    if (IsJson()) {
        PrintLine(
            JsonObject()
                .Add("time", StampedTime(now))
                .Add("event", "ready")
                .Add("type", options.type)
                .AddRaw("services", JsonArray(services, [](const auto& one) { return JsonText(one.name); }))
                .Text());
    } else {
        PrintLineAt(now, options.type + " is ready with " + names + "; Ctrl-C ends it");
    }
}

void TellAnswer(const std::string& service, std::size_t bytes, const std::string& fault) {
    const WallTime now = std::chrono::system_clock::now();
    if (IsJson()) {
        JsonObject line;
        line.Add("time", StampedTime(now)).Add("event", "answer").Add("service", service).Add("bytes", bytes);
        PrintLine(fault.empty() ? line.Text() : line.Add("fault", fault).Text());
    } else {
        PrintLineAt(now, fault.empty() ? service + " sent " + Count(bytes, "byte", "bytes")
                                       : service + " sent nothing: " + fault);
    }
}

// ---- Answering

// What went wrong with a run, or an empty text if its output can be sent.
std::string FaultOf(const ProgramRun& run) {
    switch (run.end) {
        case ProgramRun::End::NOT_STARTED:
            return "the program cannot be started";
        case ProgramRun::End::LATE:
            return "the program took too long and was ended; --timeout allows more";
        case ProgramRun::End::TOO_MUCH:
            return "the program wrote more than the " + Grouped(LUM_MAX_SERVER_DATA_LENGTH) +
                   " bytes that a device may send";
        case ProgramRun::End::STOPPED:
            return "the program was ended with the device";
        case ProgramRun::End::EXITED:
            break;
    }
    if (run.exitCode != 0) {
        return "the program ended with " + std::to_string(run.exitCode);
    }
    return run.output.empty() ? "the program wrote nothing" : "";
}

// What happens is worked off here, one thing after the other, until a signal comes.
class Work {
public:
    Work(const Options& options, ServedDevice& device) : mOptions(options), mDevice(device) {}

    void Run() {
        while (StopSignal() == 0) {
            // Waits for an event, for the clock of --every, or for a signal.
            const std::optional<Event> event = mDevice.Events().Take(IsClock() ? mNext : Never());
            if (event) {
                Handle(*event);
            } else if (StopSignal() == 0) {
                // Counted from now and not from the planned time: runs that took too long are not made up
                // for.
                mNext = In(mOptions.every);
                Answer(mOptions.program, "", {{"LUMORA_CLIENT", ""}});
            }
        }
    }

private:
    using Variables = std::vector<std::pair<std::string, std::string>>;

    // Without subscribers nothing would be sent, so the program does not run.
    bool IsClock() const { return mOptions.every.count() != 0 && mDevice.HasSubscribers(); }

    void Handle(const Event& event) {
        Tell(event);
        mDevice.Release(event);
        if (event.kind == Event::Kind::DATA && !mOptions.program.empty() && event.fault.empty()) {
            Answer(mOptions.program, event.data, {{"LUMORA_CLIENT", std::to_string(event.client)}});
        } else if (event.kind == Event::Kind::COMMAND && !mOptions.onCommand.empty()) {
            Answer(mOptions.onCommand, event.parameter,
                   {{"LUMORA_CLIENT", ""},
                    {"LUMORA_COMMAND", event.name},
                    {"LUMORA_PARAMETER", event.parameter}});
        }
    }

    void Answer(const std::string& program, const std::string& input, Variables variables) {
        variables.emplace_back("LUMORA_SERVICE", mDevice.AnswersOn());
        // Blocks until the program ends, up to --timeout. Events wait in the queue meanwhile.
        const ProgramRun run =
            RunProgram(program, input, variables, LUM_MAX_SERVER_DATA_LENGTH, mOptions.timeout);
        std::string fault = FaultOf(run);
        if (fault.empty()) {
            fault = mDevice.Send(run.output);
        }
        TellAnswer(mDevice.AnswersOn(), run.output.size(), fault);
    }

    const Options& mOptions;
    ServedDevice& mDevice;
    Deadline mNext = Clock::now();
};

int Run(const Options& options) {
    if (options.echo && !options.program.empty()) {
        throw Failure(EXIT_USAGE, "--echo and --exec both want to answer", "use one of them");
    }
    if (options.every.count() != 0 && options.program.empty()) {
        throw Failure(EXIT_USAGE, "--every runs what --exec names", "name a program");
    }
    const std::vector<lumora::Service> services = ServicesOf(options);
    ServedDevice device(options, services);
    TellReady(options, services);
    Work(options, device).Run();
    return EXIT_OK;
}

}  // namespace

Command ServeCommand() {
    const auto options = std::make_shared<Options>();
    Command command("serve", "is a device");
    command.Describe(
        "Prints a line for each thing that a client does. With --echo each block that a client sends goes "
        "back to the subscribers of the first service. With --exec a program gets each block on its standard "
        "input, and what it writes to its standard output, up to 1,024,000 bytes, goes to the subscribers of "
        "the first service: any script becomes a device. --on-command does the same for commands.");
    command.Describe(
        "The program finds the client's number in LUMORA_CLIENT, the service's name in LUMORA_SERVICE, and "
        "with --on-command the command in LUMORA_COMMAND and its parameter in LUMORA_PARAMETER and on its "
        "standard input. One that ends with another exit code than 0 sends nothing. Blocks and commands are "
        "worked off one after the other.");
    command.Argument("TYPE", options->type, "the type by which clients find it").required = true;
    command
        .Texts("--service", "NAME", options->services,
               "offers a service; up to 8. NAME:TRANSPORT:BYTES also tells its transport (tcp, udp or rtp) "
               "and the length of its output: picture:tcp:1M (tcp:1024000)")
        .letter = 's';
    command.Flag("--echo", options->echo, "sends back what comes; without --service, on the service echo")
        .letter = 'e';
    command.Text("--exec", "PROGRAM", options->program, "a shell command that answers each block").letter =
        'x';
    command.Text("--on-command", "PROGRAM", options->onCommand, "a shell command that answers each command")
        .letter = 'c';
    command.Seconds("--every", options->every, std::chrono::hours(24),
                    "runs the program of --exec also by itself, with nothing on its standard input and no "
                    "LUMORA_CLIENT, again and again while a client is subscribed");
    command
        .Seconds("--timeout", options->timeout, std::chrono::hours(24),
                 "ends a program that takes longer (60)")
        .letter = 't';
    command.Prints({{"time", "when it happened"},
                    {"event", "ready, subscribed, unsubscribed, command, data or answer"},
                    {"type", "of ready: the device type"},
                    {"services", "of ready: the names of the services"},
                    {"client", "of subscribed, unsubscribed and data: the client's number"},
                    {"service", "of subscribed, unsubscribed and answer"},
                    {"command", "of command: its name"},
                    {"parameter", "of command"},
                    {"bytes", "of data and answer: the length"},
                    {"fault", "of data and answer: why nothing was sent; missing if all went well"}});
    command.Show("lumora serve echo-device --echo", "something to try lumora ping on");
    command.Show("lumora serve counter --service words --exec 'wc -w'", "a device that counts words");
    command.Show("lumora serve sensor --service load --exec 'cat /proc/loadavg' --every 5",
                 "and one that measures");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
