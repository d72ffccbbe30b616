// Measures the hub: one program for each part of it; bench/hub starts them.
//
//   lumora_bench_hub device TYPE BYTES BLOCKS_A_SECOND   a device; 0: as many as it can
//   lumora_bench_hub direct TYPE SECONDS                 a client of it
//   lumora_bench_hub hub CONSUMERS SECONDS TYPE...       the hub's core, with so many consumers for each
//   device
//
// Each block begins with the time at which it was sent. A client prints one line of JSON.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <lumora.hpp>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/process_cost.h"
#include "hub/core/hub.h"
#include "hub/options.h"

namespace {

using lumora_bench::Nanoseconds;

constexpr std::chrono::seconds WARM_UP{1};

// Times and counts of one consumer, for its own thread while it runs.
class Record {
public:
    void Add(const char* block, std::size_t size) {
        std::int64_t sent = 0;
        std::memcpy(&sent, block, sizeof(sent));
        if (mCounting) {
            mTimes.push_back(Nanoseconds() - sent);
            mBytes += size;
        }
    }
    void Count(bool counting) { mCounting = counting; }

    std::vector<std::int64_t> mTimes;
    std::size_t mBytes = 0;

private:
    std::atomic<bool> mCounting{false};
};

double Processor(int who) {
    rusage usage = {};
    getrusage(who, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Share(std::vector<std::int64_t>& times, double share) {
    if (times.empty()) {
        return 0;
    }
    const auto place =
        times.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(times.size() - 1));
    std::nth_element(times.begin(), place, times.end());
    return static_cast<double>(*place) / 1000;
}

void Print(std::vector<std::unique_ptr<Record>>& records, double seconds, double processor,
           std::size_t lost) {
    std::vector<std::int64_t> times;
    std::size_t bytes = 0;
    for (const auto& record : records) {
        times.insert(times.end(), record->mTimes.begin(), record->mTimes.end());
        bytes += record->mBytes;
    }
    const auto count = static_cast<double>(times.size());
    std::printf(
        "{\"consumers\": %zu, \"blocks_a_second\": %.1f, \"megabytes_a_second\": %.1f, \"median_us\": %.1f, "
        "\"p99_us\": %.1f, \"lost\": %zu, \"processor_percent\": %.1f, \"resident_kb\": %ld}\n",
        records.size(), count / seconds, static_cast<double>(bytes) / seconds / 1e6, Share(times, 0.5),
        Share(times, 0.99), lost, 100 * processor / seconds, lumora_bench::ResidentKilobytes());
}

int RunDevice(const char* type, std::size_t size, double rate) {
    sigset_t end;
    sigemptyset(&end);
    sigaddset(&end, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &end, nullptr);
    std::string block(size, '.');
    lumora::Device device(type);
    device.Offer("data");
    device.Start();
    std::puts("ready");
    std::fflush(stdout);
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

int RunDirect(const char* type, int seconds) {
    std::vector<std::unique_ptr<Record>> records;
    records.push_back(std::make_unique<Record>());
    lumora::Client client("bench");
    client.OnData([&](std::string_view, lumora::Bytes data) { records[0]->Add(data.data(), data.size()); });
    client.Connect(type);
    client.Subscribe("data");
    std::this_thread::sleep_for(WARM_UP);
    const double before = Processor(RUSAGE_SELF);
    records[0]->Count(true);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    records[0]->Count(false);
    const double processor = Processor(RUSAGE_SELF) - before;
    client.Disconnect();
    Print(records, seconds, processor, 0);
    return 0;
}

// A consumer with a thread, as a face has.
class Reader {
public:
    Reader(lumora_hub::DeviceHub& hub, const std::string& device, Record& record) : mRecord(record) {
        mConsumer =
            std::make_shared<lumora_hub::Consumer>("bench", lumora_hub::QueueLimits(), [this] { Wake(); });
        mThread = std::thread([this] { Run(); });
        mRegistration = hub.Subscribe(device, "data", mConsumer);
    }
    ~Reader() {
        mRegistration.reset();
        mStop = true;
        Wake();
        mThread.join();
    }

    std::size_t Lost() const { return mConsumer->Counts().lost; }

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
            while (const lumora_hub::BlockPointer block = mConsumer->Take()) {
                mRecord.Add(block->bytes.data(), block->bytes.size());
            }
        }
    }

    Record& mRecord;
    std::shared_ptr<lumora_hub::Consumer> mConsumer;
    std::unique_ptr<lumora_hub::Registration> mRegistration;
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mWoken = false;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

bool AllConnected(const lumora_hub::DeviceHub& hub, std::size_t count) {
    const auto devices = hub.Devices();
    const auto connected = std::count_if(devices.begin(), devices.end(), [](const auto& device) {
        return device.channel == lumora_hub::ChannelState::CONNECTED;
    });
    return static_cast<std::size_t>(connected) == count;
}

// Its workers are children that are still running, so their processor time is left to bench/hub.
int RunHub(std::size_t consumers, int seconds, const std::vector<std::string>& types) {
    lumora_hub::Hub hub(lumora_hub::SettingsOf(lumora_hub::CoreOptions()));
    std::vector<std::unique_ptr<Record>> records;
    std::vector<std::unique_ptr<Reader>> readers;
    for (const std::string& type : types) {
        for (std::size_t i = 0; i < consumers; ++i) {
            records.push_back(std::make_unique<Record>());
            readers.push_back(std::make_unique<Reader>(hub, type, *records.back()));
        }
    }
    while (!AllConnected(hub, types.size())) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::this_thread::sleep_for(WARM_UP);
    std::puts("measuring");
    std::fflush(stdout);
    const double before = Processor(RUSAGE_SELF);
    std::size_t lostBefore = 0;
    for (std::size_t i = 0; i < readers.size(); ++i) {
        lostBefore += readers[i]->Lost();
        records[i]->Count(true);
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    std::size_t lost = 0;
    for (std::size_t i = 0; i < readers.size(); ++i) {
        records[i]->Count(false);
        lost += readers[i]->Lost();
    }
    const double processor = Processor(RUSAGE_SELF) - before;
    readers.clear();
    Print(records, seconds, processor, lost - lostBefore);
    return 0;
}

}  // namespace

int main(int count, char** words) {
    const std::string role = count > 1 ? words[1] : "";
    if (role == "device" && count == 5) {
        return RunDevice(words[2], std::strtoul(words[3], nullptr, 10), std::strtod(words[4], nullptr));
    }
    if (role == "direct" && count == 4) {
        return RunDirect(words[2], std::atoi(words[3]));
    }
    if (role == "hub" && count > 4) {
        return RunHub(std::strtoul(words[2], nullptr, 10), std::atoi(words[3]), {words + 4, words + count});
    }
    std::fputs("lumora_bench_hub device|direct|hub ...; bench/hub starts it\n", stderr);
    return 2;
}
