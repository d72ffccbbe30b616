// lumora replay: a device that sends again what was recorded.
#include <lumora.hpp>

#include <algorithm>
#include <functional>
#include <memory>

#include "nodes/platform_front.h"
#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/recording/recording_reader.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/device_start.h"
#include "tools/lumora/session/inbox.h"
#include "tools/lumora/terminal/event_line.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

struct Options {
    std::string file;
    std::string type;
    double speed = 1;
    bool loop = false;
    std::chrono::milliseconds from{0};
    std::chrono::milliseconds to{0};
};

// A client subscribes to several services one after the other. The first blocks wait for all of them, but not
// longer than this.
constexpr std::chrono::milliseconds SUBSCRIPTION_PATIENCE(1000);
// The connection closes with the device, and would take what the client has not read yet with it.
constexpr int LINGER_MS = 300;

struct Subscribed {
    bool begun;
    int client;
    std::string service;
};

// The device in the network. It offers what was recorded.
class ReplayDevice {
public:
    ReplayDevice(const std::string& type, const std::vector<RecordedService>& services) : mDevice(type) {
        for (const RecordedService& service : services) {
            if (service.recorded) {
                mNames.push_back(service.name);
                mDevice.Offer(service.name, service.outputBytes,
                              static_cast<lumora::Transport>(service.transport));
            }
        }
        mDevice.OnSubscribe([this](const lumora::Subscription& begun) {
            mEvents.Put({true, begun.client, std::string(begun.service)});
        });
        mDevice.OnUnsubscribe([this](const lumora::Subscription& ended) {
            mEvents.Put({false, ended.client, std::string(ended.service)});
        });
        StartDevice(mDevice);
    }

    const std::vector<std::string>& Names() const { return mNames; }
    bool HasSubscribers(const std::string& service) const { return !mDevice.Subscribers(service).empty(); }
    bool HasAnySubscribers() const {
        return std::any_of(mNames.begin(), mNames.end(),
                           [this](const auto& one) { return HasSubscribers(one); });
    }
    bool HasAllSubscribers() const {
        return std::all_of(mNames.begin(), mNames.end(),
                           [this](const auto& one) { return HasSubscribers(one); });
    }

    bool Send(const std::string& service, std::string_view bytes) {
        std::error_code error;
        return mDevice.Send(service, bytes, error);
    }

    // Tells of clients that come and go, until the deadline, a signal, or an event that makes done true.
    void Attend(Deadline deadline, const std::function<bool()>& done = {}) {
        while (std::optional<Subscribed> event = mEvents.Take(deadline)) {
            EventLine(event->begun ? "subscribed" : "unsubscribed")
                .Add("client", event->client)
                .Add("service", event->service)
                .Print("client " + std::to_string(event->client) +
                       (event->begun ? " subscribed to " : " left ") + event->service);
            if (done && done()) {
                return;
            }
        }
    }

private:
    std::vector<std::string> mNames;
    Inbox<Subscribed> mEvents;  // filled on the library's threads
    lumora::Device mDevice;     // the last one: no handler runs once it is gone
};

// Sends the blocks, once or again and again.
class Replay {
public:
    Replay(const Options& options, RecordingReader& reader, ReplayDevice& device)
        : mOptions(options), mReader(reader), mDevice(device) {
        for (const RecordedService& service : reader.About().services) {
            if (service.recorded) {
                mServices.emplace_back(service.id, service.name);
            }
        }
    }

    void Run() {
        do {
            WaitForSubscribers();
            RunOnce();
        } while (mOptions.loop && StopSignal() == 0);
        if (StopSignal() == 0) {
            mDevice.Attend(In(std::chrono::milliseconds(LINGER_MS)));
        }
        End();
    }

private:
    // Also before each repetition: without it, a loop at the highest speed would use the processor for
    // nothing.
    void WaitForSubscribers() {
        if (!mDevice.HasAnySubscribers()) {
            mDevice.Attend(Never(), [this] { return mDevice.HasAnySubscribers(); });
            if (!mDevice.HasAllSubscribers()) {
                mDevice.Attend(In(SUBSCRIPTION_PATIENCE), [this] { return mDevice.HasAllSubscribers(); });
            }
        }
    }

    // The first block goes out at once, the others at their distance from it.
    void RunOnce() {
        const Micros start = mReader.About().start;
        const Micros from = start + std::chrono::microseconds(mOptions.from).count();
        const Micros to = start + std::chrono::microseconds(mOptions.to).count();
        const Deadline begin = Clock::now();
        std::uint64_t blocks = 0;
        Micros first = 0;
        Micros last = 0;
        std::int64_t id = mOptions.from.count() != 0 ? mReader.LastBefore(from) : 0;
        while (StopSignal() == 0) {
            const std::optional<RecordingReader::Entry> entry = mReader.Next(id);
            if (!entry || (mOptions.to.count() != 0 && entry->time >= to)) {
                break;
            }
            first = blocks == 0 ? entry->time : first;
            last = entry->time;
            mDevice.Attend(DueAt(begin, entry->time - first));
            SendOne(*entry);
            id = entry->id;
            ++blocks;
        }
        if (mOptions.loop) {
            PauseBetween(begin, last - first, blocks);
        }
    }

    // Blocks that are late are sent without a wait, until the distances are right again.
    Deadline DueAt(Deadline begin, Micros distance) const {
        if (mOptions.speed == 0) {
            return begin;
        }
        constexpr double MOST_SECONDS = 365.0 * 24 * 3600;
        const double seconds = static_cast<double>(std::max<Micros>(distance, 0)) / 1e6 / mOptions.speed;
        return begin + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(std::min(seconds, MOST_SECONDS)));
    }

    // The first block of the next round follows at the mean distance of those of this one.
    void PauseBetween(Deadline begin, Micros length, std::uint64_t blocks) {
        constexpr Micros SECOND = 1'000'000;
        const Micros mean = blocks > 1 ? length / static_cast<Micros>(blocks - 1) : SECOND;
        // A recording without blocks would otherwise be repeated without a pause.
        mDevice.Attend(blocks == 0 ? In(std::chrono::seconds(1)) : DueAt(begin, length + mean));
    }

    void SendOne(const RecordingReader::Entry& entry) {
        const auto service = std::find_if(mServices.begin(), mServices.end(),
                                          [&](const auto& one) { return one.first == entry.service; });
        if (StopSignal() != 0 || service == mServices.end() || !mDevice.HasSubscribers(service->second)) {
            return;
        }
        const std::string_view bytes = mReader.BytesOf(entry);
        if (mDevice.Send(service->second, bytes)) {
            ++mSent;
            mBytes += bytes.size();
        } else {
            ++mFailed;
        }
    }

    void End() const {
        EventLine("ended")
            .Add("blocks", mSent)
            .Add("bytes", mBytes)
            .Add("failed", mFailed)
            .Print("sent " + Count(mSent, "block", "blocks") + ", " + ShortSize(mBytes) +
                   (mFailed == 0
                        ? ""
                        : "; " + Count(mFailed, "block was", "blocks were") + " not taken by a client"));
    }

    const Options& mOptions;
    RecordingReader& mReader;
    ReplayDevice& mDevice;
    std::vector<std::pair<std::int64_t, std::string>> mServices;
    std::uint64_t mSent = 0;
    std::uint64_t mBytes = 0;
    std::uint64_t mFailed = 0;
};

// A device that sends nothing would only puzzle its clients.
void CheckTimes(const Options& options, RecordingReader& reader) {
    if (options.from.count() == 0 && options.to.count() == 0) {
        return;
    }
    const auto timeOf = [&](std::chrono::milliseconds option) {
        return reader.About().start + std::chrono::microseconds(option).count();
    };
    const std::int64_t before = options.from.count() != 0 ? reader.LastBefore(timeOf(options.from)) : 0;
    const std::optional<RecordingReader::Entry> first = reader.Next(before);
    const bool isInTime = first && (options.to.count() == 0 || first->time < timeOf(options.to));
    if (!isInTime) {
        throw Failure(EXIT_USAGE, options.file + " has no block in the time of --from and --to",
                      "lumora info tells when its blocks came");
    }
}

int Run(const Options& options) {
    if (options.to.count() != 0 && options.to <= options.from) {
        throw Failure(EXIT_USAGE, "--to is not behind --from",
                      "both are seconds from the start of the recording");
    }
    RecordingReader reader(options.file);
    const Recording& recording = reader.About();
    CheckTimes(options, reader);
    const std::string type = options.type.empty() ? recording.type : options.type;
    CheckName("TYPE", type);
    ReplayDevice device(type, recording.services);
    std::string list;
    for (const std::string& name : device.Names()) {
        list += (list.empty() ? "" : ", ") + name;
    }
    EventLine("ready")
        .Add("type", type)
        .AddRaw("services", JsonArray(device.Names(), JsonText))
        .Print(type + " is ready with " + list + "; Ctrl-C ends it");
    Replay(options, reader, device).Run();
    return EXIT_OK;
}

}  // namespace

Command ReplayCommand() {
    const auto options = std::make_shared<Options>();
    Command command("replay", "is a device that sends what was recorded");
    command.Describe(
        "It has the type and the services of the recorded device. It begins when a client has subscribed to "
        "all services, or one second after the first subscription; the first block goes out at once, the "
        "others at the distances at which they came. Blocks of a service without subscribers are left out. "
        "After the last block it ends, with --loop it begins anew.");
    Option& file = command.Argument("FILE", options->file, "what lumora record has made");
    file.required = true;
    file.offer = Option::Offer::FILES;
    command.Text("--as", "TYPE", options->type, "another type by which clients find it").letter = 'a';
    command
        .Factor("--speed", "N", options->speed, 1000000,
                "N times as fast: 2 halves the distances, 0.5 doubles them; 0 sends without a pause")
        .letter = 's';
    command.Flag("--loop", options->loop, "begins anew after the last block, until a signal ends it").letter =
        'l';
    constexpr std::chrono::hours YEARS(24 * 365 * 10);
    command.Seconds("--from", options->from, YEARS, "leaves out what came before so many seconds").letter =
        'f';
    command.Seconds("--to", options->to, YEARS, "leaves out what came after so many seconds").letter = 't';
    command.Prints({{"time", "when it happened"},
                    {"event", "ready, subscribed, unsubscribed or ended"},
                    {"type", "of ready: the device type"},
                    {"services", "of ready: the names of the services"},
                    {"client", "of subscribed and unsubscribed: the client's number"},
                    {"service", "of subscribed and unsubscribed"},
                    {"blocks", "of ended: how many were sent"},
                    {"bytes", "of ended: the sum of their lengths"},
                    {"failed", "of ended: blocks that could not be sent"}});
    command.Show("lumora replay day.rec --from 3600 --speed 10",
                 "a recorded day from its second hour, in less time");
    command.Show("lumora replay faces.rec --as test-camera --loop", "a camera for tests, without end");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
