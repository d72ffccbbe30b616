#include <mosquitto.h>

#include <cstdlib>
#include <string>

#include "bench/pipe.h"

namespace lumora_bench {

namespace {

constexpr int PORT = 6703;
constexpr int TLS_PORT = 6704;
constexpr int KEEPALIVE_S = 60;
// Each block is acknowledged by the broker. Lumora's are not lost either.
constexpr int QOS = 1;
// The library takes any number of blocks. Waiting here bounds its memory as the sockets of others do.
constexpr int MOST_UNDER_WAY = 64;

void Check(int result, const char* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        Fail(std::string("mqtt ") + what + ": " + mosquitto_strerror(result));
    }
}

// Both sides are clients of a broker, which bench/compare starts. Its processor time is not counted.
class MqttPipe : public Pipe {
public:
    explicit MqttPipe(bool tls) : mTls(tls) {}

    void Open(Role role, Flow flow, Handler handler) override {
        const bool device = role == Role::DEVICE;
        const bool receives = flow == Flow::BOTH || (flow == Flow::UP) == device;
        const char* host = std::getenv("LUMORA_BENCH_HOST");
        mHandler = std::move(handler);
        mSendsTo = device ? "bench/down" : "bench/up";
        mosquitto_lib_init();
        mClient = mosquitto_new(nullptr, true, this);
        mosquitto_int_option(mClient, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_message_callback_set(mClient, OnMessage);
        mosquitto_publish_callback_set(mClient, OnPublished);
        mosquitto_subscribe_callback_set(mClient, OnSubscribed);
        if (mTls) {
            const char* certificate = std::getenv("LUMORA_BENCH_CERTIFICATE");
            Check(mosquitto_tls_set(mClient, certificate, nullptr, nullptr, nullptr, nullptr), "certificate");
            Check(mosquitto_tls_insecure_set(mClient, true), "host name");
        }
        Check(mosquitto_connect(mClient, host != nullptr ? host : "127.0.0.1", mTls ? TLS_PORT : PORT,
                                KEEPALIVE_S),
              "connect");
        Check(mosquitto_loop_start(mClient), "start");
        for (int room = 0; room < MOST_UNDER_WAY; ++room) {
            mRoom.Raise();
        }
        if (receives) {
            Check(mosquitto_subscribe(mClient, nullptr, device ? "bench/up" : "bench/down", QOS),
                  "subscribe");
            mSubscribed.Wait();
        }
        Meet(device);
    }

    void Send(const char* data, std::size_t length) override {
        mRoom.Wait();
        const int count = static_cast<int>(length);
        Check(mosquitto_publish(mClient, nullptr, mSendsTo, count, data, QOS, false), "publish");
    }

    void Exchange(const char* data, std::size_t length) override {
        mExchanging = true;
        Send(data, length);
        mAnswered.Wait();
    }

    void Close() override {
        mosquitto_disconnect(mClient);
        mosquitto_loop_stop(mClient, false);
        mosquitto_destroy(mClient);
    }

private:
    // The broker drops what no client has subscribed to yet. So each side leaves a retained word when it has.
    void Meet(bool device) {
        Check(mosquitto_subscribe(mClient, nullptr, device ? "bench/client" : "bench/device", QOS),
              "subscribe");
        mSubscribed.Wait();
        mRoom.Wait();
        Check(
            mosquitto_publish(mClient, nullptr, device ? "bench/device" : "bench/client", 1, "x", QOS, true),
            "publish");
        mMet.Wait();
    }

    static void OnMessage(mosquitto*, void* self, const mosquitto_message* message) {
        auto& pipe = *static_cast<MqttPipe*>(self);
        const std::string topic = message->topic;
        if (topic == "bench/client" || topic == "bench/device") {
            if (message->payloadlen > 0) {
                pipe.mMet.Raise();
            }
            return;
        }
        if (pipe.mHandler) {
            pipe.mHandler(static_cast<const char*>(message->payload),
                          static_cast<std::size_t>(message->payloadlen));
        }
        if (pipe.mExchanging) {
            pipe.mAnswered.Raise();
        }
    }
    static void OnPublished(mosquitto*, void* self, int) { static_cast<MqttPipe*>(self)->mRoom.Raise(); }
    static void OnSubscribed(mosquitto*, void* self, int, int, const int*) {
        static_cast<MqttPipe*>(self)->mSubscribed.Raise();
    }

    const bool mTls;
    Handler mHandler;
    mosquitto* mClient = nullptr;
    const char* mSendsTo = nullptr;
    Signal mRoom;
    Signal mSubscribed;
    Signal mMet;
    Signal mAnswered;
    bool mExchanging = false;
};

}  // namespace

std::unique_ptr<Pipe> MakeMqttPipe(bool tls) { return std::make_unique<MqttPipe>(tls); }

}  // namespace lumora_bench
