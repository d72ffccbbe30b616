#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "bench/pipe.h"

namespace lumora_bench {

namespace {

std::string Endpoint(bool bound) {
    const char* host = std::getenv("LUMORA_BENCH_HOST");
    return std::string("tcp://") + (bound ? "*" : host != nullptr ? host : "127.0.0.1") + ":6701";
}

class ZmqPipe : public Pipe {
public:
    explicit ZmqPipe(ZmqKind kind) : mKind(kind) {}

    void Open(Role role, Flow flow, Handler handler) override {
        const bool receives = flow == Flow::BOTH || (flow == Flow::UP) == (role == Role::DEVICE);
        mHandler = std::move(handler);
        mContext = zmq_ctx_new();
        const int oneWay = receives ? ZMQ_PULL : ZMQ_PUSH;
        mSocket = zmq_socket(mContext, mKind == ZmqKind::PUSH_PULL ? oneWay : ZMQ_PAIR);
        if (mKind == ZmqKind::CURVE) {
            UseKeys(role);
        }
        const int ret = role == Role::DEVICE ? zmq_bind(mSocket, Endpoint(true).c_str())
                                             : zmq_connect(mSocket, Endpoint(false).c_str());
        if (ret != 0) {
            Fail(std::string("zmq: ") + zmq_strerror(errno));
        }
        if (receives && mHandler) {
            mThread = std::thread([this] { ReceiveAll(); });
        }
    }

    void Send(const char* data, std::size_t length) override {
        if (zmq_send(mSocket, data, length, 0) < 0) {
            Fail(std::string("zmq send: ") + zmq_strerror(errno));
        }
    }

    void Exchange(const char* data, std::size_t length) override {
        Send(data, length);
        zmq_msg_t message;
        zmq_msg_init(&message);
        if (zmq_msg_recv(&message, mSocket, 0) < 0) {
            Fail(std::string("zmq receive: ") + zmq_strerror(errno));
        }
        zmq_msg_close(&message);
    }

    void Close() override {
        mClosing = true;
        if (mThread.joinable()) {
            mThread.join();
        }
        zmq_close(mSocket);
        zmq_ctx_term(mContext);
    }

private:
    using Key = char[41];  // with its NUL, in the library's own text form

    // Both sides know the device's key pair, which is always the same one: the figures are of the stream.
    void UseKeys(Role role) {
        const std::uint8_t bytes[32] = {1};
        Key devicePublic;
        Key deviceSecret;
        Key ownPublic;
        Key ownSecret;
        zmq_z85_encode(deviceSecret, bytes, sizeof(bytes));
        zmq_curve_public(devicePublic, deviceSecret);
        if (role == Role::DEVICE) {
            const int on = 1;
            Set(ZMQ_CURVE_SERVER, &on, sizeof(on));
            Set(ZMQ_CURVE_SECRETKEY, deviceSecret, sizeof(Key));
            return;
        }
        zmq_curve_keypair(ownPublic, ownSecret);
        Set(ZMQ_CURVE_SERVERKEY, devicePublic, sizeof(Key));
        Set(ZMQ_CURVE_PUBLICKEY, ownPublic, sizeof(Key));
        Set(ZMQ_CURVE_SECRETKEY, ownSecret, sizeof(Key));
    }

    void Set(int option, const void* value, std::size_t length) {
        if (zmq_setsockopt(mSocket, option, value, length) != 0) {
            Fail(std::string("zmq curve: ") + zmq_strerror(errno));
        }
    }

    void ReceiveAll() {
        const int limitMs = 100;
        zmq_setsockopt(mSocket, ZMQ_RCVTIMEO, &limitMs, sizeof(limitMs));
        while (!mClosing) {
            zmq_msg_t message;
            zmq_msg_init(&message);
            if (zmq_msg_recv(&message, mSocket, 0) >= 0) {
                mHandler(static_cast<const char*>(zmq_msg_data(&message)), zmq_msg_size(&message));
            }
            zmq_msg_close(&message);
        }
    }

    const ZmqKind mKind;
    Handler mHandler;
    void* mContext = nullptr;
    void* mSocket = nullptr;
    std::thread mThread;
    std::atomic<bool> mClosing{false};
};

}  // namespace

std::unique_ptr<Pipe> MakeZmqPipe(ZmqKind kind) { return std::make_unique<ZmqPipe>(kind); }

}  // namespace lumora_bench
