// What libcoap tells of its messages, against a peer that sends exact bytes.
#include "platform/link/io/coap_port.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

#include "base/unique_fd.h"
#include "platform/link/wire/messages.h"

namespace lumora_link::test {

namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

struct CoapPortTest : testing::Test {
    CoapPortTest() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(peer.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(getsockname(peer.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        to = {address.sin_addr.s_addr, ntohs(address.sin_port)};
        EXPECT_TRUE(port.Open(std::nullopt));
    }

    static CoapMessage Request(std::uint16_t messageId) {
        CoapMessage request;
        request.type = MessageType::Confirmable;
        request.code = code::POST;
        request.messageId = messageId;
        request.token = "token" + std::to_string(messageId);
        AddKey(request, "key");
        request.Add(option::REQUESTER, EncodeRequester({{1, 2}, 3, 4, 4, 4, 5}));
        return request;
    }

    // The peer's answer to each datagram that comes is what `reply` makes of it.
    template <typename Condition, typename Reply>
    bool RunUntil(const Condition& condition, const Reply& reply) {
        const TimePoint end = Clock::now() + seconds(10);
        while (!condition() && Clock::now() < end) {
            pollfd waits[] = {{port.Descriptor(), POLLIN, 0}, {peer.Get(), POLLIN, 0}};
            poll(waits, 2, 100);
            port.Process();
            port.Settle();
            ReplyToAll(reply);
        }
        return condition();
    }
    template <typename Reply>
    void ReplyToAll(const Reply& reply) {
        char buffer[2000];
        sockaddr_in source = {};
        socklen_t length = sizeof source;
        auto* address = reinterpret_cast<sockaddr*>(&source);
        for (;;) {
            const ssize_t bytes = recvfrom(peer.Get(), buffer, sizeof buffer, 0, address, &length);
            if (bytes < 0) {
                return;
            }
            const std::optional<CoapMessage> answer =
                reply(*ParseMessage({buffer, static_cast<std::size_t>(bytes)}));
            if (answer) {
                const std::string text = SerializeMessage(*answer);
                sendto(peer.Get(), text.data(), text.size(), 0, address, length);
            }
        }
    }

    lumora::UniqueFd peer{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    Endpoint to;
    std::vector<CoapMessage> answers;
    std::vector<ConversationId> refused;
    std::vector<std::pair<ConversationId, std::uint16_t>> unacknowledged;
    CoapPort port{{[](const CoapMessage&, const Endpoint&, in_addr_t, ReplyPath, const std::string&) {},
                   [this](ConversationId, const CoapMessage& answer) { answers.push_back(answer); },
                   [this](ConversationId conversation) { refused.push_back(conversation); },
                   [this](ConversationId conversation, std::uint16_t messageId) {
                       unacknowledged.emplace_back(conversation, messageId);
                   },
                   [](ConversationId) {}}};
};

}  // namespace

TEST_F(CoapPortTest, ARequestIsToldOfThatNoCopyAcknowledgedAndOnlyThat) {
    constexpr ConversationId SILENT = 1;
    constexpr ConversationId ACKNOWLEDGED = 2;
    CoapMessage ping = MakePing();
    ping.messageId = 99;
    ping.token = "ping";
    const TimePoint start = Clock::now();
    for (const ConversationId conversation : {SILENT, ACKNOWLEDGED}) {
        // Two copies; the acknowledgement of one is lost.
        port.Transmit(conversation, to, Request(static_cast<std::uint16_t>(conversation)));
        port.Transmit(conversation, to, Request(static_cast<std::uint16_t>(conversation)));
        port.Transmit(conversation, to, ping);
    }
    bool lost = false;
    const auto reply = [&](const CoapMessage& message) -> std::optional<CoapMessage> {
        if (message.messageId != ACKNOWLEDGED || !std::exchange(lost, true)) {
            return std::nullopt;
        }
        CoapMessage empty;
        empty.type = MessageType::Acknowledgement;
        empty.messageId = message.messageId;
        return empty;
    };
    EXPECT_TRUE(RunUntil([&] { return Clock::now() > start + seconds(5); }, reply));
    EXPECT_THAT(unacknowledged, ElementsAre(std::make_pair(SILENT, std::uint16_t{1})));
    EXPECT_THAT(refused, IsEmpty());
}

TEST_F(CoapPortTest, AnAnswerThatIsTooLongIsAnErrorAndNotSilence) {
    port.Transmit(1, to, Request(1));
    const auto reply = [](const CoapMessage& message) {
        CoapMessage answer;
        answer.type = MessageType::Acknowledgement;
        answer.code = code::CHANGED;
        answer.messageId = message.messageId;
        answer.token = message.token;
        answer.payload = std::string(1600, 'x');
        return std::make_optional(answer);
    };
    ASSERT_TRUE(RunUntil([&] { return !answers.empty(); }, reply));
    EXPECT_EQ(answers.front().code, code::TOO_LARGE);
    EXPECT_EQ(answers.front().token, Request(1).token);
}

}  // namespace lumora_link::test
