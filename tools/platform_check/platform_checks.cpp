// liblumora.so, through its tables: a node of this process looks at two devices in processes of their own.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "tools/lumora/os/interfaces.h"
#include "tools/lumora/terminal/text.h"
#include "tools/platform_check/checks.h"
#include "tools/platform_check/device.h"

namespace platform_check {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr unsigned CAPACITY = 1023;
constexpr milliseconds EVENT_LIMIT(5000);
// A killed device sends no goodbye. The others notice by missing signs of life, which takes longer.
constexpr milliseconds LOSS_LIMIT(30000);

// Waits for what another thread or process does.
bool Eventually(const std::function<bool()>& condition, milliseconds limit) {
    constexpr milliseconds PAUSE(10);
    const auto end = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(PAUSE);
    }
    return true;
}

milliseconds Since(Clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
}

std::string Seen(int result) { return "the result " + std::to_string(result); }
std::string Quoted(const std::string& text) { return '"' + text + '"'; }

struct Event {
    bool added = false;
    std::string address;
    int port = 0;
    std::string type;

    std::string Text() const {
        return (added ? "added " : "removed ") + address + ':' + std::to_string(port) + ' ' + type;
    }
};

// Events do not tell which node they belong to, so one object collects them all.
class Events {
public:
    void Add(Event event) {
        const lumora::MutexLock lock(mMutex);
        mAll.push_back(std::move(event));
    }

    // Those of one type, as texts.
    std::vector<std::string> Of(const std::string& type) const {
        const lumora::MutexLock lock(mMutex);
        std::vector<std::string> texts;
        for (const Event& event : mAll) {
            if (event.type == type) {
                texts.push_back(event.Text());
            }
        }
        return texts;
    }

    bool Has(const std::string& type, const std::string& text) const {
        const std::vector<std::string> texts = Of(type);
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

private:
    mutable lumora::Mutex mMutex;
    std::vector<Event> mAll GUARDED_BY(mMutex);
};

Events& TheEvents() {
    static Events events;
    return events;
}

std::string TextOf(const char* text) { return text != nullptr ? text : "null"; }

int OnEvent(NotifyDeviceInfo* info) {
    TheEvents().Add(
        {info->event == NOTIFY_DEVICE_ADDED, TextOf(info->addr), info->port, TextOf(info->devType)});
    return 0;
}

// All that this node is asked is to turn a value round.
int OwnGet(AppResource*, const RemoteEndpoint*, const char*, char* buffer, unsigned) {
    std::reverse(buffer, buffer + std::strlen(buffer));
    return 0;
}
int RefuseChange(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned) { return -1; }
std::string g_ownType;
const char* OwnDescriptor(AppResource*) { return g_ownType.c_str(); }

bool IsOwnAddress(const std::string& address) {
    const std::vector<lumora_cli::Interface> all = lumora_cli::ListInterfaces();
    return std::any_of(all.begin(), all.end(), [&](const auto& one) { return one.address == address; });
}

// ---- A device that was found

class Remote {
public:
    Remote(const PlatformFunctions& functions, AppResourceProxy* proxy)
        : mProxy(proxy, functions.releaseProxy) {}

    AppResourceProxy* Proxy() const { return mProxy.get(); }
    std::string Address() const { return TextOf(mProxy->GetAddress(mProxy.get())); }
    int Port() const { return mProxy->GetPort(mProxy.get()); }

    // The reply, or the failure in words.
    std::string Get(const std::string& key, const std::string& value = "") const {
        // The terminator needs one byte more than the capacity that Get is told.
        std::vector<char> buffer(CAPACITY + 1);
        value.copy(buffer.data(), CAPACITY);
        const int result = mProxy->Get(mProxy.get(), key.c_str(), buffer.data(), CAPACITY);
        return result == 0 ? buffer.data() : Seen(result);
    }

    using Change = int (*AppResourceProxy::*)(AppResourceProxy*, const char*, const char*, unsigned);
    int Do(const Change& change, const std::string& key, const std::string& value) const {
        return (mProxy.get()->*change)(mProxy.get(), key.c_str(), value.c_str(),
                                       static_cast<unsigned>(value.size()));
    }

private:
    std::unique_ptr<AppResourceProxy, decltype(&FreeAppResourceProxy2)> mProxy;
};

using Remotes = std::vector<Remote>;

std::string Found(const Remotes& devices) { return lumora_cli::Count(devices.size(), "device", "devices"); }

// ---- The checks, in the order in which a node lives

class PlatformChecks {
public:
    PlatformChecks(const Files& files, Report& report)
        : mType("check-" + std::to_string(getpid())),
          mFirst(files, mType),
          mSecond(files, mType),
          mFiles(files),
          mReport(report) {
        // This node has another type, so that a search for the devices does not find it.
        g_ownType = mType + "-watcher";
    }

    void Run(bool thorough) {
        // Without these all further checks would fail for the same reason.
        if (!Loads() || !Starts() || !DevicesStart() || !Finds()) {
            return;
        }
        LookAtSearches();
        LookAtProxies();
        LookAtGet();
        LookAtChanges();
        LookAtThreads();
        LookAtAdded();
        if (thorough) {
            LookAtPatience();
        }
        LookAtRemoved();
        LookAtOtherHandle();
        if (thorough) {
            LookAtLoss();
        }
        Ends(thorough);
    }

private:
    bool Loads();
    bool Starts();
    bool DevicesStart();
    bool Finds();
    void LookAtSearches();
    void LookAtProxies();
    void LookAtGet();
    void LookAtLengths(const Remote& device);
    void LookAtChanges();
    void LookAtChange(const Remote::Change& change, const char* verb);
    void LookAtThreads();
    void LookAtAdded();
    void LookAtPatience();
    void LookAtRemoved();
    void LookAtOtherHandle();
    void LookAtLoss();
    void Ends(bool secondIsGone);

    Remotes Search(const std::string& type) const;
    bool CheckEqual(const std::string& rule, const std::string& expected,
                    const std::function<std::string()>& look) {
        return mReport.Check(rule, Quoted(expected), [&] {
            const std::string seen = look();
            return seen == expected ? "" : Quoted(seen);
        });
    }
    bool CheckZero(const std::string& rule, const std::function<int()>& call) {
        return mReport.Check(rule, Seen(0), [&] {
            const int result = call();
            return result == 0 ? "" : Seen(result);
        });
    }
    bool CheckEvent(const std::string& rule, const std::string& event, milliseconds limit);

    const std::string mType;
    Device mFirst;
    Device mSecond;
    const Files& mFiles;
    Report& mReport;
    PlatformFunctions mFunctions;
    LinkPlatform* mPlatform = nullptr;
    AppResource mResource = {OwnGet, RefuseChange, RefuseChange, RefuseChange, OwnDescriptor};
    Remotes mDevices;
    Clock::time_point mDevicesStarted;
};

Remotes PlatformChecks::Search(const std::string& type) const {
    constexpr std::size_t ENDLESS = 1000;
    Remotes devices;
    AppResourceProxy* proxy = mPlatform->FindResource(mPlatform, type.c_str());
    // A chain that a broken library closed to a ring would not end.
    while (proxy != nullptr && devices.size() < ENDLESS) {
        devices.emplace_back(mFunctions, proxy);
        proxy = mFunctions.next(proxy);
    }
    return devices;
}

bool PlatformChecks::CheckEvent(const std::string& rule, const std::string& event, milliseconds limit) {
    return mReport.Check(rule, event, [&]() -> std::string {
        // Events come on a thread of the platform.
        if (Eventually([&] { return TheEvents().Has(mType, event); }, limit)) {
            return "";
        }
        std::string seen;
        for (const std::string& other : TheEvents().Of(mType)) {
            seen += (seen.empty() ? "" : ", ") + other;
        }
        return seen.empty() ? "no event of this type" : seen;
    });
}

bool PlatformChecks::Loads() {
    mReport.Begin("library");
    return mReport.Check("has the four functions", "a file that can be loaded, with all of them",
                         [&] { return LoadPlatform(mFiles, mFunctions); });
}

bool PlatformChecks::Starts() {
    mReport.Begin("handle");
    const bool given =
        mReport.Check("GetLinkPlatform gives a handle with six operations", "none is null", [&] {
            mPlatform = mFunctions.get();
            const bool whole = mPlatform != nullptr && mPlatform->Init != nullptr &&
                               mPlatform->SetDebugLevel != nullptr &&
                               mPlatform->RegisterResource != nullptr && mPlatform->Run != nullptr &&
                               mPlatform->Exit != nullptr && mPlatform->FindResource != nullptr;
            return mPlatform == nullptr ? "no handle" : whole ? "" : "a field that is null";
        });
    if (!given) {
        return false;
    }
    mReport.Check("GetLinkPlatform gives another handle at each call", "two handles", [&] {
        LinkPlatform* const other = mFunctions.get();
        // A shared handle would let one module of an application stop the other.
        if (other == mPlatform) {
            return "the same one again";
        }
        // FreeLinkPlatform must end a running handle itself.
        mFunctions.release(other);
        return "";
    });
    return CheckZero("Init succeeds", [&] { return mPlatform->Init(mPlatform); }) &&
           CheckZero("RegisterResource succeeds",
                     [&] { return mPlatform->RegisterResource(mPlatform, &mResource, OnEvent); }) &&
           CheckZero("Run succeeds", [&] { return mPlatform->Run(mPlatform); });
}

bool PlatformChecks::DevicesStart() {
    const auto start = [this](const char* rule, Device& device) {
        return mReport.Check(rule, "Init, RegisterResource and Run succeed", [&] { return device.Start(); });
    };
    const bool started = start("a second process becomes a device", mFirst) &&
                         start("a third process becomes a device of the same type", mSecond);
    mDevicesStarted = Clock::now();
    return started;
}

bool PlatformChecks::Finds() {
    mReport.Begin("search");
    const auto begin = Clock::now();
    mReport.Check("FindResource finds both devices at once", "2 devices", [&] {
        mDevices = Search(mType);
        return mDevices.size() == 2 ? "" : Found(mDevices);
    });
    // A note: the time depends on the host.
    mReport.Note("the search took " + std::to_string(Since(begin).count()) +
                 " ms; well under a second is good");
    if (mDevices.size() == 2) {
        return true;
    }
    return mReport.Check("FindResource finds both devices within 5 seconds", "2 devices", [&] {
        Eventually(
            [&] {
                mDevices = Search(mType);
                return mDevices.size() == 2;
            },
            milliseconds(5000));
        return mDevices.size() == 2 ? "" : Found(mDevices) + "; without both the rest is not looked at";
    });
}

void PlatformChecks::LookAtSearches() {
    for (const auto& [what, type] :
         {std::make_pair("that nobody has", std::string("check-nobody")),
          std::make_pair("with a character more", mType + "x"),
          std::make_pair("with a character less", mType.substr(0, mType.size() - 1))}) {
        mReport.Check(std::string("a search for a type ") + what + " finds nothing", "null",
                      [&, &type = type] {
                          const Remotes found = Search(type);
                          return found.empty() ? "" : Found(found);
                      });
    }
}

void PlatformChecks::LookAtProxies() {
    mReport.Begin("proxy");
    mReport.Check("GetAddress is an IPv4 address of the device's host", "one of this host's", [&] {
        const auto other = std::find_if(mDevices.begin(), mDevices.end(),
                                        [](const Remote& device) { return !IsOwnAddress(device.Address()); });
        return other == mDevices.end() ? "" : Quoted(other->Address());
    });
    mReport.Check("GetPort is the device's port", "1 to 65535, of each another", [&] {
        constexpr int HIGHEST = 65535;
        const int first = mDevices[0].Port();
        const int second = mDevices[1].Port();
        const bool valid = std::min(first, second) > 0 && std::max(first, second) <= HIGHEST;
        return valid && first != second ? "" : std::to_string(first) + " and " + std::to_string(second);
    });
    mReport.Check("address and port stay the same", "the same at each call", [&] {
        const bool same =
            mDevices[0].Address() == mDevices[0].Address() && mDevices[0].Port() == mDevices[0].Port();
        return same ? "" : "others at the second call";
    });
    CheckEqual("an element stays valid when the one before is released", "cba", [&] {
        Remotes found = Search(mType);
        found.erase(found.begin());
        return found.empty() ? "no second element" : found[0].Get(key::REVERSE, "abc");
    });
    CheckEqual("an element stays valid when the one behind is released", "cba", [&] {
        Remotes found = Search(mType);
        found.pop_back();
        return found.empty() ? "no first element" : found[0].Get(key::REVERSE, "abc");
    });
}

void PlatformChecks::LookAtGet() {
    mReport.Begin("get");
    const Remote& device = mDevices[0];
    CheckEqual("Get takes the value there and the reply back", "cba",
               [&] { return device.Get(key::REVERSE, "abc"); });
    CheckEqual("Get works without a value", "", [&] { return device.Get(key::REVERSE); });
    const std::string json = R"({"p":2,"ep":{"text":"\"\\ é € %d\n"}})";
    CheckEqual("Get takes every character of a JSON text", {json.rbegin(), json.rend()},
               [&] { return device.Get(key::REVERSE, json); });
    LookAtLengths(device);
    mReport.Check("a handler's -1 makes Get fail", "another result than 0", [&] {
        char buffer[CAPACITY + 1] = "";
        return device.Proxy()->Get(device.Proxy(), key::REFUSE, buffer, CAPACITY) != 0 ? "" : Seen(0);
    });
    CheckEqual("the handler is given the record that was registered", "same",
               [&] { return device.Get(key::RESOURCE); });
    mReport.Check("DoGET is given at least 1,024 bytes", "1024 or more", [&] {
        const std::string size = device.Get(key::SIZE);
        return size.size() > 4 || size >= "1024" ? "" : size;
    });
    mReport.Check("the handler is given the requester's address", "one of this host's", [&] {
        const std::string address = device.Get(key::WHO);
        return IsOwnAddress(address) ? "" : Quoted(address);
    });
    const std::string open = device.Get(key::SIGNALS);
    // A note and no deviation: Lumora works without, but a signal handler of the application may run on that
    // thread.
    if (open != "0") {
        mReport.Note("the handlers' thread does not block " + open + " of 9 signals; it should block all");
    }
}

void PlatformChecks::LookAtLengths(const Remote& device) {
    constexpr std::size_t LONGEST_VALUE = 1022;
    mReport.Check("Get takes a value of 1,022 bytes", "all of it, backwards", [&] {
        const std::string value = "b" + std::string(LONGEST_VALUE - 1, 'a');
        const std::string reply = device.Get(key::REVERSE, value);
        const std::string expected(value.rbegin(), value.rend());
        return reply == expected ? "" : std::to_string(reply.size()) + " characters: " + reply.substr(0, 40);
    });
    mReport.Check("Get gives a reply of 1,023 bytes", "all of it", [&] {
        const std::string reply = device.Get(key::FILL, std::to_string(CAPACITY));
        return reply == std::string(CAPACITY, 'f')
                   ? ""
                   : std::to_string(reply.size()) + " characters: " + reply.substr(0, 40);
    });
    mReport.Check("a reply that does not fit makes Get fail",
                  "another result than 0, and no byte behind the buffer", [&] {
                      constexpr unsigned SHORT = 15;
                      constexpr char CANARY = '#';
                      std::string buffer = "100";
                      buffer.resize(SHORT + 1);
                      // Room behind the buffer for all that a broken library may write, so that the check
                      // itself does not crash.
                      buffer.append(CAPACITY, CANARY);
                      const int result = device.Proxy()->Get(device.Proxy(), key::FILL, buffer.data(), SHORT);
                      const bool untouched = buffer.substr(SHORT + 1) == std::string(CAPACITY, CANARY);
                      return !untouched ? "bytes behind the buffer were written" : result != 0 ? "" : Seen(0);
                  });
}

void PlatformChecks::LookAtChanges() {
    mReport.Begin("change");
    LookAtChange(&AppResourceProxy::Put, "PUT");
    LookAtChange(&AppResourceProxy::Post, "POST");
    LookAtChange(&AppResourceProxy::Delete, "DELETE");
    constexpr unsigned THREADS = 4;
    constexpr unsigned EACH = 25;
    CheckEqual("each of 100 requests from 4 threads is carried out once", std::to_string(THREADS * EACH),
               [&] {
                   std::atomic<unsigned> failed{0};
                   std::vector<std::thread> threads;
                   for (unsigned i = 0; i < THREADS; ++i) {
                       threads.emplace_back([&] {
                           for (unsigned count = 0; count < EACH; ++count) {
                               // A request that is sent again after a lost answer must not be carried out
                               // twice.
                               failed += mDevices[0].Do(&AppResourceProxy::Post, key::ONCE, "x") != 0 ? 1 : 0;
                           }
                       });
                   }
                   for (std::thread& thread : threads) {
                       thread.join();
                   }
                   const std::string count = mDevices[0].Get(key::COUNT);
                   return failed == 0 ? count : std::to_string(failed) + " failed, carried out: " + count;
               });
}

void PlatformChecks::LookAtChange(const Remote::Change& change, const char* verb) {
    const Remote& device = mDevices[0];
    const std::string name = verb;
    for (const std::string& value : {std::string("abc"), std::string(), std::string(1022, 'v')}) {
        const std::string expected = Described(verb, key::NOTED, value, static_cast<unsigned>(value.size()));
        CheckEqual(name + " takes a value of " + lumora_cli::Grouped(value.size()) + " bytes to its handler",
                   expected, [&] {
                       const int result = device.Do(change, key::NOTED, value);
                       return result == 0 ? device.Get(key::LAST) : Seen(result);
                   });
    }
    mReport.Check("a handler's -1 makes " + name + " fail", "another result than 0",
                  [&] { return device.Do(change, key::REFUSE, "abc") != 0 ? "" : Seen(0); });
}

void PlatformChecks::LookAtThreads() {
    constexpr char SLEEP_MS[] = "2000";
    constexpr milliseconds HEAD_START(200);
    constexpr milliseconds CLEARLY(500);  // the waiting thread may be late to look at the clock
    mReport.Begin("threads");
    mReport.Check("one request waits for its handler while another is answered", "the other one first", [&] {
        // Written by the other thread, and read after it has been joined.
        std::string slow;
        Clock::time_point slowEnd;
        std::thread waiting([&] {
            slow = mDevices[0].Get(key::SLEEP, SLEEP_MS);
            slowEnd = Clock::now();
        });
        // The slow request must be under way before the quick one begins.
        std::this_thread::sleep_for(HEAD_START);
        const std::string quick = mDevices[1].Get(key::REVERSE, "abc");
        const Clock::time_point quickEnd = Clock::now();
        waiting.join();
        return !slow.empty()                   ? "the slow one: " + slow
               : quick != "cba"                ? "the other one: " + quick
               : slowEnd - quickEnd >= CLEARLY ? ""
                                               : "the slow one first";
    });
    CheckEqual("a handler may search, and ask who asked it", "cba",
               [&] { return mDevices[0].Get(key::RELAY, g_ownType); });
}

void PlatformChecks::LookAtAdded() {
    constexpr milliseconds LEAST(500);
    // Events may have come while other checks ran, so the limit counts from the start of the devices.
    const milliseconds rest = std::max(LEAST, EVENT_LIMIT - Since(mDevicesStarted));
    mReport.Begin("events");
    for (const auto& [which, device] :
         {std::make_pair("first", &mDevices[0]), std::make_pair("second", &mDevices[1])}) {
        CheckEvent(std::string("the coming of the ") + which + " device is told, as it is found",
                   Event{true, device->Address(), device->Port(), mType}.Text(), rest);
    }
}

void PlatformChecks::LookAtPatience() {
    mReport.Begin("threads");
    CheckEqual("a request waits for a handler that takes 6 seconds", "",
               [&] { return mDevices[0].Get(key::SLEEP, "6000"); });
}

void PlatformChecks::LookAtRemoved() {
    mReport.Begin("events");
    // Which of the two it is shows when it is gone.
    const std::string first = Event{false, mDevices[0].Address(), mDevices[0].Port(), mType}.Text();
    const std::string second = Event{false, mDevices[1].Address(), mDevices[1].Port(), mType}.Text();
    mReport.Check("Exit succeeds in a device, and no handler runs after it", "0",
                  [&] { return mFirst.Stop(); });
    const bool told =
        mReport.Check("a device that leaves is told, as it was found", "removed, and its address", [&] {
            Eventually([&] { return TheEvents().Has(mType, first) || TheEvents().Has(mType, second); },
                       EVENT_LIMIT);
            const std::vector<std::string> all = TheEvents().Of(mType);
            const bool has = TheEvents().Has(mType, first) || TheEvents().Has(mType, second);
            return has ? "" : all.empty() ? "no event" : "as the last event: " + all.back();
        });
    if (!told) {
        return;
    }
    const std::size_t gone = TheEvents().Has(mType, first) ? 0 : 1;
    mReport.Begin("search");
    mReport.Check("FindResource finds the other device and not this one", "1 device", [&] {
        const Remotes found = Search(mType);
        return found.size() == 1 && found[0].Port() == mDevices[1 - gone].Port() ? "" : Found(found);
    });
    mReport.Begin("get");
    mReport.Check("Get of a device that has left fails", "another result than 0", [&] {
        const std::string reply = mDevices[gone].Get(key::REVERSE, "abc");
        return reply == "cba" ? "an answer" : "";
    });
    mDevices.erase(mDevices.begin() + static_cast<Remotes::difference_type>(gone));
}

void PlatformChecks::LookAtOtherHandle() {
    mReport.Begin("handle");
    CheckEqual("another handle of the process may come and go", "cba", [&]() -> std::string {
        static AppResource resource = {OwnGet, RefuseChange, RefuseChange, RefuseChange, OwnDescriptor};
        LinkPlatform* const other = mFunctions.get();
        if (other == nullptr || other == mPlatform) {
            return "no other handle";
        }
        const bool runs = other->Init(other) == 0 &&
                          other->RegisterResource(other, &resource, OnEvent) == 0 && other->Run(other) == 0;
        mFunctions.release(other);  // which ends it
        return runs ? mDevices.back().Get(key::REVERSE, "abc") : "it does not start";
    });
}

void PlatformChecks::LookAtLoss() {
    const Remote& device = mDevices.back();
    const std::string removed = Event{false, device.Address(), device.Port(), mType}.Text();
    mSecond.Kill();
    mReport.Begin("get");
    const auto begin = Clock::now();
    mReport.Check("Get of a device whose process was killed fails in the end", "another result than 0",
                  [&] { return device.Get(key::REVERSE, "abc") == "cba" ? "an answer" : ""; });
    mReport.Note("that took " + std::to_string(Since(begin).count()) + " ms");
    mReport.Begin("events");
    CheckEvent("a device whose process was killed is told as removed", removed, LOSS_LIMIT);
}

void PlatformChecks::Ends(bool secondIsGone) {
    constexpr milliseconds LATER(300);
    mReport.Begin("handle");
    CheckZero("Exit succeeds", [&] { return mPlatform->Exit(mPlatform); });
    mReport.Check("no event comes after Exit", "none", [&] {
        const std::size_t before = TheEvents().Of(mType).size();
        if (!secondIsGone) {
            mSecond.Stop();
        }
        // An event that must not come can only be waited for by time.
        std::this_thread::sleep_for(LATER);
        const std::vector<std::string> after = TheEvents().Of(mType);
        return after.size() == before ? "" : after.back();
    });
    mReport.Check("elements may be released after the handle", "nothing happens", [&] {
        mFunctions.release(mPlatform);
        // Elements outlive their handle: applications release them late.
        mDevices.clear();
        return "";
    });
}

}  // namespace

void CheckPlatform(const Files& files, bool thorough, Report& report) {
    // Writing an order to it then fails with EPIPE.
    signal(SIGPIPE, SIG_IGN);  // a device may have ended
    PlatformChecks(files, report).Run(thorough);
}

}  // namespace platform_check
