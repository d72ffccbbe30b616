// Datagrams at the sockets of libcoap: what it makes of them, and what our side of it hands on and answers.
// Both codecs must agree. Everything stays between three sockets on 127.0.0.1.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/link/io/coap_port.h"
#include "platform/link/io/port_guard.h"
#include "platform/link/wire/byte_reader.h"
#include "platform/link/wire/messages.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/node_script.h"
#include "tests/fuzz/require.h"

using lumora_fuzz::Record;
using lumora_fuzz::Require;
using namespace lumora_link;

namespace {

constexpr ConversationId CONVERSATION = 1;
constexpr std::uint16_t HOP_LIMIT = 16;  // libcoap counts it down, as a proxy would

sockaddr_in AddressOf(std::uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

std::size_t ReadSize(ByteReader& reader, std::size_t bytes) {
    return static_cast<std::size_t>(reader.Number(bytes));
}

std::size_t DeltaOrLength(ByteReader& reader, std::size_t nibble) {
    return nibble == 13 ? ReadSize(reader, 1) + 13 : nibble == 14 ? ReadSize(reader, 2) + 269 : nibble;
}

// Where libcoap begins again at 0, which no other reader does.
bool HasOptionBeyondTheLastNumber(std::string_view bytes) {
    ByteReader reader(bytes);
    const std::size_t tokenBytes = ReadSize(reader, 1) & 0xf;
    reader.Bytes(3 + tokenBytes);
    std::size_t number = 0;
    while (!reader.AtEnd() && number <= UINT16_MAX) {
        const std::size_t head = ReadSize(reader, 1);
        number += DeltaOrLength(reader, head >> 4);
        reader.Bytes(DeltaOrLength(reader, head & 0xf));
    }
    return number > UINT16_MAX;
}

// The other end.
class Peer {
public:
    Peer() : mGuard(ReservePort(0)), mSocket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        const sockaddr_in own = AddressOf(mGuard.port);
        const int on = 1;
        setsockopt(mSocket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        Require(bind(mSocket.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0,
                "a port is free");
    }

    Endpoint At() const { return {htonl(INADDR_LOOPBACK), mGuard.port}; }
    void Send(const std::string& bytes, std::uint16_t to) {
        const sockaddr_in address = AddressOf(to);
        sendto(mSocket.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
               sizeof address);
    }
    // Reads what has come; the port that it came from stays for answers.
    std::optional<std::string> Receive() {
        std::array<char, 4096> buffer;
        sockaddr_in source = {};
        socklen_t size = sizeof source;
        const ssize_t count = recvfrom(mSocket.Get(), buffer.data(), buffer.size(), 0,
                                       reinterpret_cast<sockaddr*>(&source), &size);
        if (count < 0) {
            return std::nullopt;
        }
        mSource = ntohs(source.sin_port);
        return std::string(buffer.data(), static_cast<std::size_t>(count));
    }
    std::uint16_t Source() const { return mSource; }

private:
    PortGuard mGuard;
    lumora::UniqueFd mSocket;
    std::uint16_t mSource = 0;
};

class FuzzedPort {
public:
    FuzzedPort()
        : mPort({[this](const CoapMessage& message, const Endpoint& source, in_addr_t, ReplyPath path,
                        const std::string&) {
                     Require(source == mPeer.At(), "the source is the peer");
                     RequireAgreement(message);
                     Answer(message, path);
                 },
                 [this](ConversationId conversation, const CoapMessage& message) {
                     Require(conversation == CONVERSATION, "the conversation is the one that was begun");
                     RequireAgreement(message);
                 },
                 [](ConversationId) {}, [](ConversationId, std::uint16_t) {}, [](ConversationId) {}}) {
        Require(mPort.Open(std::nullopt) && mPort.Listen({htonl(INADDR_LOOPBACK), mGuard.port}),
                "it listens");
        CoapMessage ping = MakePing();
        ping.token = "12345678";
        mPort.Transmit(CONVERSATION, mPeer.At(), ping);
        Require(mPeer.Receive().has_value(), "the conversation has begun");
        mConversationPort = mPeer.Source();
        mToken = ping.token;
    }
    FuzzedPort(const FuzzedPort&) = delete;
    FuzzedPort& operator=(const FuzzedPort&) = delete;

    void Play(const Record& record) {
        const bool answer = record.kind % lumora_fuzz::NODE_STEPS == lumora_fuzz::CONVERSATION_DATAGRAM;
        const std::string bytes = record.bytes.substr(record.bytes.empty() ? 0 : 1);
        const unsigned char choice =
            record.bytes.empty() ? '\0' : static_cast<unsigned char>(record.bytes[0]);
        mSent = bytes;
        auto message = ParseMessage(bytes);
        if (message && (choice & lumora_fuzz::AS_ANSWER) != 0) {
            message->token = mToken;
            mSent = SerializeMessage(*message);
        }
        mPeer.Send(mSent, answer ? mConversationPort : mGuard.port);
        mPort.Process();
        mPort.Settle();
        while (const auto reply = mPeer.Receive()) {
            Require(ParseMessage(*reply).has_value(), "what is answered can be read");
        }
    }

private:
    void RequireAgreement(const CoapMessage& message) const {
        const auto own = ParseMessage(mSent);
        if (!own && HasOptionBeyondTheLastNumber(mSent)) {
            return;
        }
        Require(own.has_value(), "what libcoap reads we can read");
        Require(own->code == message.code && own->messageId == message.messageId &&
                    own->token == message.token && OptionsOf(*own) == OptionsOf(message) &&
                    own->payload == message.payload,
                "and it is the same");
    }

    static std::vector<CoapOption> OptionsOf(const CoapMessage& message) {
        std::vector<CoapOption> options = message.options;
        const auto hops = [](const CoapOption& option) { return option.number == HOP_LIMIT; };
        options.erase(std::remove_if(options.begin(), options.end(), hops), options.end());
        return options;
    }

    void Answer(const CoapMessage& request, ReplyPath path) {
        CoapMessage reply = MakeLinkAnswer(request, request.payload.substr(0, 100));
        mPort.Reply(path, reply);
        mPort.Forget(path);
    }

    PortGuard mGuard = ReservePort(0);
    Peer mPeer;
    std::string mSent;
    std::string mToken;
    std::uint16_t mConversationPort = 0;
    CoapPort mPort;
};

std::string MutateStep(const std::string& bytes, lumora_fuzz::Dice& dice) {
    if (bytes.empty() || dice.OneIn(8)) {
        return lumora_fuzz::MutateBytes(bytes, dice);
    }
    return bytes.substr(0, 1) + lumora_fuzz::MutateDatagram(bytes.substr(1), dice);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedPort port;
    for (const Record& record : lumora_fuzz::ReadScript(data, size)) {
        port.Play(record);
    }
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, lumora_fuzz::NODE_STEPS, MutateStep);
}
