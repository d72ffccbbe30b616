// The skeleton of a platform library (liblumora.so) for those who write one over their own transport. It
// connects the processes of one host by UDP on the loopback interface, and passes lumora-platform-check
// --thorough.
//
// What it lacks, and a real one needs:
//   - other hosts. "Multicast" is a datagram to each port of a range; addresses are always 127.0.0.1.
//   - retransmission, and a table of the requests that have run. Here a lost request fails. The loopback
//     interface loses datagrams only if a socket's buffer is full.
//   - defence against strangers: any process of this host can forge any message.
//   - more than one worker: a handler that takes long delays the events of its handle.
//   - handling of std::bad_alloc: exceptions must not leave the functions of the tables.
#include <arpa/inet.h>
#include <link_platform.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int FIRST_PORT = 40100;
constexpr int LAST_PORT = 40163;
constexpr milliseconds TICK(50);          // how late a thread notices the end
constexpr milliseconds HELLO_EVERY(500);  // each node says that it is there,
constexpr milliseconds GONE_AFTER(2000);  // and counts as gone after a silence
constexpr milliseconds SEARCH(300);
constexpr milliseconds PING_EVERY(200);
constexpr milliseconds LONGEST_REQUEST(60000);
constexpr std::size_t BUFFER = 1024;
constexpr std::size_t MOST_WORK = 64;
constexpr char ADDRESS[] = "127.0.0.1";

// A datagram is a list of texts. The first is its kind.
//   hello TYPE, bye                  a node to every port, by which others learn of it
//   find TYPE                        answered by "found", from the node's port
//   ask VERB KEY VALUE               answered by "answer RESULT VALUE"
//   ping                             not answered: the kernel tells the sender when the port is closed
using Message = std::vector<std::string>;

std::string Encode(const Message& message) {
    std::string bytes;
    for (const std::string& text : message) {
        bytes.append(text.c_str(), text.size() + 1);
    }
    return bytes;
}

Message Decode(const std::string& bytes) {
    Message message;
    for (std::size_t begin = 0, end; (end = bytes.find('\0', begin)) != std::string::npos; begin = end + 1) {
        message.push_back(bytes.substr(begin, end - begin));
    }
    return message;
}

sockaddr_in Loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

class Socket {
public:
    Socket() : mFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~Socket() { close(mFd); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // On the first port of the range that is free; its number, or 0.
    int BindInRange() {
        for (int port = FIRST_PORT; port <= LAST_PORT; ++port) {
            const sockaddr_in address = Loopback(port);
            if (bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                return port;
            }
        }
        return 0;
    }

    // From now on a closed port at the other end makes calls fail.
    bool Connect(int port) {
        const sockaddr_in address = Loopback(port);
        return connect(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    }

    bool Send(const Message& message) {
        const std::string bytes = Encode(message);
        return send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0;
    }

    void SendTo(int port, const Message& message) {
        const std::string bytes = Encode(message);
        const sockaddr_in address = Loopback(port);
        sendto(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
               sizeof(address));
    }

    void SendToAll(const Message& message) {
        for (int port = FIRST_PORT; port <= LAST_PORT; ++port) {
            SendTo(port, message);
        }
    }

    // Whether something has come; broken is set when the other end is closed.
    bool Receive(milliseconds limit, Message& message, int& from, bool& broken) {
        std::array<char, 2 * BUFFER> bytes;
        pollfd waiting = {mFd, POLLIN, 0};
        sockaddr_in address = {};
        socklen_t size = sizeof(address);
        broken = false;
        if (poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) {
            return false;
        }
        const ssize_t length =
            recvfrom(mFd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address), &size);
        broken = length < 0;
        if (broken) {
            return false;
        }
        message = Decode(std::string(bytes.data(), static_cast<std::size_t>(length)));
        from = ntohs(address.sin_port);
        return !message.empty();
    }

private:
    const int mFd;
};

// ---- A device that was found. Each request has a socket of its own, so it waits for no other thread.

struct Proxy : AppResourceProxy {
    Proxy(int devicePort, Proxy* nextElement);

    const int port;
    Proxy* next;
};

// 0 and the reply, or -1.
int Ask(const Proxy& proxy, const char* verb, const char* key, const char* value, std::string& reply) {
    Socket socket;
    Message answer;
    int from = 0;
    bool broken = false;
    if (!socket.Connect(proxy.port) || !socket.Send({"ask", verb, key, value})) {
        return -1;
    }
    const Clock::time_point end = Clock::now() + LONGEST_REQUEST;
    while (!socket.Receive(PING_EVERY, answer, from, broken)) {
        if (broken || Clock::now() > end || !socket.Send({"ping"})) {
            return -1;
        }
    }
    if (answer.size() != 3 || answer[0] != "answer" || answer[1] != "0") {
        return -1;
    }
    reply = answer[2];
    return 0;
}

int Change(AppResourceProxy* proxy, const char* verb, const char* key, const char* value) {
    std::string reply;
    return Ask(*static_cast<Proxy*>(proxy), verb, key, value, reply);
}

int Get(AppResourceProxy* proxy, const char* key, char* buffer, unsigned capacity) {
    std::string reply;
    if (Ask(*static_cast<Proxy*>(proxy), "GET", key, buffer, reply) != 0 || reply.size() > capacity) {
        return -1;
    }
    std::memcpy(buffer, reply.c_str(), reply.size() + 1);
    return 0;
}

int Put(AppResourceProxy* proxy, const char* key, const char* value, unsigned) {
    return Change(proxy, "PUT", key, value);
}

int Post(AppResourceProxy* proxy, const char* key, const char* value, unsigned) {
    return Change(proxy, "POST", key, value);
}

int Delete(AppResourceProxy* proxy, const char* key, const char* value, unsigned) {
    return Change(proxy, "DELETE", key, value);
}

const char* GetAddress(AppResourceProxy*) { return ADDRESS; }
int GetPort(AppResourceProxy* proxy) { return static_cast<Proxy*>(proxy)->port; }

Proxy::Proxy(int devicePort, Proxy* nextElement)
    : AppResourceProxy{::Get, ::Put, ::Post, ::Delete, nullptr, ::GetAddress, ::GetPort},
      port(devicePort),
      next(nextElement) {}

// ---- A handle

struct Peer {
    std::string type;
    Clock::time_point heard;
};

class Node : public LinkPlatform {
public:
    Node();
    ~Node() { Stop(); }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // The owner of the record may free it at once, so its handlers are copied.
    void Register(AppResource* resource, DeviceEventFunction onEvent) {
        mResource = resource;
        mHandlers = *resource;
        mOnEvent = onEvent;
        const char* const type = resource->DoGetDescriptor(resource);
        mType = type != nullptr ? type : "";
    }

    bool Start() {
        mPort = mSocket.BindInRange();
        if (mPort == 0) {
            return false;
        }
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);  // threads inherit it: signals are the application's
        mRunning = true;
        mReceiver = std::thread([this] { ReceiveUntilStopped(); });
        mWorker = std::thread([this] { WorkUntilStopped(); });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return true;
    }

    // Afterwards no handler and no event runs.
    void Stop() {
        if (!mRunning.exchange(false)) {
            return;
        }
        mHasWork.notify_one();
        mReceiver.join();
        mWorker.join();
        Announce({"bye"});
    }

    // Asks every port. The answers are ordered by port, so that a second search gives the same order.
    Proxy* Find(const std::string& type) const {
        Socket socket;
        std::map<int, bool> found;
        socket.SendToAll({"find", type});
        for (const auto end = Clock::now() + SEARCH; Clock::now() < end;) {
            Message answer;
            int from = 0;
            bool broken = false;
            if (socket.Receive(TICK, answer, from, broken) && answer[0] == "found" && from != mPort) {
                found[from] = true;
            }
        }
        Proxy* first = nullptr;
        for (auto device = found.rbegin(); device != found.rend(); ++device) {
            first = new Proxy(device->first, first);
        }
        return first;
    }

private:
    // ---- On the receiver's thread

    void ReceiveUntilStopped() {
        Clock::time_point nextHello = Clock::now();
        while (mRunning) {
            Message message;
            int from = 0;
            bool broken = false;
            if (Clock::now() >= nextHello) {
                nextHello = Clock::now() + HELLO_EVERY;
                Announce({"hello", mType});
                ForgetSilentPeers();
            }
            if (mSocket.Receive(TICK, message, from, broken) && from != mPort) {
                Take(message, from);
            }
        }
    }

    // A node without a type only searches: other nodes need not know it.
    void Announce(const Message& message) {
        if (!mType.empty()) {
            mSocket.SendToAll(message);
        }
    }

    void Take(const Message& message, int from) {
        if (message[0] == "hello" && message.size() == 2) {
            TakeHello(message[1], from);
        } else if (message[0] == "bye") {
            Forget(from);
        } else if (message[0] == "find" && message.size() == 2 && message[1] == mType && !mType.empty()) {
            mSocket.SendTo(from, {"found"});
        } else if (message[0] == "ask" && message.size() == 4) {
            Post([this, message, from] { Answer(message, from); });
        }
    }

    void TakeHello(const std::string& type, int from) {
        const auto known = mPeers.find(from);
        if (known != mPeers.end() && known->second.type == type) {
            known->second.heard = Clock::now();
            return;
        }
        Forget(from);  // another process has the port now
        mPeers[from] = {type, Clock::now()};
        PostEvent(NOTIFY_DEVICE_ADDED, from, type);
    }

    void Forget(int port) {
        const auto known = mPeers.find(port);
        if (known != mPeers.end()) {
            PostEvent(NOTIFY_DEVICE_REMOVED, port, known->second.type);
            mPeers.erase(known);
        }
    }

    void ForgetSilentPeers() {
        std::vector<int> silent;
        for (const auto& [port, peer] : mPeers) {
            if (Clock::now() - peer.heard > GONE_AFTER) {
                silent.push_back(port);
            }
        }
        for (const int port : silent) {
            Forget(port);
        }
    }

    // ---- On the worker's thread: handlers and events, which may themselves search and ask

    void Post(std::function<void()> work) {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (mWork.size() >= MOST_WORK) {
                return;  // the request fails in the end
            }
            mWork.push_back(std::move(work));
        }
        mHasWork.notify_one();
    }

    void PostEvent(unsigned event, int port, const std::string& type) {
        Post([this, event, port, type] {
            NotifyDeviceInfo info = {event, static_cast<unsigned>(port), ADDRESS, port, type.c_str()};
            mOnEvent(&info);
        });
    }

    void WorkUntilStopped() {
        std::unique_lock<std::mutex> lock(mMutex);
        while (mRunning) {
            if (mWork.empty()) {
                mHasWork.wait_for(lock, TICK);
                continue;
            }
            const std::function<void()> work = std::move(mWork.front());
            mWork.pop_front();
            lock.unlock();
            work();
            lock.lock();
        }
    }

    void Answer(const Message& request, int from) {
        const RemoteEndpoint requester = {Loopback(from).sin_addr, from};
        std::array<char, BUFFER> buffer = {};
        const int result = Handle(requester, request[1], request[2].c_str(), request[3], buffer);
        const bool hasReply = result == 0 && request[1] == "GET";
        mSocket.SendTo(from, {"answer", std::to_string(result), hasReply ? buffer.data() : ""});
    }

    int Handle(const RemoteEndpoint& requester, const std::string& verb, const char* key,
               const std::string& value, std::array<char, BUFFER>& buffer) {
        const auto length = static_cast<unsigned>(value.size());
        if (verb == "GET" && value.size() < buffer.size()) {
            value.copy(buffer.data(), value.size());
            return mHandlers.DoGET(mResource, &requester, key, buffer.data(), BUFFER);
        }
        if (verb == "PUT") {
            return mHandlers.DoPUT(mResource, &requester, key, value.c_str(), length);
        }
        if (verb == "POST") {
            return mHandlers.DoPOST(mResource, &requester, key, value.c_str(), length);
        }
        return verb == "DELETE" ? mHandlers.DoDELETE(mResource, &requester, key, value.c_str(), length) : -1;
    }

    Socket mSocket;
    int mPort = 0;
    AppResource* mResource = nullptr;
    AppResource mHandlers = {};
    DeviceEventFunction mOnEvent = nullptr;
    std::string mType;
    std::map<int, Peer> mPeers;  // only on the receiver's thread
    std::mutex mMutex;           // guards mWork
    std::condition_variable mHasWork;
    std::deque<std::function<void()>> mWork;
    std::atomic<bool> mRunning{false};
    std::thread mReceiver;
    std::thread mWorker;
};

int Init(LinkPlatform*) { return 0; }
int SetDebugLevel(LinkPlatform*, int) { return 0; }

int RegisterResource(LinkPlatform* platform, AppResource* resource, DeviceEventFunction onEvent) {
    static_cast<Node*>(platform)->Register(resource, onEvent);
    return 0;
}

int Run(LinkPlatform* platform) { return static_cast<Node*>(platform)->Start() ? 0 : -1; }

int Exit(LinkPlatform* platform) {
    static_cast<Node*>(platform)->Stop();
    return 0;
}

AppResourceProxy* FindResource(LinkPlatform* platform, const char* type) {
    return static_cast<Node*>(platform)->Find(type);
}

Node::Node()
    : LinkPlatform{::Init,  nullptr, ::SetDebugLevel, ::RegisterResource,
                   nullptr, ::Run,   ::Exit,          ::FindResource} {}

}  // namespace

LinkPlatform* GetLinkPlatform() { return new Node; }
void FreeLinkPlatform(LinkPlatform* platform) { delete static_cast<Node*>(platform); }
AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy) {
    return static_cast<Proxy*>(proxy)->next;
}
void FreeAppResourceProxy2(AppResourceProxy* proxy) { delete static_cast<Proxy*>(proxy); }
