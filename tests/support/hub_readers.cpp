#include "tests/support/hub_readers.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/stream_parser.h"
#ifdef LUMORA_READERS_MQTT
#include <mosquitto.h>
#include <mqtt_protocol.h>
#endif

namespace lumora_test {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// As the hub's page does.
constexpr milliseconds FIRST_PAUSE{250};
constexpr milliseconds LONGEST_PAUSE{2000};
constexpr std::size_t READ_SIZE = 262144;
// In a row, before another client has its turn.
constexpr int READS = 4;

// One client of a stream.
struct Stream {
    lumora::UniqueFd socket;
    std::unique_ptr<StreamParser> parser;
    bool isConnected = false;
    milliseconds pause = FIRST_PAUSE;
    Clock::time_point due;  // of the next attempt, if there is no socket
};

class Streams final : public HubReaders {
public:
    explicit Streams(ReadersOptions options)
        : mOptions(std::move(options)),
          mKind(mOptions.kind == "events" ? StreamParser::Kind::SERVER_SENT_EVENTS
                                          : StreamParser::Kind::WEB_SOCKET),
          mEpoll(epoll_create1(EPOLL_CLOEXEC)),
          mStreams(mOptions.count),
          mBuffer(READ_SIZE) {}

    bool ServeUntilReadable(int fd, int longest) override {
        const Clock::time_point end = Clock::now() + milliseconds(longest);
        while (true) {
            ConnectThoseDue();
            std::array<pollfd, 2> waiting = {pollfd{fd, POLLIN, 0}, pollfd{mEpoll.Get(), POLLIN, 0}};
            const auto left = std::chrono::ceil<milliseconds>(std::min(end, NextDue()) - Clock::now());
            // Stalled clients leave their sockets readable.
            poll(waiting.data(), mIsStalled ? 1 : 2,
                 static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
            if (!mIsStalled && waiting[1].revents != 0) {
                ReadAll();
            }
            if (waiting[0].revents != 0 || Clock::now() >= end) {
                return waiting[0].revents != 0;
            }
        }
    }

    void Stall(bool isStalled) override { mIsStalled = isStalled; }

private:
    Clock::time_point NextDue() const {
        Clock::time_point next = Clock::time_point::max();
        for (const Stream& stream : mStreams) {
            next = stream.socket ? next : std::min(next, stream.due);
        }
        return mIsStalled ? Clock::time_point::max() : next;
    }

    void ConnectThoseDue() {
        const Clock::time_point now = Clock::now();
        for (std::size_t number = 0; number < mStreams.size() && !mIsStalled; ++number) {
            if (!mStreams[number].socket && mStreams[number].due <= now && !Connect(number)) {
                Drop(number);
            }
        }
    }

    bool Connect(std::size_t number) {
        Stream& stream = mStreams[number];
        stream.socket = lumora::UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in hub = {};
        hub.sin_family = AF_INET;
        hub.sin_port = htons(static_cast<std::uint16_t>(mOptions.port));
        hub.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const std::string request = Request();
        // Over loopback it either succeeds or fails at once.
        if (connect(stream.socket.Get(), reinterpret_cast<const sockaddr*>(&hub), sizeof(hub)) != 0 ||
            send(stream.socket.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
            return false;
        }
        stream.parser =
            std::make_unique<StreamParser>(mKind, mOptions.kept, [this, number](const StreamedBlock& block) {
                mOptions.onBlock({number, block.number, block.lost, block.size, block.start});
            });
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = number;
        return epoll_ctl(mEpoll.Get(), EPOLL_CTL_ADD, stream.socket.Get(), &event) == 0;
    }

    std::string Request() const {
        const bool isSocket = mKind == StreamParser::Kind::WEB_SOCKET;
        return "GET /api/devices/" + mOptions.device + "/services/" + mOptions.service +
               (isSocket ? "/stream" : "/events") + mOptions.query +
               " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(mOptions.port) + "\r\n" +
               (isSocket ? "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                           "Sec-WebSocket-Key: bHVtb3JhLWh1Yi1yZWFkZQ==\r\n"
                         : "") +
               "\r\n";
    }

    void Drop(std::size_t number) {
        Stream& stream = mStreams[number];
        stream.socket.Close();
        stream.isConnected = false;
        const bool isEvents = mKind == StreamParser::Kind::SERVER_SENT_EVENTS && stream.parser != nullptr;
        stream.due =
            Clock::now() + (isEvents ? milliseconds(stream.parser->RetryMilliseconds()) : stream.pause);
        stream.pause = std::min(stream.pause * 2, LONGEST_PAUSE);
    }

    void ReadAll() {
        std::array<epoll_event, 128> ready = {};
        const int count = epoll_wait(mEpoll.Get(), ready.data(), static_cast<int>(ready.size()), 0);
        for (int i = 0; i < count; ++i) {
            const auto number = static_cast<std::size_t>(ready[static_cast<std::size_t>(i)].data.u64);
            if (!Read(number)) {
                Drop(number);
            }
        }
    }

    bool Read(std::size_t number) {
        Stream& stream = mStreams[number];
        for (int turn = 0; turn < READS; ++turn) {
            const ssize_t length = recv(stream.socket.Get(), mBuffer.data(), mBuffer.size(), MSG_DONTWAIT);
            if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
                return true;
            }
            if (length <= 0 || !stream.parser->Take({mBuffer.data(), static_cast<std::size_t>(length)})) {
                return false;
            }
            if (!stream.isConnected && stream.parser->HasBegun()) {
                stream.isConnected = true;
                stream.pause = FIRST_PAUSE;
                mOptions.onConnected(number);
            }
            if (static_cast<std::size_t>(length) < mBuffer.size()) {
                return true;
            }
        }
        return true;
    }

    const ReadersOptions mOptions;
    const StreamParser::Kind mKind;
    const lumora::UniqueFd mEpoll;
    std::vector<Stream> mStreams;
    std::vector<char> mBuffer;
    bool mIsStalled = false;
};

#ifdef LUMORA_READERS_MQTT

std::uint64_t NumberOf(const mosquitto_property* properties) {
    char* name = nullptr;
    char* value = nullptr;
    std::uint64_t number = 0;
    bool isFirst = true;
    while ((properties = mosquitto_property_read_string_pair(properties, MQTT_PROP_USER_PROPERTY, &name,
                                                             &value, !std::exchange(isFirst, false))) !=
           nullptr) {
        number = std::string("number") == name ? std::strtoull(value, nullptr, 10) : number;
        std::free(name);
        std::free(value);
    }
    return number;
}

// Subscribers of a broker.
class Topics final : public HubReaders {
public:
    explicit Topics(ReadersOptions options) : mOptions(std::move(options)) {
        mosquitto_lib_init();
        for (std::size_t number = 0; number < mOptions.count; ++number) {
            auto client = std::make_unique<Client>();
            client->owner = this;
            client->number = number;
            client->handle.reset(mosquitto_new(nullptr, true, client.get()));
            mosquitto_int_option(client->handle.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
            mosquitto_connect_callback_set(client->handle.get(), OnConnect);
            mosquitto_message_v5_callback_set(client->handle.get(), OnMessage);
            mClients.push_back(std::move(client));
        }
    }
    ~Topics() override {
        mClients.clear();
        mosquitto_lib_cleanup();
    }
    Topics(const Topics&) = delete;
    Topics& operator=(const Topics&) = delete;

    bool ServeUntilReadable(int fd, int longest) override {
        const Clock::time_point end = Clock::now() + milliseconds(longest);
        while (true) {
            const Clock::time_point now = Clock::now();
            std::vector<pollfd> waiting = {{fd, POLLIN, 0}};
            for (const auto& client : mClients) {
                Keep(*client, now);
                waiting.push_back({mosquitto_socket(client->handle.get()), POLLIN, 0});
            }
            const auto left = std::chrono::ceil<milliseconds>(std::min(end, now + FIRST_PAUSE) - now);
            poll(waiting.data(), waiting.size(),
                 static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
            for (std::size_t number = 0; number < mClients.size(); ++number) {
                if (waiting[number + 1].revents != 0) {
                    mosquitto_loop_read(mClients[number]->handle.get(), 1);
                }
            }
            if (waiting[0].revents != 0 || Clock::now() >= end) {
                return waiting[0].revents != 0;
            }
        }
    }
    void Stall(bool /*isStalled*/) override {}

private:
    struct End {
        void operator()(mosquitto* client) const { mosquitto_destroy(client); }
    };
    struct Client {
        Topics* owner = nullptr;
        std::size_t number = 0;
        Clock::time_point due;
        std::unique_ptr<mosquitto, End> handle;
    };

    void Keep(Client& client, Clock::time_point now) const {
        mosquitto* const handle = client.handle.get();
        if (mosquitto_socket(handle) < 0 && client.due <= now) {
            client.due = now + FIRST_PAUSE;
            mosquitto_connect(handle, "127.0.0.1", mOptions.port, 120);
        }
        mosquitto_loop_misc(handle);
        if (mosquitto_want_write(handle)) {
            mosquitto_loop_write(handle, 1);
        }
    }

    static void OnConnect(mosquitto* handle, void* user, int /*result*/) {
        const auto* const client = static_cast<Client*>(user);
        const ReadersOptions& options = client->owner->mOptions;
        const std::string topic = "lumora/" + options.device + "/" + options.service;
        mosquitto_subscribe(handle, nullptr, topic.c_str(), 1);
        options.onConnected(client->number);
    }

    static void OnMessage(mosquitto* /*handle*/, void* user, const mosquitto_message* message,
                          const mosquitto_property* properties) {
        const auto* const client = static_cast<Client*>(user);
        const ReadersOptions& options = client->owner->mOptions;
        const std::string_view payload(static_cast<const char*>(message->payload),
                                       static_cast<std::size_t>(message->payloadlen));
        options.onBlock(
            {client->number, NumberOf(properties), 0, payload.size(), payload.substr(0, options.kept)});
    }

    const ReadersOptions mOptions;
    std::vector<std::unique_ptr<Client>> mClients;
};

#endif

}  // namespace

std::unique_ptr<HubReaders> HubReaders::Make(ReadersOptions options) {
    if (options.kind == "websocket" || options.kind == "events") {
        return std::make_unique<Streams>(std::move(options));
    }
#ifdef LUMORA_READERS_MQTT
    if (options.kind == "mqtt") {
        return std::make_unique<Topics>(std::move(options));
    }
#endif
    throw std::runtime_error("no consumers of the kind " + options.kind);
}

}  // namespace lumora_test
