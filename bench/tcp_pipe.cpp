// Plain sockets, as fast as simple code makes them: TCP_NODELAY, one blocking write per message, and a thread
// that waits in select and reads up to 1 MiB at a time. A whole frame is handed on without a copy.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "bench/pipe.h"
#ifdef LUMORA_BENCH_TLS
#include "bench/tls.h"
#endif

namespace lumora_bench {

namespace {

constexpr int PORT = 6700;
constexpr std::size_t HEAD = 6;
constexpr std::size_t LONGEST_MESSAGE = 5242880;
constexpr std::size_t READ_SIZE = 1048576;
// On some processors the kernel's copy takes twice as long if it does not begin at a cache line.
constexpr std::size_t ALIGNMENT = 64;

struct FreeDeleter {
    void operator()(char* memory) const { std::free(memory); }
};
using Buffer = std::unique_ptr<char[], FreeDeleter>;

// Untouched: a page counts as memory only once it is written to.
Buffer AllocateBuffer(std::size_t size) {
    return Buffer(static_cast<char*>(std::aligned_alloc(ALIGNMENT, size)));
}

sockaddr_in DeviceAddress(int port) {
    const char* host = std::getenv("LUMORA_BENCH_HOST");
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(host != nullptr ? host : "127.0.0.1");
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

class TcpPipe : public Pipe {
public:
    explicit TcpPipe(TcpKind kind) : mKind(kind) {}

    void Open(Role role, Flow flow, Handler handler) override {
        mHandler = std::move(handler);
        OpenSockets(role);
        const bool receives = flow == Flow::BOTH || (flow == Flow::UP) == (role == Role::DEVICE);
        if (receives && (mHandler || mKind != TcpKind::FRAMED_DIRECT)) {
            mThread = std::thread([this] {
                while (ReceiveSome()) {
                }
            });
        }
    }

    void Send(const char* data, std::size_t length) override {
        if (mKind == TcpKind::UNFRAMED) {
            WriteAll(data, length);
            return;
        }
        mOut[0] = static_cast<char>(HEAD);
        const auto count = static_cast<std::uint32_t>(length);
        std::memcpy(&mOut[1], &count, sizeof(count));
        mOut[5] = 1;
        std::memcpy(&mOut[HEAD], data, length);
        WriteAll(mOut.get(), length + HEAD);
    }

    void Exchange(const char* data, std::size_t length) override {
        mExchanging = true;
        Send(data, length);
        if (mThread.joinable()) {
            mAnswered.Wait();
            return;
        }
        for (const std::size_t before = mDelivered; mDelivered == before;) {
            if (!ReceiveSome()) {
                Fail("the peer has closed");
            }
        }
    }

    void Close() override {
        shutdown(mReceiveSocket, SHUT_RDWR);
        shutdown(mSendSocket, SHUT_RDWR);
        if (mThread.joinable()) {
            mThread.join();
        }
        close(mReceiveSocket);
        if (mSendSocket != mReceiveSocket) {
            close(mSendSocket);
        }
    }

private:
    void OpenSockets(Role role) {
        const bool isPair = mKind == TcpKind::FRAMED_PAIR || mKind == TcpKind::FRAMED_TLS;
        if (role == Role::DEVICE) {
            mReceiveSocket = Accept(PORT);
            mSendSocket = isPair ? Connect(PORT + 1) : mReceiveSocket;
        } else {
            mSendSocket = Connect(PORT);
            mReceiveSocket = isPair ? Accept(PORT + 1) : mSendSocket;
        }
        for (const int fd : {mSendSocket, mReceiveSocket}) {
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        }
#ifdef LUMORA_BENCH_TLS
        if (mKind == TcpKind::FRAMED_TLS) {
            ShakeHands(role);
        }
#endif
    }

#ifdef LUMORA_BENCH_TLS
    // Both sides in the same order: the connection from the client comes first.
    void ShakeHands(Role role) {
        if (role == Role::DEVICE) {
            mReceiveTls = std::make_unique<Tls>(mReceiveSocket, true);
            mSendTls = std::make_unique<Tls>(mSendSocket, false);
        } else {
            mSendTls = std::make_unique<Tls>(mSendSocket, false);
            mReceiveTls = std::make_unique<Tls>(mReceiveSocket, true);
        }
    }
#endif

    static int Accept(int port) {
        const int listening = socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address = DeviceAddress(port);
        address.sin_addr.s_addr = INADDR_ANY;
        if (bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listening, 1) != 0) {
            Fail("cannot listen");
        }
        const int accepted = accept(listening, nullptr, nullptr);
        close(listening);
        return accepted;
    }

    static int Connect(int port) {
        const sockaddr_in address = DeviceAddress(port);
        for (int i = 0; i < 5000; ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM, 0);
            if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                return fd;
            }
            close(fd);
            usleep(1000);
        }
        Fail("no peer listens");
    }

    void WriteAll(const char* data, std::size_t length) const {
#ifdef LUMORA_BENCH_TLS
        if (mSendTls) {
            mSendTls->Write(data, length);
            return;
        }
#endif
        while (length > 0) {
            const ssize_t count = send(mSendSocket, data, length, MSG_NOSIGNAL);
            if (count <= 0) {
                Fail("send failed");
            }
            data += count;
            length -= static_cast<std::size_t>(count);
        }
    }

    ssize_t Read(char* to) const {
#ifdef LUMORA_BENCH_TLS
        if (mReceiveTls) {  // it may hold bytes that select does not know of
            return mReceiveTls->Read(to, READ_SIZE);
        }
#endif
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(mReceiveSocket, &readable);
        if (select(mReceiveSocket + 1, &readable, nullptr, nullptr, nullptr) <= 0) {
            return 0;
        }
        return read(mReceiveSocket, to, READ_SIZE);
    }

    // False at the end of the stream.
    bool ReceiveSome() {
        const ssize_t count = Read(&mIn[mHeld]);
        if (count <= 0) {
            return false;
        }
        if (mKind == TcpKind::UNFRAMED) {
            Deliver(mIn.get(), static_cast<std::size_t>(count));
        } else {
            mHeld += static_cast<std::size_t>(count);
            CutFrames();
        }
        return true;
    }

    void CutFrames() {
        std::size_t position = 0;
        while (position + HEAD <= mHeld) {
            std::uint32_t payload = 0;
            std::memcpy(&payload, &mIn[position + 1], sizeof(payload));
            if (position + HEAD + payload > mHeld) {
                break;
            }
            Deliver(&mIn[position + HEAD], payload);
            position += HEAD + payload;
        }
        mHeld -= position;
        std::memmove(mIn.get(), &mIn[position], mHeld);
    }

    void Deliver(const char* data, std::size_t length) {
        ++mDelivered;
        if (mHandler) {
            mHandler(data, length);
        }
        if (mExchanging && mThread.joinable()) {
            mAnswered.Raise();
        }
    }

    const TcpKind mKind;
    Handler mHandler;
    int mSendSocket = -1;
    int mReceiveSocket = -1;
#ifdef LUMORA_BENCH_TLS
    std::unique_ptr<Tls> mSendTls;
    std::unique_ptr<Tls> mReceiveTls;
#endif
    std::thread mThread;
    Buffer mOut = AllocateBuffer(READ_SIZE + LONGEST_MESSAGE);
    Buffer mIn = AllocateBuffer(READ_SIZE + LONGEST_MESSAGE + READ_SIZE);
    std::size_t mHeld = 0;
    std::size_t mDelivered = 0;
    Signal mAnswered;
    std::atomic<bool> mExchanging{false};
};

}  // namespace

std::unique_ptr<Pipe> MakeTcpPipe(TcpKind kind) { return std::make_unique<TcpPipe>(kind); }

}  // namespace lumora_bench
