// lumora record: keeps what a device's services send, with its times, in a file.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "tools/lumora/manual/command.h"
#include "tools/lumora/os/ports.h"
#include "tools/lumora/os/signals.h"
#include "tools/lumora/recording/recording_writer.h"
#include "tools/lumora/session/client_session.h"
#include "tools/lumora/session/progress.h"
#include "tools/lumora/terminal/event_line.h"
#include "tools/lumora/terminal/failure.h"
#include "tools/lumora/terminal/output.h"

namespace lumora_cli {

namespace {

struct Options {
    std::string file;
    SessionOptions session;
    std::vector<std::string> services;
    unsigned count = 0;
    std::chrono::milliseconds duration{0};
};

Recording Describe(const Options& options, ClientSession& session) {
    Recording recording;
    // TYPE@ADDRESS is told apart by the session, in its own copy of the options.
    DeviceChoice device = options.session.device;
    device.Take();
    recording.type = device.type;
    recording.version = session.DeviceVersion();
    recording.address = ConnectedAddress(DEVICE_PORT);
    for (const lumora::Service& offered : session.Services()) {
        RecordedService service;
        service.name = offered.name;
        service.transport = static_cast<int>(offered.transport);
        service.outputBytes = offered.outputBytes;
        service.recorded = options.services.empty() ||
                           std::find(options.services.begin(), options.services.end(), offered.name) !=
                               options.services.end();
        recording.services.push_back(std::move(service));
    }
    return recording;
}

// From the subscriptions to the end of the file.
class Recorder {
public:
    Recorder(const Options& options, ClientSession& session, RecordingWriter& writer)
        : mOptions(options), mSession(session), mWriter(writer), mProgress(0) {}

    int Run() {
        const Recording recording = Describe(mOptions, mSession);
        Begin(recording);
        try {
            Announce(recording);
            while (!IsDone()) {
                TakeOne();
            }
        } catch (...) {
            // The device may have left: what it has sent until then is a recording too.
            End();
            throw;
        }
        End();
        // A signal comes before what --count or --duration asked for, so the exit code tells it.
        if (mOptions.count != 0 || mOptions.duration.count() != 0) {
            ThrowUnlessDone();
        }
        return EXIT_OK;
    }

private:
    void Begin(const Recording& recording) {
        mWriter.Begin(recording);
        mSession.OnConnection([this](bool connected, Deadline at) { TellConnection(connected, at); });
        mEnd = mOptions.duration.count() != 0 ? In(mOptions.duration) : Never();
        for (const RecordedService& service : recording.services) {
            if (service.recorded) {
                mSession.Subscribe(service.name);
            }
        }
    }

    void Announce(const Recording& recording) const {
        std::vector<std::string> names;
        for (const RecordedService& service : recording.services) {
            if (service.recorded) {
                names.push_back(service.name);
            }
        }
        std::string list;
        for (const std::string& name : names) {
            list += (list.empty() ? "" : ", ") + name;
        }
        EventLine("recording")
            .Add("file", mOptions.file)
            .Add("type", recording.type)
            .AddRaw("services", JsonArray(names, JsonText))
            .Print("recording " + list + " of " + recording.type + "; Ctrl-C ends it");
    }

    bool HasAll() const {
        return Clock::now() >= mEnd || (mOptions.count != 0 && mWriter.Blocks() >= mOptions.count);
    }
    bool IsDone() const { return StopSignal() != 0 || HasAll(); }
    void ThrowUnlessDone() const {
        if (!HasAll()) {
            ThrowWhenStopped();
        }
    }

    // While the disk is slow, this waits in the writer and blocks gather in the session's bounded queue.
    void TakeOne() {
        constexpr int PAUSE_MS = 100;
        if (!mWriter.Commit()) {
            // Another program reads the file for long. Nothing more is written before the commit is done.
            PauseUnlessStopped(PAUSE_MS);
            return;
        }
        const Deadline commit = mWriter.NextCommit().value_or(mEnd);
        if (const std::optional<Block> block = mSession.Take(std::min(commit, mEnd))) {
            mWriter.Write(*block);
            mProgress.Advance(block->service, block->data.size());
        }
    }

    void TellConnection(bool connected, Deadline at) {
        mProgress.Clear();
        if (connected) {
            mWriter.EndGap(at);
            EventLine("connected").Print("connected again");
        } else {
            mWriter.BeginGap(at);
            EventLine("disconnected").Print("the connection has ended; searching for the device");
        }
    }

    void End() {
        mProgress.Clear();
        mWriter.End(mSession.LostAtEnd());
        char seconds[32];
        std::snprintf(seconds, sizeof(seconds), "%.1f", mWriter.Seconds());
        const std::string summary = Count(mWriter.Blocks(), "block", "blocks") + ", " +
                                    ShortSize(mWriter.Bytes()) + " in " + seconds + " s in " + mOptions.file;
        try {
            EventLine("ended")
                .Add("blocks", mWriter.Blocks())
                .Add("bytes", mWriter.Bytes())
                .AddRaw("seconds", seconds)
                .Add("lost", mWriter.Lost())
                .Print(summary);
        } catch (const QuietEnd& end) {
            // As in "lumora record ... | head -1". Without a word, the user would take the recording to go
            // on.
            PrintFailure(
                "the recording has ended, because the reader of standard output has left: " + summary,
                end.Code());
            throw;
        }
    }

    const Options& mOptions;
    ClientSession& mSession;
    RecordingWriter& mWriter;
    Progress mProgress;
    Deadline mEnd;
};

int Run(const Options& options) {
    for (const std::string& service : options.services) {
        CheckName("SERVICE", service);
    }
    // SQLite writes in many places of the file, so a stream cannot take its place.
    if (options.file == "-") {
        throw Failure(EXIT_USAGE, "a recording cannot go to standard output", "name a file");
    }
    // Before the session, which takes the place of another client: a folder that is not there is noticed now.
    RecordingWriter writer(options.file);
    ClientSession session(options.session, options.services);
    return Recorder(options, session, writer).Run();
}

}  // namespace

Command RecordCommand() {
    const auto options = std::make_shared<Options>();
    Command command("record", "keeps what services of a device send, with its times, in a file");
    command.Describe(
        "The file is an SQLite database, which lumora replay sends again, lumora info describes and any "
        "program can read. Goes on until a signal ends it, --count or --duration is reached, or the device "
        "leaves; with --again until a signal, --count or --duration.");
    command.Describe(
        "What has come is written once a second: a loss of power costs no more. If the disk is too slow, up "
        "to "
        "64 MiB wait in memory; blocks beyond that are dropped, and counted in the file. If the disk is "
        "full, "
        "the recording ends with exit code 6, and what was written before stays readable.");
    command.Describe(
        "A device serves one client process at a time: this one takes the place of another that is "
        "connected, and ends when another takes its place. It also ends if standard output is a pipe whose "
        "reader leaves: the file is whole then, and the exit code 141.");
    Option& file = command.Argument("FILE", options->file, "the file to make; it must not be there yet");
    file.required = true;
    file.offer = Option::Offer::FILES;
    AddSessionOptions(command, options->session);
    command
        .Arguments("SERVICE", options->services,
                   "services of the device, one or several; without them, all that it has")
        .offer = Option::Offer::SERVICES;
    command
        .Flag("--again", options->session.again,
              "waits until the device is there, and after the end of a connection connects and subscribes "
              "again; the file tells from when to when it was away")
        .letter = 'r';
    command.Number("--count", "N", options->count, 1, 1000000000, "ends after N blocks").letter = 'c';
    command
        .Seconds("--duration", options->duration, std::chrono::hours(24 * 365),
                 "ends after so long; 0, the default, never")
        .letter = 'd';
    command.Prints({{"time", "when it happened, as 2026-01-31T12:03:04.123+0100"},
                    {"event", "recording, disconnected, connected or ended"},
                    {"file", "of recording: the file"},
                    {"type", "of recording: the device type"},
                    {"services", "of recording: the names of the services"},
                    {"blocks", "of ended: how many are in the file"},
                    {"bytes", "of ended: the sum of their lengths"},
                    {"seconds", "of ended: how long it took"},
                    {"lost", "of ended: blocks that came and are not in the file"}});
    command.Show("lumora record day.rec camera --again --duration 86400", "a day of all that a camera sends");
    command.Show("lumora record faces.rec camera faces --count 100", "a hundred blocks of one service");
    command.run = [options] { return Run(*options); };
    return command;
}

}  // namespace lumora_cli
