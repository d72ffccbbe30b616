// Measures the hub: one program for each part of it; bench/hub starts them.
//
//   lumora_bench_hub device TYPE BYTES BLOCKS_A_SECOND           a device; 0: as many as it can
//   lumora_bench_hub direct TYPE                                 a client of it
//   lumora_bench_hub readers KIND PORT COUNT DEVICE              so many consumers of the hub, or of its
//   broker
//
// Each block begins with the time at which it was sent. A client of either kind reads lines and answers some
// of them with a line of JSON:
//
//   count    counts from now on
//   report   tells what it has counted
//   fresh    tells when each consumer has a block that was sent after this line
//   stall    reads no more
//   go       reads again
//
// It ends with its input.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <lumora.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bench/process_cost.h"
#include "tests/support/hub_readers.h"

namespace {

using lumora_bench::Nanoseconds;

// What one consumer has got.
struct Tally {
    std::uint64_t last = 0;  // number of the last block
    std::uint64_t lost = 0;  // that the hub has told with it
    std::int64_t lastSent = 0;
    std::int64_t lastCame = 0;
    bool isNew = true;  // nothing has come over this connection
};

// Times and counts of all consumers of this process. The direct client's blocks come on another thread.
class Record {
public:
    explicit Record(std::size_t consumers) : mTallies(consumers) {}

    // start: the first bytes of the block. number: 0 if there is none.
    void Add(std::size_t consumer, const char* start, std::size_t size, std::uint64_t number,
             std::uint64_t lost) {
        const std::lock_guard<std::mutex> lock(mMutex);
        const std::int64_t now = Nanoseconds();
        Tally& tally = mTallies[consumer];
        std::memcpy(&tally.lastSent, start, sizeof(tally.lastSent));
        mTimes.push_back(now - tally.lastSent);
        mBytes += size;
        if (tally.lastCame != 0) {
            mLongestPause = std::max(mLongestPause, now - std::max(tally.lastCame, mSince));
        }
        tally.lastCame = now;
        if (!tally.isNew && number != 0) {
            mMissing += number > tally.last ? number - tally.last - 1 : 0;
            mRepeated += number > tally.last ? 0 : 1;
        }
        mTold += lost - std::min(lost, tally.isNew ? 0 : tally.lost);
        tally.lost = lost;
        tally.last = number;
        tally.isNew = false;
    }

    // The hub's numbers begin anew.
    void Connect(std::size_t consumer) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mTallies[consumer].isNew = true;
        ++mConnects;
    }

    void Count() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSince = Nanoseconds();
        mTimes.clear();
        mBytes = mMissing = mRepeated = mTold = mConnects = 0;
        mLongestPause = 0;
    }

    void Report() {
        const std::lock_guard<std::mutex> lock(mMutex);
        const double seconds = static_cast<double>(Nanoseconds() - mSince) / 1e9;
        const auto count = static_cast<double>(mTimes.size());
        std::printf(
            "{\"consumers\": %zu, \"seconds\": %.3f, \"blocks\": %zu, \"blocks_per_s\": %.1f, "
            "\"mb_per_s\": %.1f, \"p50_us\": %.1f, \"p99_us\": %.1f, \"worst_us\": %.1f, "
            "\"missing\": %" PRIu64 ", \"told_lost\": %" PRIu64 ", \"repeated\": %" PRIu64
            ", \"connects\": %" PRIu64 ", \"longest_pause_ms\": %.1f}\n",
            mTallies.size(), seconds, mTimes.size(), count / seconds,
            static_cast<double>(mBytes) / seconds / 1e6, Share(0.5), Share(0.99), Share(1), mMissing, mTold,
            mRepeated, mConnects, static_cast<double>(mLongestPause) / 1e6);
    }

    // True if each consumer has a block that was sent later.
    bool IsFresh(std::int64_t time) {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::all_of(mTallies.begin(), mTallies.end(),
                           [time](const Tally& tally) { return tally.lastSent > time; });
    }

private:
    double Share(double share) {
        if (mTimes.empty()) {
            return 0;
        }
        const auto place =
            mTimes.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(mTimes.size() - 1));
        std::nth_element(mTimes.begin(), place, mTimes.end());
        return static_cast<double>(*place) / 1000;
    }

    std::mutex mMutex;
    std::vector<Tally> mTallies;
    std::vector<std::int64_t> mTimes;
    std::int64_t mSince = Nanoseconds();
    std::int64_t mLongestPause = 0;
    std::uint64_t mBytes = 0;
    std::uint64_t mMissing = 0;
    std::uint64_t mRepeated = 0;
    std::uint64_t mTold = 0;
    std::uint64_t mConnects = 0;
};

using Wait = std::function<bool(int fd, int milliseconds)>;

// Carries out the lines of standard input until it ends.
class Commands {
public:
    Commands(Record& record, Wait wait, std::function<void(bool)> stall)
        : mRecord(record), mWait(std::move(wait)), mStall(std::move(stall)) {}

    void Run() {
        while (true) {
            if (mFreshSince != 0 && mRecord.IsFresh(mFreshSince)) {
                std::printf("{\"ms\": %.1f}\n", static_cast<double>(Nanoseconds() - mFreshSince) / 1e6);
                mFreshSince = 0;
            }
            if (!mWait(STDIN_FILENO, mFreshSince != 0 ? 2 : 1000)) {
                continue;
            }
            std::array<char, 256> bytes = {};
            const ssize_t length = read(STDIN_FILENO, bytes.data(), bytes.size());
            if (length <= 0) {
                return;
            }
            mInput.append(bytes.data(), static_cast<std::size_t>(length));
            for (std::size_t end = mInput.find('\n'); end != std::string::npos; end = mInput.find('\n')) {
                Carry(mInput.substr(0, end));
                mInput.erase(0, end + 1);
            }
        }
    }

private:
    void Carry(const std::string& line) {
        if (line == "count") {
            mRecord.Count();
        } else if (line == "report") {
            mRecord.Report();
        } else if (line == "fresh") {
            mFreshSince = Nanoseconds();
        } else if (line == "stall" || line == "go") {
            mStall(line == "stall");
        }
    }

    Record& mRecord;
    const Wait mWait;
    const std::function<void(bool)> mStall;
    std::string mInput;
    std::int64_t mFreshSince = 0;
};

int RunDevice(const char* type, std::size_t size, double rate) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    std::string block(size, '\xff');  // which no text holds
    lumora::Device device(type);
    device.Offer("data");
    device.Start();
    std::puts("ready");
    const timespec pause = {0, rate > 0 ? static_cast<long>(1e9 / rate) : 0};
    const timespec idle = {0, 10000000};
    bool idling = true;
    while (sigtimedwait(&end, nullptr, idling ? &idle : &pause) < 0) {
        idling = device.Subscribers("data").empty();
        if (!idling) {
            const std::int64_t now = Nanoseconds();
            std::memcpy(block.data(), &now, sizeof(now));
            std::error_code error;
            device.Send("data", block, error);
        }
    }
    return 0;
}

int RunDirect(const char* type) {
    Record record(1);
    lumora::Client client("bench");
    client.OnData(
        [&](std::string_view, lumora::Bytes data) { record.Add(0, data.data(), data.size(), 0, 0); });
    client.Connect(type);
    client.Subscribe("data");
    const auto wait = [](int fd, int milliseconds) {
        pollfd waiting = {fd, POLLIN, 0};
        return poll(&waiting, 1, milliseconds) > 0;
    };
    Commands(record, wait, [](bool) {}).Run();
    client.Disconnect();
    return 0;
}

int RunReaders(const char* kind, int port, std::size_t count, const char* device) {
    Record record(count);
    lumora_test::ReadersOptions options;
    options.kind = kind;
    options.port = port;
    options.count = count;
    options.device = device;
    options.service = "data";
    options.kept = sizeof(std::int64_t);
    options.onBlock = [&](const lumora_test::ReadBlock& block) {
        record.Add(block.reader, block.start.data(), block.size, block.number, block.lost);
    };
    options.onConnected = [&](std::size_t reader) { record.Connect(reader); };
    const auto readers = lumora_test::HubReaders::Make(std::move(options));
    const auto wait = [&](int fd, int milliseconds) { return readers->ServeUntilReadable(fd, milliseconds); };
    Commands(record, wait, [&](bool isStalled) { readers->Stall(isStalled); }).Run();
    return 0;
}

int Run(int count, char** words) {
    const std::string role = count > 1 ? words[1] : "";
    if (role == "device" && count == 5) {
        return RunDevice(words[2], std::strtoul(words[3], nullptr, 10), std::strtod(words[4], nullptr));
    }
    if (role == "direct" && count == 3) {
        return RunDirect(words[2]);
    }
    if (role == "readers" && count == 6) {
        return RunReaders(words[2], std::atoi(words[3]), std::strtoul(words[4], nullptr, 10), words[5]);
    }
    std::fputs("lumora_bench_hub device|direct|readers ...; bench/hub starts it\n", stderr);
    return 2;
}

}  // namespace

int main(int count, char** words) {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return Run(count, words);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "lumora_bench_hub: %s\n", error.what());
        return 1;
    }
}
