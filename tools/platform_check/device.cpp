#include "tools/platform_check/device.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "base/mutex.h"
#include "tools/lumora/terminal/failure.h"

namespace platform_check {

namespace {

using lumora_cli::Failure;

constexpr char START = 's';
constexpr char STOP = 'x';
constexpr char ANSWER_END = '\n';
constexpr int ACCEPTED = 0;
constexpr int REFUSED = -1;

unsigned NumberIn(const std::string& text) {
    unsigned number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// The process is one device: what its handlers need.
struct Served {
    PlatformFunctions functions;
    std::string type;
    LinkPlatform* platform = nullptr;
    AppResource resource = {};
    lumora::Mutex mutex;
    std::string last GUARDED_BY(mutex);
    unsigned count GUARDED_BY(mutex) = 0;
    std::atomic<bool> ended{false};
    std::atomic<unsigned> late{0};  // handlers that ran after the end
};

Served& TheDevice() {
    static Served device;
    return device;
}

std::string AddressOf(const RemoteEndpoint& endpoint) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &endpoint.address, text, sizeof(text));
    return text;
}

std::string OpenSignals() {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    // Counts the signals that this thread would take from the application.
    int open = 0;
    for (const int number :
         {SIGHUP, SIGINT, SIGQUIT, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD, SIGWINCH}) {
        open += sigismember(&blocked, number) == 0 ? 1 : 0;
    }
    return std::to_string(open);
}

std::string Relayed(const std::string& type) {
    Served& device = TheDevice();
    char buffer[1024] = "abc";
    std::string reply = "nobody was found";
    for (AppResourceProxy* proxy = device.platform->FindResource(device.platform, type.c_str());
         proxy != nullptr;) {
        AppResourceProxy* const next = device.functions.next(proxy);
        // Only the first device is asked; the others are released.
        if (reply[0] == 'n') {
            reply = proxy->Get(proxy, key::REVERSE, buffer, sizeof(buffer) - 1) == 0 ? buffer : "no answer";
        }
        device.functions.releaseProxy(proxy);
        proxy = next;
    }
    return reply;
}

std::string Reply(const std::string& wanted, const std::string& value) {
    constexpr useconds_t MICROSECONDS = 1000;
    Served& device = TheDevice();
    if (wanted == key::REVERSE) {
        return {value.rbegin(), value.rend()};
    }
    if (wanted == key::FILL) {
        return std::string(NumberIn(value), 'f');
    }
    if (wanted == key::SLEEP) {
        usleep(NumberIn(value) * MICROSECONDS);
    }
    // A handler that calls the platform itself. A platform that holds a lock over handlers would freeze here.
    if (wanted == key::RELAY) {
        return Relayed(value);
    }
    if (wanted == key::SIGNALS) {
        return OpenSignals();
    }
    const lumora::MutexLock lock(device.mutex);
    return wanted == key::LAST ? device.last : wanted == key::COUNT ? std::to_string(device.count) : "";
}

int DoGet(AppResource* resource, const RemoteEndpoint* requester, const char* wanted, char* buffer,
          unsigned size) {
    Served& device = TheDevice();
    // Exit must wait for running handlers. One that runs later is counted.
    device.late += device.ended ? 1 : 0;
    std::string reply;
    if (std::strcmp(wanted, key::SIZE) == 0) {
        reply = std::to_string(size);
    } else if (std::strcmp(wanted, key::WHO) == 0) {
        reply = AddressOf(*requester);
    } else if (std::strcmp(wanted, key::RESOURCE) == 0) {
        reply = resource == &device.resource ? "same" : "another";
    } else {
        reply = Reply(wanted, buffer);
    }
    if (reply.size() >= size || std::strcmp(wanted, key::REFUSE) == 0) {
        return REFUSED;
    }
    reply.copy(buffer, reply.size());
    buffer[reply.size()] = '\0';
    return ACCEPTED;
}

int Note(const char* verb, const char* key, const char* value, unsigned length) {
    Served& device = TheDevice();
    device.late += device.ended ? 1 : 0;
    const lumora::MutexLock lock(device.mutex);
    device.last = Described(verb, key, value, length);
    device.count += std::strcmp(key, key::ONCE) == 0 ? 1 : 0;
    return std::strcmp(key, key::REFUSE) == 0 ? REFUSED : ACCEPTED;
}

int DoPut(AppResource*, const RemoteEndpoint*, const char* key, const char* value, unsigned length) {
    return Note("PUT", key, value, length);
}

int DoPost(AppResource*, const RemoteEndpoint*, const char* key, const char* value, unsigned length) {
    return Note("POST", key, value, length);
}

int DoDelete(AppResource*, const RemoteEndpoint*, const char* key, const char* value, unsigned length) {
    return Note("DELETE", key, value, length);
}

const char* DoGetDescriptor(AppResource*) { return TheDevice().type.c_str(); }

// Stand in the record once it is registered: its owner may do with it what he likes.
int StaleGet(AppResource*, const RemoteEndpoint*, const char*, char* buffer, unsigned) {
    constexpr char WORDS[] = "read from the record later";
    std::memcpy(buffer, WORDS, sizeof(WORDS));
    return ACCEPTED;
}

int StaleChange(AppResource*, const RemoteEndpoint*, const char*, const char*, unsigned) { return ACCEPTED; }

const char* StaleDescriptor(AppResource*) { return "stale"; }

int IgnoreEvent(NotifyDeviceInfo*) { return 0; }

std::string Started(const Files& files) {
    Served& device = TheDevice();
    std::string fault = LoadPlatform(files, device.functions);
    if (!fault.empty()) {
        return fault;
    }
    device.platform = device.functions.get();
    if (device.platform == nullptr || device.platform->Init(device.platform) != 0) {
        return "a second process gets no handle, or cannot use it";
    }
    device.resource = {DoGet, DoPut, DoPost, DoDelete, DoGetDescriptor};
    if (device.platform->RegisterResource(device.platform, &device.resource, IgnoreEvent) != 0) {
        return "a second process cannot register its resource";
    }
    // The platform must have copied the record in RegisterResource. One that reads it later answers wrongly.
    device.resource = {StaleGet, StaleChange, StaleChange, StaleChange, StaleDescriptor};
    return device.platform->Run(device.platform) == 0 ? "" : "Run fails in a second process";
}

std::string Stopped() {
    constexpr useconds_t LATER = 200000;
    Served& device = TheDevice();
    const int result = device.platform->Exit(device.platform);
    device.ended = true;
    // Gives handlers that wrongly run after Exit the time to do so.
    usleep(LATER);
    device.functions.release(device.platform);
    if (result != 0) {
        return "Exit gives " + std::to_string(result);
    }
    return device.late == 0 ? "" : "a handler ran after Exit";
}

[[noreturn]] void Serve(const Files& files, int orders, int answers) {
    char order = 0;
    while (read(orders, &order, 1) == 1) {
        const std::string answer = (order == START ? Started(files) : Stopped()) + ANSWER_END;
        if (write(answers, answer.data(), answer.size()) < 0) {
            break;
        }
    }
    // Without exit handlers: those belong to the parent.
    _exit(0);
}

}  // namespace

std::string Described(const std::string& verb, const std::string& key, const std::string& value,
                      unsigned length) {
    // FNV-1a: the checks compare long values by length and hash, which fit into one reply.
    constexpr unsigned PRIME = 16777619;
    unsigned checksum = 2166136261;
    for (const char character : value) {
        checksum = (checksum ^ static_cast<unsigned char>(character)) * PRIME;
    }
    return verb + ' ' + key + ' ' + std::to_string(length) + ' ' + std::to_string(value.size()) + ' ' +
           std::to_string(checksum);
}

Device::Device(const Files& files, std::string type) {
    int orders[2];
    int answers[2];
    if (pipe2(orders, O_CLOEXEC) != 0 || pipe2(answers, O_CLOEXEC) != 0) {
        throw Failure(lumora_cli::EXIT_FAILED, "there is no pipe: " + lumora_cli::SystemError(errno));
    }
    lumora::UniqueFd theirOrders(orders[0]);
    lumora::UniqueFd theirAnswers(answers[1]);
    mOrders = lumora::UniqueFd(orders[1]);
    mAnswers = lumora::UniqueFd(answers[0]);
    // Before this process has loaded the platform: its threads and locks would not survive a fork.
    mId = fork();
    if (mId == 0) {
        // The kernel kills the device if the checking process dies.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Our ends. While the child held them, a read would never see the end of the pipe.
        mOrders.Close();
        mAnswers.Close();
        TheDevice().type = std::move(type);
        Serve(files, theirOrders.Get(), theirAnswers.Get());
    }
}

Device::~Device() { Kill(); }

std::string Device::Start() { return Order(START); }
std::string Device::Stop() { return Order(STOP); }

void Device::Kill() {
    if (mId > 0) {
        kill(mId, SIGKILL);
        waitpid(std::exchange(mId, -1), nullptr, 0);
    }
}

std::string Device::Order(char letter) {
    std::string answer;
    char byte = 0;
    if (write(mOrders.Get(), &letter, 1) != 1) {
        return "the second process has ended";
    }
    // Blocks until the device answers or ends. The whole check runs in a process with a time limit.
    while (read(mAnswers.Get(), &byte, 1) == 1) {
        if (byte == ANSWER_END) {
            return answer;
        }
        answer += byte;
    }
    return "the second process has ended";
}

}  // namespace platform_check
