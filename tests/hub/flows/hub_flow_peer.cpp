// A device whose blocks show what became of them, and consumers of the hub that look at every byte.
//
//   hub_flow_peer device TYPE LONGEST BLOCKS_A_SECOND      its service is "stream"
//   hub_flow_peer readers KIND PORT COUNT DEVICE [QUERY]   websocket, events or mqtt
//
// Consumers read lines, and answer some of them with a line of JSON:
//
//   report   what has come so far
//   fresh    answered when each consumer has a block that was sent after this line
//   stall    reads no more
//   go       reads again
//
// They end with their input; a device ends by a signal. Faults go to standard output as lines that begin with
// FAULT.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <lumora.hpp>
#include <memory>
#include <string>
#include <vector>

#include "tests/soak/blocks.h"
#include "tests/support/hub_readers.h"

namespace lumora_test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t WHOLE = std::size_t{6} << 20;
constexpr char SERVICE[] = "stream";

// ---- Device

int RunDevice(const char* type, std::size_t longest, double rate) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    BlockWriter blocks(longest);
    lumora::Device device(type);
    device.Offer(SERVICE);
    device.Start();
    std::puts("ready");
    const timespec pause = {0, static_cast<long>(1e9 / rate)};
    while (sigtimedwait(&end, nullptr, &pause) < 0) {
        if (!device.Subscribers(SERVICE).empty()) {
            const std::vector<char>& block = blocks.Next();
            std::error_code error;
            device.Send(SERVICE, lumora::Bytes(block.data(), block.size()), error);
        }
    }
    return 0;
}

// ---- Consumers

// What one consumer has got. Each start of a device is a source of its own.
struct Reading {
    BlockChecker checker;
    BlockNumber last;
    std::uint64_t hubNumber = 0;
    std::uint64_t lost = 0;
    bool isNew = true;  // the first block of a connection to the hub
    Clock::time_point lastCame;
};

class Readings {
public:
    // A broker's quality of service 1 delivers again what was not acknowledged before a connection broke.
    Readings(std::size_t count, const std::string& kind)
        : mReadings(count), mTellsLosses(kind == "websocket"), mMayRepeat(kind == "mqtt") {}

    void Take(const ReadBlock& block) {
        Reading& reading = mReadings[block.reader];
        if (block.start.size() != block.size) {
            ReportFault("a block of " + std::to_string(block.size) +
                        " bytes is longer than any that was sent");
            return;
        }
        const BlockNumber number = NumberOf(block.start.data(), block.size);
        if (mMayRepeat && number.source == reading.last.source && number.number <= reading.last.number) {
            ++mRepeated;
            return;
        }
        reading.checker.Take(block.start.data(), block.size);
        if (!reading.isNew) {
            Compare(reading, number, block);
        }
        reading.last = number;
        reading.hubNumber = block.number;
        reading.lost = block.lost;
        reading.isNew = false;
        const Clock::time_point now = Clock::now();
        if (reading.lastCame != Clock::time_point()) {
            mLongestPause = std::max(mLongestPause, now - std::max(reading.lastCame, mReported));
        }
        reading.lastCame = now;
    }

    void Connect(std::size_t reader) {
        mReadings[reader].isNew = true;
        ++mConnects;
    }

    void Report() {
        std::uint64_t blocks = 0;
        std::uint64_t bytes = 0;
        for (const Reading& reading : mReadings) {
            blocks += reading.checker.Blocks();
            bytes += reading.checker.Bytes();
        }
        std::printf("{\"consumers\": %zu, \"blocks\": %" PRIu64 ", \"bytes\": %" PRIu64
                    ", \"missing\": %" PRIu64 ", \"told_lost\": %" PRIu64 ", \"repeated\": %" PRIu64
                    ", \"breaks\": %" PRIu64 ", \"connects\": %" PRIu64
                    ", \"longest_pause_ms\": %.1f, \"faults\": %d}\n",
                    mReadings.size(), blocks, bytes, mMissing, mTold, mRepeated, mBreaks, mConnects,
                    std::chrono::duration<double, std::milli>(mLongestPause).count(), Faults());
        mLongestPause = {};
        mReported = Clock::now();
    }

    bool HaveAllSince(Clock::time_point time) const {
        return std::all_of(mReadings.begin(), mReadings.end(),
                           [time](const Reading& reading) { return reading.lastCame > time; });
    }

private:
    // Blocks of the device that are missing must be missing by the hub's numbers as well, unless the channel
    // was opened again in between. A WebSocket must tell how many of them were this consumer's own loss.
    void Compare(const Reading& reading, const BlockNumber& number, const ReadBlock& block) {
        if (block.number <= reading.hubNumber) {
            ++mBreaks;  // another hub, which counts from 1
            return;
        }
        const std::uint64_t byHub = block.number - reading.hubNumber - 1;
        const std::uint64_t told = block.lost - reading.lost;
        mMissing += byHub;
        mTold += told;
        if (mTellsLosses && told > byHub) {
            ReportFault("the hub has lost " + std::to_string(told) + " blocks for a consumer that misses " +
                        std::to_string(byHub));
        }
        if (number.source != reading.last.source) {
            ++mBreaks;  // the device was started again
            return;
        }
        const std::uint64_t gap = number.number - reading.last.number - 1;
        if (byHub > gap) {
            ReportFault("the hub says that " + std::to_string(byHub) + " blocks are missing, and " +
                        std::to_string(gap) + " are");
        }
        mBreaks += gap > byHub ? 1 : 0;
    }

    std::vector<Reading> mReadings;
    const bool mTellsLosses;
    const bool mMayRepeat;
    std::uint64_t mRepeated = 0;
    std::uint64_t mMissing = 0;  // by the hub's numbers
    std::uint64_t mTold = 0;     // as a consumer's own losses
    std::uint64_t mBreaks = 0;   // gaps without a count: there was no channel to the device
    std::uint64_t mConnects = 0;
    Clock::duration mLongestPause{};
    Clock::time_point mReported = Clock::now();
};

int RunReaders(const char* kind, int port, std::size_t count, const char* device, const char* query) {
    Readings readings(count, kind);
    ReadersOptions options;
    options.kind = kind;
    options.port = port;
    options.count = count;
    options.device = device;
    options.service = SERVICE;
    options.query = query;
    options.kept = WHOLE;
    options.onBlock = [&](const ReadBlock& block) { readings.Take(block); };
    options.onConnected = [&](std::size_t reader) { readings.Connect(reader); };
    const auto readers = HubReaders::Make(std::move(options));
    std::string input;
    Clock::time_point freshSince;
    while (true) {
        if (freshSince != Clock::time_point() && readings.HaveAllSince(freshSince)) {
            std::puts("{\"fresh\": true}");
            freshSince = {};
        }
        if (!readers->ServeUntilReadable(STDIN_FILENO, 20)) {
            continue;
        }
        std::array<char, 256> bytes = {};
        const ssize_t length = read(STDIN_FILENO, bytes.data(), bytes.size());
        if (length <= 0) {
            return Faults() == 0 ? 0 : 3;
        }
        input.append(bytes.data(), static_cast<std::size_t>(length));
        for (std::size_t end = input.find('\n'); end != std::string::npos; end = input.find('\n')) {
            const std::string line = input.substr(0, end);
            input.erase(0, end + 1);
            if (line == "report") {
                readings.Report();
            } else if (line == "fresh") {
                freshSince = Clock::now();
            } else {
                readers->Stall(line == "stall");
            }
        }
    }
}

int Run(int count, char** words) {
    const std::string role = count > 1 ? words[1] : "";
    if (role == "device" && count == 5) {
        return RunDevice(words[2], std::strtoul(words[3], nullptr, 10), std::strtod(words[4], nullptr));
    }
    if (role == "readers" && (count == 6 || count == 7)) {
        return RunReaders(words[2], std::atoi(words[3]), std::strtoul(words[4], nullptr, 10), words[5],
                          count == 7 ? words[6] : "");
    }
    std::fputs("hub_flow_peer device|readers ...\n", stderr);
    return 2;
}

}  // namespace
}  // namespace lumora_test

int main(int count, char** words) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return lumora_test::Run(count, words);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "hub_flow_peer: %s\n", error.what());
        return 1;
    }
}
