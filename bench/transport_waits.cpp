// Measures how long a transport takes to stop in each state, and how soon it notices the end of its peer. The
// sockets are real; this program is the peer.
//
// usage: lumora_bench_transport_waits ROUNDS
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/process_cost.h"
#include "bench/signal.h"
#include "protocol/data_frame.h"
#include "transport/tcp_client_transport.h"
#include "transport/tcp_server_transport.h"

namespace lumora_bench {

namespace {

using lumoraAiModule::LUM_OBSERVER_S;
using lumoraAiModule::LumoraTCPTransClient;
using lumoraAiModule::LumoraTCPTransServer;
using lumoraAiModule::LumoraTransCallback;
using lumoraAiModule::LumoraTransManager;
using lumoraAiModule::TransType;

constexpr int PORT = 6690;       // of the transport
constexpr int SINK_PORT = 6691;  // of the peer that it sends to
constexpr int SETTLE_MS = 20;
constexpr unsigned int FRAME_LENGTH = 100000;

void Pause(int milliseconds) { poll(nullptr, 0, milliseconds); }

// One end of a connection.
class Socket {
public:
    explicit Socket(int fd) : mFd(fd) {
        if (fd < 0) {
            Fail("no socket");
        }
    }
    ~Socket() { Close(); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    static sockaddr_in Address(int port) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        return address;
    }
    void Connect(int port) const {
        const sockaddr_in address = Address(port);
        if (connect(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            Fail("cannot connect");
        }
    }
    void Listen(int port) const {
        const int on = 1;
        setsockopt(mFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        const sockaddr_in address = Address(port);
        if (bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(mFd, 1) != 0) {
            Fail("cannot listen");
        }
    }
    bool Send(const char* data, std::size_t length) const {
        return send(mFd, data, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
    }
    void Close() {
        if (mFd >= 0) {
            close(mFd);
            mFd = -1;
        }
    }

private:
    int mFd;
};

Socket NewSocket() { return Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

class Callback : public LumoraTransCallback {
public:
    int OnRecvData(char*, unsigned int) override { return 0; }
    int OnDisconnect(unsigned int) override {
        disconnected = Clock::now();
        lost.Raise();
        return 0;
    }
    Signal lost;
    std::atomic<Clock::time_point> disconnected{};
};

// A transport of one side, and the frames that this side receives.
struct Side {
    const char* name;
    std::shared_ptr<LumoraTransManager> transport;
    TransType receive;
    TransType send;
    std::vector<char> frame;

    void Create(TransType direction, int port) const {
        LUM_OBSERVER_S observer;
        observer.OnData = [](int, const char*, unsigned int) { return 0; };
        if (transport->CreateTransports(direction, "127.0.0.1", port, observer) != 0) {
            Fail("cannot create a transport");
        }
    }
};

Side ClientSide(Callback& callback) {
    std::vector<char> frame(lumoraAiModule::SERVER_FRAME_FIXED_HEAD_LENGTH + 2 + FRAME_LENGTH);
    *lumoraAiModule::WriteServerFrameHead(frame.data(), FRAME_LENGTH, {1}, "s") = 's';
    return {"client", std::make_shared<LumoraTCPTransClient>(callback, 1U), TransType::CLIENT_RECEIVE,
            TransType::CLIENT_SEND, frame};
}

Side DeviceSide(Callback&) {
    std::vector<char> frame(lumoraAiModule::CLIENT_FRAME_HEAD_LENGTH + FRAME_LENGTH);
    lumoraAiModule::WriteClientFrameHead(frame.data(), FRAME_LENGTH, 1);
    return {"device", std::make_shared<LumoraTCPTransServer>(), TransType::SERVER_RECEIVE,
            TransType::SERVER_SEND, frame};
}

double Stop(const Side& side) {
    const Clock::time_point begin = Clock::now();
    side.transport->StopTransports();
    return MillisecondsSince(begin);
}

double StopNobodyConnected(const Side& side) {
    side.Create(side.receive, PORT);
    Pause(SETTLE_MS);
    return Stop(side);
}

// What the peer of the receiving direction does before the stop.
using PeerAct = std::function<void(Socket&)>;

double StopAfter(const Side& side, const PeerAct& act) {
    side.Create(side.receive, PORT);
    Socket peer = NewSocket();
    peer.Connect(PORT);
    act(peer);
    Pause(SETTLE_MS);
    return Stop(side);
}

double StopIdle(const Side& side) {
    return StopAfter(side, [](Socket&) {});
}

double StopWithinAFrame(const Side& side) {
    return StopAfter(side, [&](Socket& peer) { peer.Send(side.frame.data(), side.frame.size() / 2); });
}

double StopAfterTheEnd(const Side& side) {
    return StopAfter(side, [](Socket& peer) { peer.Close(); });
}

double StopWhileFramesCome(const Side& side) {
    std::thread sender;
    const double time = StopAfter(side, [&](Socket& peer) {
        sender = std::thread([&side, fd = &peer] {
            while (fd->Send(side.frame.data(), side.frame.size())) {
            }
        });
        Pause(SETTLE_MS);
    });
    sender.join();
    return time;
}

double StopWhileSendingIsStuck(const Side& side) {
    Socket sink = NewSocket();
    sink.Listen(SINK_PORT);
    std::thread sender;
    const double time = StopAfter(side, [&](Socket&) {
        side.Create(side.send, SINK_PORT);
        sender = std::thread([&side] {
            unsigned int written = 0;
            while (side.transport->SendData(side.frame.data(), static_cast<unsigned int>(side.frame.size()),
                                            &written, 0) == 0 &&
                   written == side.frame.size()) {
            }
        });
        Pause(5 * SETTLE_MS);  // until nothing more goes into the sockets
    });
    sender.join();
    return time;
}

struct State {
    const char* name;
    double (*stop)(const Side& side);
};

constexpr State STATES[] = {
    {"no peer has connected", StopNobodyConnected}, {"idle", StopIdle},
    {"in the middle of a frame", StopWithinAFrame}, {"frames are coming", StopWhileFramesCome},
    {"sending is stuck", StopWhileSendingIsStuck},  {"the peer has closed", StopAfterTheEnd},
};

// From the peer's close to OnDisconnect, which only the client side has.
double Disconnect() {
    Callback callback;
    const Side side = ClientSide(callback);
    side.Create(side.receive, PORT);
    Socket peer = NewSocket();
    peer.Connect(PORT);
    Pause(SETTLE_MS);
    const Clock::time_point begin = Clock::now();
    peer.Close();
    callback.lost.Wait();
    const Clock::time_point end = callback.disconnected;
    side.transport->StopTransports();
    return 1e3 * Seconds(end - begin);
}

void Run(int rounds) {
    for (int round = 0; round < rounds; ++round) {
        for (Side (*make)(Callback&) : {ClientSide, DeviceSide}) {
            for (const State& state : STATES) {
                Callback callback;
                const Side side = make(callback);
                std::printf("{\"what\":\"stop: %s\",\"side\":\"%s\",\"ms\":%.3f}\n", state.name, side.name,
                            state.stop(side));
            }
        }
        std::printf("{\"what\":\"end of file to OnDisconnect\",\"side\":\"client\",\"ms\":%.3f}\n",
                    Disconnect());
    }
}

}  // namespace

}  // namespace lumora_bench

int main(int count, char** arguments) {
    if (count != 2 || std::atoi(arguments[1]) <= 0) {
        std::fputs("usage: lumora_bench_transport_waits ROUNDS\n", stderr);
        return 2;
    }
    lumora_bench::Run(std::atoi(arguments[1]));
    return 0;
}
