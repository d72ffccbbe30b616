// A TCP peer that plays exact bytes.
#pragma once

#include <chrono>
#include <string>

namespace lumora_test {

using Bytes = std::string;

// One connection. Operations that cannot be carried out within seconds throw std::runtime_error.
class RawConnection {
public:
    RawConnection() = default;
    explicit RawConnection(int fd) : mFd(fd) {}
    ~RawConnection() { Close(); }
    RawConnection(RawConnection&& other) noexcept;
    RawConnection& operator=(RawConnection&& other) noexcept;

    // Connects to 127.0.0.1, and tries again until a listener is there.
    static RawConnection To(int port);

    void Send(const Bytes& bytes);
    // Sends in pieces of so many bytes, each in a packet of its own.
    void SendInPieces(const Bytes& bytes, size_t pieceLength);
    // Exactly so many bytes.
    Bytes Receive(size_t count);
    // What is there within the time, without waiting for more once something came. Empty when nothing.
    Bytes ReceiveSome(std::chrono::milliseconds limit = std::chrono::milliseconds(200));
    // Whether the other side has closed: waits for it.
    bool SeesEnd();
    void ShutdownSending();
    void Close();
    // Closes so that the other side gets a reset.
    void Reset();
    void SetReceiveBuffer(int bytes);
    int Fd() const { return mFd; }

private:
    int mFd = -1;
};

// Listens on 127.0.0.1.
class RawListener {
public:
    explicit RawListener(int port);  // 0: any free port
    ~RawListener();
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    int Port() const { return mPort; }
    RawConnection Accept();
    void Close();

private:
    int mFd = -1;
    int mPort = 0;
};

// A port without a listener at the moment.
int FreePort();

// Frames, written byte by byte and independently of the code under test.
Bytes LittleEndian32(unsigned int value);
Bytes ClientFrame(int clientID, const Bytes& payload);
Bytes ServerFrameBytes(const Bytes& clientIDs, const Bytes& serviceName, const Bytes& payload);

}  // namespace lumora_test
