// lumora serve: a device from the command line.
#include <lumora.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/program.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/inbox.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/terminal.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    std::string type;
    std::vector<std::string> services;
    bool echo = false;
    std::string program;
    std::chrono::milliseconds every{0};
    std::chrono::milliseconds timeout{60000};
};

// A program may be slower than a client.
constexpr std::size_t MOST_WAITING_BYTES = std::size_t{64} * 1024 * 1024;
constexpr unsigned SEND_TIMEOUT_MS = LUM_MAX_SERVER_TIMEOUT_MS;

// Something that a client has done.
struct Event {
    enum class Kind { SUBSCRIBED, LEFT, COMMAND, DATA };

    Kind kind;
    WallTime time;
    int client = 0;
    std::string name;       // of the service or the command
    std::string parameter;  // of the command
    std::size_t length = 0;
    std::string data;  // only where a program wants it
    std::string fault;
};

// The library's callbacks do not say for whom they are.
struct Device {
    std::string answersOn;  // the first service
    bool echo = false;
    bool keepsData = false;
    Inbox<Event> events;
    std::atomic<std::size_t> waitingBytes{0};
};
Device* g_device = nullptr;

Event NewEvent(Event::Kind kind, int client, const std::string& name) {
    return {kind, std::chrono::system_clock::now(), client, name, "", 0, "", ""};
}

// Empty, or what went wrong.
std::string SendToSubscribers(const std::string& service, std::string_view data) {
    unsigned sent = 0;
    if (data.size() > LUM_MAX_SERVER_DATA_LENGTH) {
        return Grouped(data.size()) + " bytes are more than a device may send, " +
               Grouped(LUM_MAX_SERVER_DATA_LENGTH);
    }
    const auto length = static_cast<unsigned>(data.size());
    if (LUM_SendDataToClient(service.c_str(), data.data(), length, &sent, SEND_TIMEOUT_MS) != 0) {
        return "the client could not be reached";
    }
    return sent == length ? "" : "the client took only " + Grouped(sent) + " bytes";
}

int OnCommand(const char* name, const char* parameter) try {
    Event event = NewEvent(Event::Kind::COMMAND, 0, name);
    event.parameter = parameter;
    g_device->events.Put(std::move(event));
    return 0;
} catch (const std::exception&) {
    return -1;
}

int OnEventNotify(int client, int event, LUM_SUBSCRIBE_SERVICE_S subscription) try {
    subscription.serviceName[LUM_NAME_SIZE - 1] = '\0';
    g_device->events.Put(
        NewEvent(event == LUM_NOTIFY_SUBSCRIBED ? Event::Kind::SUBSCRIBED : Event::Kind::LEFT, client,
                 subscription.serviceName));
    return 0;
} catch (const std::exception&) {
    return -1;
}

int OnData(int client, const char* data, unsigned int length) try {
    Event event = NewEvent(Event::Kind::DATA, client, g_device->answersOn);
    event.length = length;
    if (g_device->echo && length > 0) {
        event.fault = SendToSubscribers(g_device->answersOn, {data, length});
    } else if (g_device->keepsData && g_device->waitingBytes + length > MOST_WAITING_BYTES) {
        event.fault = "the block was dropped: the program is too slow";
    } else if (g_device->keepsData) {
        g_device->waitingBytes += length;
        event.data.assign(data, length);
    }
    g_device->events.Put(std::move(event));
    return 0;
} catch (const std::exception&) {
    return -1;
}

// ---- Setting up

[[noreturn]] void ThrowBadService(const std::string& spec) {
    throw Failure(EXIT_USAGE,
                  "--service \"" + spec + "\" is not NAME, NAME:TRANSPORT or NAME:TRANSPORT:BYTES",
                  "as in picture:tcp:1024000");
}

LUM_SERVICE_INFO_S ParseServiceOption(const std::string& spec) {
    const std::vector<std::string> parts = Split(spec, ':');
    LUM_SERVICE_INFO_S service = {LUM_MAX_SERVER_DATA_LENGTH, "", LUM_TRANSPORT_TCP};
    if (parts.size() > 3 || parts[0].empty()) {
        ThrowBadService(spec);
    }
    CheckName("the name of a service", parts[0]);
    parts[0].copy(service.serviceName, LUM_NAME_SIZE - 1);
    if (parts.size() > 1) {
        int kind = LUM_TRANSPORT_UDP;
        while (kind <= LUM_TRANSPORT_RTP && TransportName(kind) != parts[1]) {
            ++kind;
        }
        if (kind > LUM_TRANSPORT_RTP) {
            ThrowBadService(spec);
        }
        service.transport = static_cast<LUM_TRANSPORT_E>(kind);
    }
    if (parts.size() > 2) {
        char* end = nullptr;
        const unsigned long bytes = std::strtoul(parts[2].c_str(), &end, 10);
        if (parts[2].empty() || parts[2][0] < '0' || parts[2][0] > '9' || *end != '\0' || bytes > INT32_MAX) {
            ThrowBadService(spec);
        }
        service.outputLenBytes = static_cast<unsigned>(bytes);
    }
    return service;
}

LUM_DEVICE_INFO_S DeviceInfo(const Options& options) {
    LUM_DEVICE_INFO_S info = {};
    std::vector<std::string> services = options.services;
    if (services.empty() && options.echo) {
        services = {"echo"};
    }
    if (services.empty() || services.size() > LUM_MAX_SERVICES) {
        throw Failure(EXIT_USAGE, "a device has 1 to 8 services", "name them with --service, or use --echo");
    }
    CheckName("TYPE", options.type);
    options.type.copy(info.devServiceType, LUM_NAME_SIZE - 1);
    for (const std::string& service : services) {
        info.serviceInfo[info.serviceNum++] = ParseServiceOption(service);
    }
    info.OnCommand = OnCommand;
    info.OnEventNotify = OnEventNotify;
    info.OnData = OnData;
    return info;
}

// On the network from the beginning to the end of its life.
class Presence {
public:
    Presence(const std::string& type, const LUM_DEVICE_INFO_S& info) {
        if (TcpPortState(DEVICE_PORT) == PortState::TAKEN) {
            throw Failure(EXIT_REFUSED, "TCP port 6666 is taken on this host",
                          "another device has a client: end one of them first");
        }
        if (LUM_InitServer(type.c_str()) != 0 || LUM_RegisterAiDevInfo(&info) != 0) {
            LUM_DeInitServer();
            throw Failure(EXIT_FAILED, "the device cannot be made", "--log error tells why");
        }
    }
    ~Presence() { LUM_DeInitServer(); }
    Presence(const Presence&) = delete;
    Presence& operator=(const Presence&) = delete;
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

void TellReady(const Options& options, const LUM_DEVICE_INFO_S& info) {
    const WallTime now = std::chrono::system_clock::now();
    std::string names;
    std::vector<std::string> elements;
    for (unsigned i = 0; i < info.serviceNum; ++i) {
        names += (i == 0 ? "" : ", ") + std::string(info.serviceInfo[i].serviceName);
        elements.push_back(JsonText(info.serviceInfo[i].serviceName));
    }
    if (IsJson()) {
        PrintLine(JsonObject()
                      .Add("time", StampedTime(now))
                      .Add("event", "ready")
                      .Add("type", options.type)
                      .AddRaw("services", JsonArray(elements))
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

// client is 0 where nobody has asked: it is time for the next block.
void AnswerByProgram(const Options& options, const std::string& service, int client,
                     const std::string& data) {
    const ProgramRun run = RunProgram(
        options.program, data,
        {{"LUMORA_CLIENT", client == 0 ? "" : std::to_string(client)}, {"LUMORA_SERVICE", service}},
        LUM_MAX_SERVER_DATA_LENGTH, options.timeout);
    std::string fault = FaultOf(run);
    if (fault.empty()) {
        fault = SendToSubscribers(service, run.output);
    }
    TellAnswer(service, run.output.size(), fault);
}

// What happens is worked off here, one thing after the other, until a signal comes.
class Work {
public:
    Work(const Options& options, Device& device) : mOptions(options), mDevice(device) {}

    void Run() {
        while (StopSignal() == 0) {
            const std::optional<Event> event = mDevice.events.Take(IsClock() ? mNext : Never());
            if (event) {
                Handle(*event);
            } else if (StopSignal() == 0) {
                mNext = In(mOptions.every);
                AnswerByProgram(mOptions, mDevice.answersOn, 0, "");
            }
        }
    }

private:
    // Nobody listens, nobody speaks.
    bool IsClock() const { return mOptions.every.count() != 0 && mSubscribers > 0; }

    void Handle(const Event& event) {
        Tell(event);
        mDevice.waitingBytes -= event.data.size();
        if (event.kind == Event::Kind::DATA && mDevice.keepsData && event.fault.empty()) {
            AnswerByProgram(mOptions, event.name, event.client, event.data);
        } else if (event.kind == Event::Kind::SUBSCRIBED && event.name == mDevice.answersOn) {
            ++mSubscribers;
        } else if (event.kind == Event::Kind::LEFT && event.name == mDevice.answersOn) {
            --mSubscribers;
        }
    }

    const Options& mOptions;
    Device& mDevice;
    int mSubscribers = 0;
    Deadline mNext = Clock::now();
};

int Run(const Options& options) {
    if (options.echo && !options.program.empty()) {
        throw Failure(EXIT_USAGE, "--echo and --exec both want to answer", "use one of them");
    }
    if (options.every.count() != 0 && options.program.empty()) {
        throw Failure(EXIT_USAGE, "--every runs what --exec names", "name a program");
    }
    const LUM_DEVICE_INFO_S info = DeviceInfo(options);
    Device device;
    device.answersOn = info.serviceInfo[0].serviceName;
    device.echo = options.echo;
    device.keepsData = !options.program.empty();
    g_device = &device;
    const Presence presence(options.type, info);
    TellReady(options, info);
    Work(options, device).Run();
    return EXIT_OK;
}

}  // namespace

Command ServeCommand() {
    const auto options = std::make_shared<Options>();
    Command command("serve", "is a device");
    command.Describe(
        "Prints a line for each thing that a client does. With --echo each block that a client sends goes "
        "back "
        "to the subscribers of the first service. With --exec a program gets each block on its standard "
        "input, "
        "and what it writes to its standard output, up to 1,024,000 bytes, goes to the subscribers of the "
        "first "
        "service: any script becomes a device. The program finds the client's number in LUMORA_CLIENT and "
        "the "
        "service's name in LUMORA_SERVICE; one that ends with another exit code than 0 sends nothing. Blocks "
        "are "
        "worked off one after the other.");
    command.Argument("TYPE", options->type, "the type by which clients find it").required = true;
    command.Texts(
        "--service", "NAME", options->services,
        "offers a service; up to 8. NAME:TRANSPORT:BYTES also tells its transport (tcp, udp or rtp) "
        "and the length of its output (tcp:1024000)");
    command.Flag("--echo", options->echo, "sends back what comes; without --service, on the service echo");
    command.Text("--exec", "PROGRAM", options->program, "a shell command that answers each block");
    command.Seconds("--every", options->every, std::chrono::hours(24),
                    "runs the program of --exec also by itself, with nothing on its standard input and no "
                    "LUMORA_CLIENT, again and again while somebody is subscribed");
    command.Seconds("--timeout", options->timeout, std::chrono::hours(24),
                    "ends a program that takes longer (60)");
    command.Show("lumora serve echo-device --echo", "something to try lumora ping on");
    command.Show("lumora serve counter --service words --exec 'wc -w'", "a device that counts words");
    command.Show("lumora serve sensor --service load --exec 'cat /proc/loadavg' --every 5",
                 "and one that measures");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
