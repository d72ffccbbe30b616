// lumora info: all that a device says of itself, or what a recording holds.
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/recording/recording_reader.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/link_node.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/json.h"
#include "tools/lumora/terminal/output.h"
#include "tools/lumora/terminal/table.h"
#include "tools/lumora/terminal/text.h"

namespace lumora_cli {

namespace {

struct Options {
    DeviceChoice device;
    std::chrono::milliseconds wait{2000};
};

std::string Page(const FoundDevice& device) {
    std::string page = OneLine(device.type) + "\n  address  " + device.address + ", UDP port " +
                       std::to_string(device.port) + '\n';
    // A node with a type that does not describe services is usually a client.
    if (!device.answers) {
        return page +
               "  It offers no services: a client, or a device that is not ready or does not answer.\n";
    }
    page += "  version  " + (device.version.empty() ? "-" : OneLine(device.version)) + '\n';
    for (const Service& service : device.services) {
        page += "  service  " + OneLine(service.name) + ", " + TransportName(service.transport) + ", " +
                (service.outputBytes == 0 ? "output of any length"
                                          : "output of " + Grouped(service.outputBytes) + " bytes") +
                '\n';
    }
    return page;
}

// ---- Recordings

// A type may have any characters. A word with a slash is a path all the same, and --address makes it a type.
bool IsFile(const DeviceChoice& choice) {
    return choice.address.empty() &&
           (choice.type.find('/') != std::string::npos || RecordingReader::IsDatabase(choice.type));
}

// "12:00:01.000 to 12:03:04.123" would not tell the day.
std::string FromTo(Micros first, Micros last) {
    return StampedTime(FromMicros(first)) + " to " + StampedTime(FromMicros(last));
}

std::string LineOf(const RecordedService& service) {
    std::string line = "  service  " + OneLine(service.name) + ", " + TransportName(service.transport);
    if (!service.recorded) {
        return line + ", not recorded\n";
    }
    line += ", " + Count(service.blocks, "block", "blocks") + ", " + ShortSize(service.bytes) + '\n';
    if (service.first && service.last) {
        line += "           " + FromTo(*service.first, *service.last) + '\n';
    }
    return line;
}

std::string LineOf(const Gap& gap) {
    return "  gap      " + StampedTime(FromMicros(gap.begin)) + " to " +
           (gap.end ? StampedTime(FromMicros(*gap.end)) : "the end") + ", " + OneLine(gap.reason) +
           (gap.lost == 0 ? "" : ", " + Count(gap.lost, "block", "blocks") + " lost") + '\n';
}

std::string Page(const Recording& recording, const std::vector<Gap>& gaps) {
    std::string page = OneLine(recording.type) + "\n  address  " +
                       (recording.address.empty() ? "-" : OneLine(recording.address)) + "\n  version  " +
                       (recording.version.empty() ? "-" : OneLine(recording.version)) + "\n  time     " +
                       (recording.end ? FromTo(recording.start, *recording.end)
                                      : StampedTime(FromMicros(recording.start)) +
                                            "; it still goes on, or was interrupted") +
                       '\n';
    for (const RecordedService& service : recording.services) {
        page += LineOf(service);
    }
    // On a slow disk there may be hundreds.
    constexpr std::size_t MOST_SHOWN = 20;
    std::uint64_t lost = 0;
    for (std::size_t i = 0; i < gaps.size(); ++i) {
        page += i < MOST_SHOWN ? LineOf(gaps[i]) : "";
        lost += gaps[i].lost;
    }
    if (gaps.size() > MOST_SHOWN) {
        page += "  gaps     " + Grouped(gaps.size()) + " in all, " + Count(lost, "block", "blocks") +
                " lost; --json lists them\n";
    }
    return page;
}

void AddTime(JsonObject& object, const char* key, const std::optional<Micros>& time) {
    object.AddRaw(key, time ? JsonText(StampedTime(FromMicros(*time))) : "null");
}

std::string JsonOf(const RecordedService& service) {
    JsonObject object;
    object.Add("name", service.name).Add("transport", TransportName(service.transport));
    object.Add("outputBytes", service.outputBytes).Add("recorded", service.recorded);
    object.Add("blocks", service.blocks).Add("bytes", service.bytes);
    AddTime(object, "first", service.first);
    AddTime(object, "last", service.last);
    return object.Text();
}

std::string JsonOf(const Gap& gap) {
    JsonObject object;
    AddTime(object, "begin", gap.begin);
    AddTime(object, "end", gap.end);
    return object.Add("reason", gap.reason).Add("lost", gap.lost).Text();
}

std::string RecordingJson(const std::string& file, const Recording& recording, const std::vector<Gap>& gaps) {
    JsonObject object;
    object.Add("file", file).Add("type", recording.type).Add("address", recording.address);
    object.Add("version", recording.version);
    AddTime(object, "start", recording.start);
    AddTime(object, "end", recording.end);
    object.AddRaw("services", JsonArray(recording.services, [](const auto& one) { return JsonOf(one); }));
    return object.AddRaw("gaps", JsonArray(gaps, [](const auto& one) { return JsonOf(one); })).Text();
}

int DescribeFile(const std::string& file) {
    // A file of a stranger may have any number of them.
    constexpr std::size_t MOST_GAPS = 10000;
    RecordingReader reader(file);
    const std::vector<Gap> gaps = reader.Gaps(MOST_GAPS);
    Print(IsJson() ? RecordingJson(file, reader.About(), gaps) + '\n' : Page(reader.About(), gaps));
    return EXIT_OK;
}

// ---- Devices

// The name of a file that is not there is taken for a type.
std::string AdviceFor(const std::string& type) {
    const std::string list = "lumora find lists those that are there";
    return type.find('.') == std::string::npos ? list + ", --wait searches longer"
                                               : list + "; a recording is named as ./" + OneLine(type);
}

int Run(Options options) {
    if (IsFile(options.device)) {
        return DescribeFile(options.device.type);
    }
    options.device.Take();
    LinkNode node;
    const std::string& type = options.device.type;
    const std::vector<FoundDevice> devices =
        // Without a type, all devices that send a hello in this time.
        type.empty() ? FindAllDevices(node, options.wait) : FindDevices(node, type, options.wait);
    if (devices.empty()) {
        throw Failure(EXIT_NO_DEVICE,
                      type.empty() ? "no device was found"
                                   : "no device of type " + options.device.Text() + " was found",
                      AdviceFor(type));
    }
    std::string pages;
    for (const FoundDevice& device : devices) {
        pages += (pages.empty() ? "" : "\n") + Page(device);
    }
    // All pages in one write, so that a reader that leaves early sees whole devices.
    Print(IsJson() ? ToJson(devices) + '\n' : pages);
    return EXIT_OK;
}

}  // namespace

Command InfoCommand() {
    const auto options = std::make_shared<Options>();
    Command command("info", "tells all that a device says of itself, or what a recording holds");
    command.Describe("It only asks: a device that serves a client of another host is not disturbed.");
    command.Describe(
        "A word with a slash is the path of a recording, and so is one that names an SQLite file of the "
        "current "
        "folder. Every other word is a type, and with --address this one, too.");
    command
        .Argument("TYPE", options->device.type,
                  "the type of the device, or TYPE@ADDRESS for one of several, or a recording such as "
                  "./day.rec; without it, every device")
        .offer = Option::Offer::TYPES;
    AddAddress(command, options->device);
    AddWait(command, options->wait, "how long to search (2)");
    command.Prints({{"[].address", "the IPv4 address"},
                    {"[].port", "the UDP port of the link platform"},
                    {"[].type", "the device type"},
                    {"[].answers", "false: the node did not describe any services"},
                    {"[].version", "of the device's library"},
                    {"[].services[].name", "the name of a service"},
                    {"[].services[].transport", "none, udp, tcp, rtp, 4 or 5"},
                    {"[].services[].outputBytes", "the length of its output; 0: any"},
                    {"file", "of a recording: the file"},
                    {"type", "of a recording: the device type"},
                    {"address", "the IPv4 address that the device had"},
                    {"version", "of the device's library"},
                    {"start", "when the recording began, as 2026-01-31T12:03:04.123+0100"},
                    {"end", "when it ended; null: it still goes on, or was interrupted"},
                    {"services[].name", "the name of a service"},
                    {"services[].transport", "none, udp, tcp, rtp, 4 or 5"},
                    {"services[].outputBytes", "the length of its output; 0: any"},
                    {"services[].recorded", "false: its blocks were not recorded"},
                    {"services[].blocks", "how many blocks it has"},
                    {"services[].bytes", "the sum of their lengths"},
                    {"services[].first", "when the first one came; null without blocks"},
                    {"services[].last", "when the last one came; null without blocks"},
                    {"gaps[].begin", "from when blocks are missing"},
                    {"gaps[].end", "up to when; null: up to the end"},
                    {"gaps[].reason", "disconnected, too slow or not written"},
                    {"gaps[].lost", "how many; 0: not known"}});
    command.Show("lumora info camera", "every camera with its services and its version");
    command.Show("lumora info ./day.rec", "what was recorded, and when");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
