#include <zmq.h>

#include <atomic>
#include <cerrno>
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
    explicit ZmqPipe(bool pair) : mPair(pair) {}

    void Open(Role role, Flow flow, Handler handler) override {
        const bool receives = flow == Flow::BOTH || (flow == Flow::UP) == (role == Role::DEVICE);
        mHandler = std::move(handler);
        mContext = zmq_ctx_new();
        mSocket = zmq_socket(mContext, mPair ? ZMQ_PAIR : receives ? ZMQ_PULL : ZMQ_PUSH);
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

    const bool mPair;
    Handler mHandler;
    void* mContext = nullptr;
    void* mSocket = nullptr;
    std::thread mThread;
    std::atomic<bool> mClosing{false};
};

}  // namespace

std::unique_ptr<Pipe> MakeZmqPipe(bool pair) { return std::make_unique<ZmqPipe>(pair); }

}  // namespace lumora_bench
