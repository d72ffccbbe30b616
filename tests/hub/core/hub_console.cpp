// The core of the hub, driven by lines on standard input, for tests. Each line is answered by one line of
// JSON.
//
//   subscribe NAME DEVICE SERVICE [QUEUE]   a consumer, which reads at once
//   stuck NAME DEVICE SERVICE QUEUE         one that never reads
//   end NAME                                ends it
//   command DEVICE NAME [PARAMETER]         waits for the outcome
//   block DEVICE BYTES                      the same
//   report                                  devices, consumers, events and refusals so far
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "hub/core/hub.h"
#include "hub/options.h"

namespace {

using namespace lumora_hub;

const char* Name(Outcome outcome) {
    static const char* const NAMES[] = {"DONE", "NO_DEVICE", "UNREACHABLE", "REFUSED", "BAD_REQUEST", "BUSY"};
    return NAMES[static_cast<int>(outcome)];
}

const char* Name(ChannelState state) {
    static const char* const NAMES[] = {"IDLE", "CONNECTING", "CONNECTED", "FAILED"};
    return NAMES[static_cast<int>(state)];
}

const char* Name(DeviceEvent::Kind kind) {
    static const char* const NAMES[] = {"APPEARED", "CHANGED", "LEFT", "FORGOTTEN"};
    return NAMES[static_cast<int>(kind)];
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\') {
            quoted += '\\';
        }
        quoted += character;
    }
    return quoted + '"';
}

// Reads its blocks on a thread of its own, and looks whether the sender's numbers in them follow each other.
class Reader {
public:
    Reader(const std::string& name, QueueLimits limits, bool reads) {
        mConsumer = std::make_shared<Consumer>(name, limits, [this] { Wake(); });
        if (reads) {
            mThread = std::thread([this] { Run(); });
        }
    }
    ~Reader() {
        registration.reset();
        mStop = true;
        Wake();
        if (mThread.joinable()) {
            mThread.join();
        }
    }

    const std::shared_ptr<Consumer>& ConsumerOf() const { return mConsumer; }
    std::string Report() const {
        const ConsumerCounts counts = mConsumer->Counts();
        std::ostringstream text;
        text << "{\"name\":" << Quoted(mConsumer->Name()) << ",\"received\":" << mReceived
             << ",\"gaps\":" << mGaps << ",\"repeated\":" << mRepeated << ",\"bytes\":" << mBytes
             << ",\"lastNumber\":" << mLastNumber << ",\"lost\":" << counts.lost
             << ",\"delivered\":" << counts.delivered << ",\"waiting\":" << counts.waiting
             << ",\"waitingBytes\":" << counts.waitingBytes << '}';
        return text.str();
    }

    std::unique_ptr<Registration> registration;

private:
    void Wake() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWoken = true;
        mChanged.notify_all();
    }

    void Run() {
        while (!mStop) {
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mChanged.wait(lock, [this] { return mWoken; });
                mWoken = false;
            }
            while (const BlockPointer block = mConsumer->Take()) {
                Look(*block);
            }
        }
    }

    void Look(const Block& block) {
        const unsigned long long sequence = std::strtoull(block.bytes.c_str(), nullptr, 10);
        if (mReceived != 0) {
            mGaps += sequence > mLast + 1 ? sequence - mLast - 1 : 0;
            mRepeated += sequence <= mLast ? 1 : 0;
        }
        mLast = sequence;
        mLastNumber = block.number;
        mBytes += block.bytes.size();
        ++mReceived;
    }

    std::shared_ptr<Consumer> mConsumer;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mWoken = false;
    std::atomic<bool> mStop{false};
    unsigned long long mLast = 0;
    std::atomic<unsigned long long> mReceived{0};
    std::atomic<unsigned long long> mGaps{0};
    std::atomic<unsigned long long> mRepeated{0};
    std::atomic<unsigned long long> mBytes{0};
    std::atomic<unsigned long long> mLastNumber{0};
    std::thread mThread;
};

class Console {
public:
    explicit Console(const Settings& settings) : mHub(settings) {
        mWatching = mHub.Watch([this](const DeviceEvent& event) {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEvents.push_back(std::string(Name(event.kind)) + ' ' + event.device.id + ' ' +
                              Name(event.device.channel));
        });
    }

    std::string Answer(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "subscribe" || verb == "stuck") {
            return Subscribe(words, verb == "subscribe");
        }
        if (verb == "end") {
            std::string name;
            words >> name;
            return mReaders.erase(name) != 0 ? "true" : "false";
        }
        if (verb == "command" || verb == "block") {
            return Request(words, verb == "command");
        }
        return verb == "report" ? Report() : "null";
    }

private:
    std::string Subscribe(std::istringstream& words, bool reads) {
        std::string name;
        std::string device;
        std::string service;
        QueueLimits limits;
        words >> name >> device >> service;
        words >> limits.blocks;
        limits.blocks = words ? limits.blocks : QueueLimits().blocks;
        auto reader = std::make_unique<Reader>(name, limits, reads);
        reader->registration = mHub.Subscribe(device, service, reader->ConsumerOf());
        const bool taken = reader->registration != nullptr;
        if (taken) {
            mReaders[name] = std::move(reader);
        }
        return taken ? "true" : "false";
    }

    std::string Request(std::istringstream& words, bool isCommand) {
        std::string device;
        std::string what;
        std::string parameter;
        words >> device >> what >> parameter;
        const auto outcome = std::make_shared<std::promise<Outcome>>();
        const auto done = [outcome](Outcome value) { outcome->set_value(value); };
        if (isCommand) {
            mHub.SendCommand(device, what, parameter, done);
        } else {
            mHub.SendBlock(device, std::string(std::strtoul(what.c_str(), nullptr, 10), 'x'), done);
        }
        return Quoted(Name(outcome->get_future().get()));
    }

    std::string Report() {
        std::ostringstream text;
        text << "{\"devices\":[";
        const char* separator = "";
        for (const DeviceState& device : mHub.Devices()) {
            text << separator << Describe(device);
            separator = ",";
        }
        text << "],\"consumers\":[";
        separator = "";
        for (const auto& [name, reader] : mReaders) {
            text << separator << reader->Report();
            separator = ",";
        }
        text << "],\"events\":[";
        separator = "";
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const std::string& event : mEvents) {
            text << separator << Quoted(event);
            separator = ",";
        }
        const RefusalCounts refused = mHub.Refusals();
        text << "],\"refused\":{\"nodes\":" << refused.nodes << ",\"devices\":" << refused.devices
             << ",\"channels\":" << refused.channels << "}}";
        return text.str();
    }

    static std::string Describe(const DeviceState& device) {
        std::ostringstream text;
        text << "{\"id\":" << Quoted(device.id) << ",\"port\":" << device.port
             << ",\"present\":" << (device.isPresent ? "true" : "false") << ",\"channel\":\""
             << Name(device.channel) << "\",\"trouble\":" << Quoted(device.trouble)
             << ",\"version\":" << Quoted(device.version) << ",\"reconnects\":" << device.reconnects
             << ",\"services\":[";
        const char* separator = "";
        for (const ServiceState& service : device.services) {
            text << separator << "{\"name\":" << Quoted(service.name) << ",\"transport\":\""
                 << service.transport << "\",\"blocks\":" << service.blocks << ",\"bytes\":" << service.bytes
                 << ",\"consumers\":" << service.consumers << '}';
            separator = ",";
        }
        text << "]}";
        return text.str();
    }

    Hub mHub;
    std::mutex mMutex;
    std::vector<std::string> mEvents;
    std::unique_ptr<Registration> mWatching;
    std::map<std::string, std::unique_ptr<Reader>> mReaders;
};

}  // namespace

int main(int count, char** words) {
    CLI::App app("the core of the hub");
    CoreOptions options;
    AddCoreOptions(app, options);
    CLI11_PARSE(app, count, words);
    try {
        Console console(SettingsOf(options));
        std::string line;
        while (std::getline(std::cin, line)) {
            std::cout << console.Answer(line) << std::endl;
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
