#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>

#include <atomic>
#include <thread>

#include "bench/pipe.h"

namespace lumora_bench {

namespace {

std::string Endpoint(bool bound) {
    const char* host = std::getenv("LUMORA_BENCH_HOST");
    return std::string("tcp://") + (bound ? "0.0.0.0" : host != nullptr ? host : "127.0.0.1") + ":6702";
}

void Check(int result, const char* what) {
    if (result != 0) {
        Fail(std::string("nng ") + what + ": " + nng_strerror(result));
    }
}

class NngPipe : public Pipe {
public:
    explicit NngPipe(bool pair) : mPair(pair) {}

    void Open(Role role, Flow flow, Handler handler) override {
        const bool receives = flow == Flow::BOTH || (flow == Flow::UP) == (role == Role::DEVICE);
        mHandler = std::move(handler);
        Check(mPair      ? nng_pair0_open(&mSocket)
              : receives ? nng_pull0_open(&mSocket)
                         : nng_push0_open(&mSocket),
              "open");
        nng_setopt_size(mSocket, NNG_OPT_RECVMAXSZ, 0);
        Check(role == Role::DEVICE ? nng_listen(mSocket, Endpoint(true).c_str(), nullptr, 0)
                                   : nng_dial(mSocket, Endpoint(false).c_str(), nullptr, NNG_FLAG_NONBLOCK),
              "connect");
        if (receives && mHandler) {
            mThread = std::thread([this] { ReceiveAll(); });
        }
    }

    void Send(const char* data, std::size_t length) override {
        // The interface takes a writable pointer, but only reads.
        Check(nng_send(mSocket, const_cast<char*>(data), length, 0), "send");
    }

    void Exchange(const char* data, std::size_t length) override {
        Send(data, length);
        nng_msg* message = nullptr;
        Check(nng_recvmsg(mSocket, &message, 0), "receive");
        nng_msg_free(message);
    }

    void Close() override {
        mClosing = true;
        if (mThread.joinable()) {
            mThread.join();
        }
        nng_close(mSocket);
    }

private:
    void ReceiveAll() {
        nng_setopt_ms(mSocket, NNG_OPT_RECVTIMEO, 100);
        while (!mClosing) {
            nng_msg* message = nullptr;
            if (nng_recvmsg(mSocket, &message, 0) == 0) {
                mHandler(static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message));
                nng_msg_free(message);
            }
        }
    }

    const bool mPair;
    Handler mHandler;
    nng_socket mSocket = NNG_SOCKET_INITIALIZER;
    std::thread mThread;
    std::atomic<bool> mClosing{false};
};

}  // namespace

std::unique_ptr<Pipe> MakeNngPipe(bool pair) { return std::make_unique<NngPipe>(pair); }

}  // namespace lumora_bench
