#include "tests/support/fake_security.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tests/support/system_faults.h"

// One of each side's: they are made by the library only.
struct LinkChannel {
    int number = 0;  // of the offer, then of offer and answer
};

struct LinkConnection {
    int number = 0;
    int socket = 0;
    bool accepts = false;
    bool hasGreeted = false;
    std::string in;
    std::string out;
    unsigned int taken = 0;  // bytes of the caller that are in out
};

namespace lumora_test {

namespace {

FakeSecurity* current = nullptr;
std::atomic<int> lastNumber{0};

constexpr unsigned int PIECE = 16384;
constexpr std::size_t PIECE_HEAD = 4;
constexpr std::size_t GREETING = 8;

void Scramble(std::string& bytes) {
    for (char& byte : bytes) {
        byte = static_cast<char>(byte ^ 0x5A);
    }
}

std::string PieceHead(std::size_t length) {
    std::string head(PIECE_HEAD, 'P');
    head[1] = static_cast<char>(length & 0xFF);
    head[2] = static_cast<char>(length >> 8 & 0xFF);
    return head;
}

std::size_t PieceLength(const std::string& head) {
    return static_cast<unsigned char>(head[1]) | static_cast<std::size_t>(static_cast<unsigned char>(head[2]))
                                                     << 8;
}

std::string Greeting(const LinkConnection& connection) {
    std::string text = "H" + std::to_string(connection.number);
    text.resize(GREETING, '.');
    return text;
}

// 1 when all is out.
int Flush(LinkConnection& connection) {
    while (!connection.out.empty()) {
        const SystemFaultsPaused paused;
        const ssize_t count = send(connection.socket, connection.out.data(), connection.out.size(),
                                   MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0) {
            return errno == EAGAIN ? LINK_WANTS_WRITE : LINK_FAILED;
        }
        connection.out.erase(0, static_cast<std::size_t>(count));
    }
    return 1;
}

// 1 if something came.
int Fill(LinkConnection& connection) {
    char bytes[PIECE + PIECE_HEAD];
    const ssize_t count = recv(connection.socket, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count <= 0) {
        return count < 0 && errno == EAGAIN ? LINK_WANTS_READ : LINK_FAILED;
    }
    connection.in.append(bytes, static_cast<std::size_t>(count));
    return 1;
}

int Greet(LinkConnection& connection) {
    if (!connection.hasGreeted) {
        connection.out += Greeting(connection);
        connection.hasGreeted = true;
    }
    return Flush(connection);
}

int TakeGreeting(LinkConnection& connection) {
    while (connection.in.size() < GREETING) {
        const int filled = Fill(connection);
        if (filled != 1) {
            return filled;
        }
    }
    const bool isGood = connection.in.compare(0, GREETING, Greeting(connection)) == 0;
    connection.in.erase(0, GREETING);
    return isGood ? 1 : LINK_FAILED;
}

bool HasPiece(const LinkConnection& connection) {
    return connection.in.size() >= PIECE_HEAD &&
           connection.in.size() >= PIECE_HEAD + PieceLength(connection.in);
}

LinkChannel* NewChannel(int number, const std::string& text, char* out, unsigned int size) {
    if (!current->makesChannels || text.size() >= size) {
        return nullptr;
    }
    std::memcpy(out, text.c_str(), text.size() + 1);
    ++current->liveChannels;
    auto channel = std::make_unique<LinkChannel>();
    channel->number = number;
    return channel.release();
}

int NumberIn(const char* text) {
    int number = 0;
    return std::sscanf(text, "{\"number\":%d}", &number) == 1 ? number : 0;
}

std::string TextOf(int number) { return "{\"number\":" + std::to_string(number) + "}"; }

int FakeGetRequester(LinkRequester* requester) {
    if (current->requesterNode == 0) {
        return 0;
    }
    *requester = {};
    std::strcpy(requester->identity, "key-of-the-owner");
    requester->node[15] = current->requesterNode;
    return 1;
}

LinkChannelMode FakeGetChannelMode() { return current->mode; }

LinkChannel* FakeOfferChannel(char* text, unsigned int size) {
    const int number = ++lastNumber;
    return NewChannel(number, TextOf(number), text, size);
}

LinkChannel* FakeAnswerChannel(const char* offer, char* text, unsigned int size) {
    const int number = ++lastNumber;
    return NumberIn(offer) != 0 ? NewChannel(NumberIn(offer) * 1000 + number, TextOf(number), text, size)
                                : nullptr;
}

int FakeCompleteChannel(LinkChannel* channel, const char* answer, const char* address, int port) {
    current->completedWith = std::string(answer) + " from " + address + ":" + std::to_string(port);
    channel->number = channel->number * 1000 + NumberIn(answer);
    return current->completes && NumberIn(answer) != 0 ? 1 : 0;
}

void FakeFreeChannel(LinkChannel* channel) {
    if (channel != nullptr) {
        --current->liveChannels;
    }
    std::unique_ptr<LinkChannel>{channel}.reset();
}

LinkConnection* FakeOpenConnection(LinkChannel* channel, LinkDirection direction, int accepts, int socket) {
    if (!current->opensConnections) {
        return nullptr;
    }
    auto connection = std::make_unique<LinkConnection>();
    connection->number = channel->number * 2 + direction;
    connection->socket = socket;
    connection->accepts = accepts != 0;
    ++current->liveConnections;
    return connection.release();
}

int FakeHandshake(LinkConnection* connection) {
    if (!connection->accepts) {
        const int greeted = Greet(*connection);
        return greeted == 1 ? TakeGreeting(*connection) : greeted;
    }
    const int taken = connection->hasGreeted ? 1 : TakeGreeting(*connection);
    return taken == 1 ? Greet(*connection) : taken;
}

int FakeRead(LinkConnection* connection, void* bytes, unsigned int size) {
    if (current->readsFail) {
        return LINK_FAILED;
    }
    if (current->readsThatWantToWrite.load() > 0) {
        --current->readsThatWantToWrite;
        return LINK_WANTS_WRITE;
    }
    if (!HasPiece(*connection)) {
        const int filled = Fill(*connection);
        if (filled != 1) {
            return filled;
        }
        if (!HasPiece(*connection)) {
            return LINK_WANTS_READ;
        }
    }
    const std::size_t length = PieceLength(connection->in);
    if (length == 0) {
        return 0;
    }
    const std::size_t taken = std::min<std::size_t>(length, size);
    std::string piece = connection->in.substr(PIECE_HEAD, taken);
    Scramble(piece);
    std::memcpy(bytes, piece.data(), taken);
    connection->in.erase(0, PIECE_HEAD + taken);
    if (taken < length) {
        connection->in.insert(0, PieceHead(length - taken));
    }
    return static_cast<int>(taken);
}

int FakeWrite(LinkConnection* connection, const void* bytes, unsigned int size) {
    if (current->writesThatWantToRead.load() > 0) {
        --current->writesThatWantToRead;
        return LINK_WANTS_READ;
    }
    if (connection->out.empty()) {
        connection->taken = std::min(size, PIECE);
        connection->out = Scrambled(std::string(static_cast<const char*>(bytes), connection->taken));
    }
    const int flushed = Flush(*connection);
    return flushed == 1 ? static_cast<int>(connection->taken) : flushed;
}

int FakeHasPending(LinkConnection* connection) { return HasPiece(*connection) ? 1 : 0; }

void FakeShutdown(LinkConnection* connection) {
    ++current->shutdowns;
    connection->out += PieceHead(0);
    Flush(*connection);
}

void FakeFreeConnection(LinkConnection* connection) {
    if (connection != nullptr) {
        --current->liveConnections;
    }
    std::unique_ptr<LinkConnection>{connection}.reset();
}

int FakeGetChannelPeer(int, LinkRequester*) { return 0; }

}  // namespace

FakeSecurity::FakeSecurity()
    : table{sizeof(LinkSecurity),
            FakeGetRequester,
            FakeGetChannelMode,
            FakeOfferChannel,
            FakeAnswerChannel,
            FakeCompleteChannel,
            FakeFreeChannel,
            FakeOpenConnection,
            FakeHandshake,
            FakeRead,
            FakeWrite,
            FakeHasPending,
            FakeShutdown,
            FakeFreeConnection,
            FakeGetChannelPeer} {
    current = this;
}

FakeSecurity::~FakeSecurity() { current = nullptr; }

std::string Scrambled(const std::string& bytes) {
    std::string scrambled = bytes;
    Scramble(scrambled);
    return PieceHead(bytes.size()) + scrambled;
}

}  // namespace lumora_test

extern "C" const LinkSecurity* GetLinkSecurity() {
    return lumora_test::current != nullptr ? &lumora_test::current->table : nullptr;
}
