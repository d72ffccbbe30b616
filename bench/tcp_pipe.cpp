// Hand-made sockets: one connection, blocking writes of whole frames, a thread that waits in select and reads
// as much as 1 MiB at a time.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "bench/pipe.h"

namespace lumora_bench {

namespace {

constexpr int PORT = 6700;
constexpr std::size_t HEAD = 6;
constexpr std::size_t READ_SIZE = 1048576;

sockaddr_in Loopback() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(
        std::getenv("LUMORA_BENCH_HOST") != nullptr ? std::getenv("LUMORA_BENCH_HOST") : "127.0.0.1");
    address.sin_port = htons(PORT);
    return address;
}

class TcpPipe : public Pipe {
public:
    explicit TcpPipe(bool framed) : mFramed(framed) {}

    void Open(Role role, Flow flow, Handler handler) override {
        mHandler = std::move(handler);
        mSocket = role == Role::DEVICE ? Accept() : Connect();
        const int on = 1;
        setsockopt(mSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        mReceives = flow == Flow::BOTH || (flow == Flow::UP) == (role == Role::DEVICE);
        if (mReceives) {
            mThread = std::thread([this] { mFramed ? ReceiveFrames() : ReceiveBytes(); });
        }
    }

    void Send(const char* data, std::size_t length) override {
        if (!mFramed) {
            WriteAll(data, length);
            return;
        }
        // As Lumora does it: one buffer, one write.
        const std::unique_ptr<char[]> frame(new char[length + HEAD]);
        frame[0] = static_cast<char>(HEAD);
        const auto count = static_cast<std::uint32_t>(length);
        std::memcpy(&frame[1], &count, sizeof(count));
        frame[5] = 1;
        std::memcpy(&frame[HEAD], data, length);
        WriteAll(frame.get(), length + HEAD);
    }

    void Exchange(const char* data, std::size_t length) override {
        mExchanging = true;
        Send(data, length);
        mAnswered.Wait();
    }

    void Close() override {
        shutdown(mSocket, SHUT_RDWR);
        if (mThread.joinable()) {
            mThread.join();
        }
        close(mSocket);
    }

private:
    static int Accept() {
        const int listening = socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address = Loopback();
        address.sin_addr.s_addr = INADDR_ANY;
        if (bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listening, 1) != 0) {
            Fail("cannot listen");
        }
        const int accepted = accept(listening, nullptr, nullptr);
        close(listening);
        return accepted;
    }

    static int Connect() {
        const sockaddr_in address = Loopback();
        for (int i = 0; i < 5000; ++i) {
            const int fd = socket(AF_INET, SOCK_STREAM, 0);
            if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                return fd;
            }
            close(fd);
            usleep(1000);
        }
        Fail("nobody listens");
    }

    void WriteAll(const char* data, std::size_t length) const {
        while (length > 0) {
            const ssize_t count = send(mSocket, data, length, MSG_NOSIGNAL);
            if (count <= 0) {
                Fail("send failed");
            }
            data += count;
            length -= static_cast<std::size_t>(count);
        }
    }

    ssize_t Read(char* to, std::size_t size) const {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(mSocket, &readable);
        if (select(mSocket + 1, &readable, nullptr, nullptr, nullptr) <= 0) {
            return 0;
        }
        return read(mSocket, to, size);
    }

    bool Deliver(const char* data, std::size_t length) {
        const bool more = !mHandler || mHandler(data, length);
        if (mExchanging) {
            mAnswered.Raise();
        }
        return more;
    }

    void ReceiveFrames() {
        std::vector<char> buffer(6 * 1048576 + READ_SIZE);
        std::size_t held = 0;
        while (true) {
            const ssize_t count = Read(buffer.data() + held, READ_SIZE);
            if (count <= 0) {
                return;
            }
            held += static_cast<std::size_t>(count);
            std::size_t position = 0;
            std::uint32_t payload = 0;
            while (position + HEAD <= held) {
                std::memcpy(&payload, &buffer[position + 1], sizeof(payload));
                if (position + HEAD + payload > held) {
                    break;
                }
                Deliver(&buffer[position + HEAD], payload);
                position += HEAD + payload;
            }
            held -= position;
            std::memmove(buffer.data(), buffer.data() + position, held);
        }
    }

    // Everything that arrives counts as it comes; the last byte of the last message says that it is the last.
    void ReceiveBytes() {
        std::vector<char> buffer(READ_SIZE);
        while (true) {
            const ssize_t count = Read(buffer.data(), buffer.size());
            if (count <= 0) {
                return;
            }
            Deliver(buffer.data(), static_cast<std::size_t>(count));
        }
    }

    const bool mFramed;
    Handler mHandler;
    int mSocket = -1;
    bool mReceives = false;
    std::thread mThread;
    Signal mAnswered;
    bool mExchanging = false;
};

}  // namespace

std::unique_ptr<Pipe> MakeFramedTcpPipe() { return std::make_unique<TcpPipe>(true); }
std::unique_ptr<Pipe> MakeUnframedTcpPipe() { return std::make_unique<TcpPipe>(false); }

}  // namespace lumora_bench
