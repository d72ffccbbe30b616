// Which session a message takes, with a carrier and a clock of the test's own.
#include "platform/link/core/secured_sessions.h"

#include <gmock/gmock.h>

#include "platform/link/wire/messages.h"

namespace lumora_link::test {

namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const Endpoint PEER{htonl(0x0a000002), 4001};
const Endpoint OTHER{htonl(0x0a000003), 4001};

CoapMessage Request(const std::string& token) {
    CoapMessage message;
    message.type = MessageType::Confirmable;
    message.code = code::POST;
    message.token = token;
    AddKey(message, "key");
    return message;
}

CoapMessage Ping(const std::string& token) {
    CoapMessage message = MakePing();
    message.token = token;
    return message;
}

struct SecuredSessionsTest : testing::Test, SecuredSessions::Carrier {
    bool Open(SecuredSessions::SessionId session, const Endpoint&) override {
        opened.push_back(session);
        return true;
    }
    void Probe(SecuredSessions::SessionId session) override { probed.push_back(session); }
    void Write(SecuredSessions::SessionId session, const CoapMessage& message) override {
        written.push_back(std::to_string(session) + " " + message.token);
    }
    void Close(SecuredSessions::SessionId session) override { closed.push_back(session); }
    void OnReached(ConversationId conversation) override { reached.push_back(conversation); }
    void OnRefused(ConversationId conversation) override { refused.push_back(conversation); }

    void After(Milliseconds time) {
        now += time;
        sessions.Tick(now);
    }
    void Ask(ConversationId conversation, const std::string& token, const Endpoint& to = PEER) {
        sessions.Transmit(conversation, to, Request(token), now);
    }
    // A request by a session that is there then, with its answer.
    void Converse(ConversationId conversation, SecuredSessions::SessionId session) {
        Ask(conversation, "first", PEER);
        sessions.OnConnected(session, now);
        EXPECT_EQ(sessions.OnAnswer(session, "first", now), conversation);
        sessions.CloseConversation(conversation);
        written.clear();
        probed.clear();
    }

    SecuredSessions sessions{*this};
    TimePoint now{std::chrono::hours(1)};
    std::vector<SecuredSessions::SessionId> opened;
    std::vector<SecuredSessions::SessionId> probed;
    std::vector<SecuredSessions::SessionId> closed;
    std::vector<std::string> written;
    std::vector<ConversationId> reached;
    std::vector<ConversationId> refused;
};

}  // namespace

TEST_F(SecuredSessionsTest, ARequestWaitsForItsSessionAndLeavesOnce) {
    Ask(1, "a");
    After(Milliseconds(100));
    Ask(1, "a");
    EXPECT_THAT(opened, ElementsAre(1));
    EXPECT_THAT(written, IsEmpty());
    sessions.OnConnected(1, now);
    EXPECT_THAT(written, ElementsAre("1 a"));
    EXPECT_THAT(reached, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, LaterRequestsUseTheSessionThatIsThere) {
    Converse(1, 1);
    for (ConversationId conversation = 2; conversation < 20; ++conversation) {
        const std::string token = std::to_string(conversation);
        Ask(conversation, token);
        EXPECT_EQ(sessions.OnAnswer(1, token, now), conversation);
        sessions.CloseConversation(conversation);
        After(seconds(1));
    }
    EXPECT_THAT(opened, ElementsAre(1));
    EXPECT_THAT(written, SizeIs(18));
}

TEST_F(SecuredSessionsTest, PeersHaveSessionsOfTheirOwn) {
    Converse(1, 1);
    Ask(2, "b", OTHER);
    EXPECT_THAT(opened, ElementsAre(1, 2));
    EXPECT_THAT(written, IsEmpty());
    EXPECT_EQ(sessions.OnAnswer(1, "b", now), std::nullopt) << "one peer cannot answer for another";
}

TEST_F(SecuredSessionsTest, WhileAPeerWaitsAFewHandshakesRunAtTheSameTime) {
    Ask(1, "a");
    for (int count = 0; count < 30; ++count) {
        After(Milliseconds(100));
    }
    EXPECT_THAT(opened, SizeIs(SecuredSessions::MAX_HANDSHAKES));
    sessions.OnConnected(2, now);
    EXPECT_THAT(written, ElementsAre("2 a"));
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1, 3, 4));
    EXPECT_EQ(sessions.Sessions(), 1U);
}

TEST_F(SecuredSessionsTest, AHandshakeThatFailsIsReplacedAndNoPeerIsRefused) {
    Ask(1, "a");
    sessions.OnFailed(1, false);
    After(SecuredSessions::RETRY);
    EXPECT_THAT(closed, ElementsAre(1));
    EXPECT_THAT(opened, ElementsAre(1, 2));
    EXPECT_THAT(refused, IsEmpty());
    sessions.OnConnected(2, now);
    EXPECT_THAT(written, ElementsAre("2 a"));
}

TEST_F(SecuredSessionsTest, ARefusedPortEndsEverythingThatWasForIt) {
    Ask(1, "a");
    Ask(2, "b");
    Ask(3, "c", OTHER);
    sessions.OnFailed(1, true);
    After(Milliseconds(1));
    EXPECT_THAT(refused, ElementsAre(1, 2));
}

TEST_F(SecuredSessionsTest, ARequestThatWasWrittenFailsWithItsSessionAndGoesNoOtherWay) {
    Converse(1, 1);
    Ask(2, "b");
    sessions.OnFailed(1, false);
    Ask(2, "b");
    After(Milliseconds(1));
    EXPECT_THAT(refused, ElementsAre(2));
    Ask(2, "b");
    After(seconds(5));
    EXPECT_THAT(opened, ElementsAre(1));
    EXPECT_THAT(written, ElementsAre("1 b")) << "never again";
}

TEST_F(SecuredSessionsTest, APingGoesOnByAnotherSession) {
    Converse(1, 1);
    sessions.Transmit(2, PEER, Ping("p"), now);
    sessions.OnFailed(1, false);
    After(SecuredSessions::RETRY);
    EXPECT_THAT(refused, IsEmpty());
    sessions.Transmit(2, PEER, Ping("p"), now);
    EXPECT_THAT(opened, ElementsAre(1, 2));
    sessions.OnConnected(2, now);
    EXPECT_THAT(written, ElementsAre("1 p", "2 p"));
}

TEST_F(SecuredSessionsTest, ASilentSessionIsAskedForALifeSignBeforeARequestIsEntrustedToIt) {
    Converse(1, 1);
    sessions.Transmit(2, PEER, Ping("p"), now);
    After(SecuredSessions::DOUBT_AFTER);
    Ask(3, "c");
    EXPECT_THAT(written, ElementsAre("1 p"));
    EXPECT_THAT(probed, ElementsAre(1, 2)) << "the silent one, and a new one";
    EXPECT_EQ(sessions.OnAnswer(1, "probe", now), std::nullopt);
    EXPECT_THAT(written, ElementsAre("1 p", "1 c"));
}

TEST_F(SecuredSessionsTest, ASessionThatStaysSilentIsReplaced) {
    Converse(1, 1);
    sessions.Transmit(2, PEER, Ping("p"), now);
    After(SecuredSessions::DOUBT_AFTER);
    Ask(3, "c");
    sessions.OnConnected(2, now);
    EXPECT_THAT(written, ElementsAre("1 p", "2 c"));
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, ARequestIsAnsweredByItsSessionThoughANewerOneIsThere) {
    Converse(1, 1);
    Ask(2, "b");
    After(SecuredSessions::DOUBT_AFTER);
    Ask(3, "c");
    sessions.OnConnected(2, now);
    After(Milliseconds(1));
    Ask(2, "b");
    EXPECT_THAT(written, ElementsAre("1 b", "2 c", "1 b"));
    EXPECT_EQ(sessions.OnAnswer(1, "b", now), 2U);
    sessions.CloseConversation(2);
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, AfterAPeerHasGoneItsSessionIsNotUsed) {
    Converse(1, 1);
    After(seconds(1));
    sessions.OnPeerGone(OTHER, now);
    After(Milliseconds(1));
    EXPECT_THAT(closed, IsEmpty());
    sessions.OnPeerGone(PEER, now);
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, ThePeersNextStartKeepsTheSessionByWhichItWasHeard) {
    Ask(1, "a");
    sessions.OnConnected(1, now);
    sessions.Transmit(2, PEER, Ping("p"), now);
    After(SecuredSessions::DOUBT_AFTER);
    sessions.Transmit(2, PEER, Ping("p"), now);
    sessions.OnConnected(2, now);
    sessions.Transmit(2, PEER, Ping("p"), now);
    ASSERT_EQ(sessions.OnAnswer(2, "p", now), 2U);
    sessions.OnPeerGone(PEER, now);
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
    EXPECT_THAT(refused, ElementsAre(1)) << "the old start may have run it";
}

TEST_F(SecuredSessionsTest, IdleAndOldSessionsAreClosed) {
    Converse(1, 1);
    After(SecuredSessions::IDLE);
    EXPECT_THAT(closed, ElementsAre(1));

    Converse(2, 2);
    for (auto age = seconds(0); age < SecuredSessions::OLDEST; age += seconds(10)) {
        Ask(3, "c");
        sessions.OnAnswer(2, "c", now);
        sessions.CloseConversation(3);
        After(seconds(10));
    }
    EXPECT_THAT(closed, ElementsAre(1, 2));
}

TEST_F(SecuredSessionsTest, ASessionWithManyLostMessagesIsReplaced) {
    Converse(1, 1);
    for (unsigned count = 0; count < SecuredSessions::MAX_UNANSWERED; ++count) {
        sessions.Transmit(2, PEER, Ping("p"), now);
    }
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, BeyondTheirNumberTheLongestUnusedMakesRoom) {
    for (std::uint32_t host = 1; host <= SecuredSessions::MAX_SESSIONS + 1; ++host) {
        Ask(host, std::to_string(host), {htonl(host), 1});
        if (host == 1) {
            sessions.OnConnected(1, now);
            continue;
        }
        sessions.OnConnected(host, now);
        sessions.OnAnswer(host, std::to_string(host), now);
        sessions.CloseConversation(host);
        now += Milliseconds(1);
    }
    EXPECT_EQ(sessions.Sessions(), SecuredSessions::MAX_SESSIONS);
    EXPECT_THAT(closed, ElementsAre(2)) << "the first still waits for its answer";
}

TEST_F(SecuredSessionsTest, WhereAllAreInUseOthersWait) {
    for (std::uint32_t host = 1; host <= SecuredSessions::MAX_SESSIONS + 1; ++host) {
        Ask(host, std::to_string(host), {htonl(host), 1});
    }
    EXPECT_THAT(opened, SizeIs(SecuredSessions::MAX_SESSIONS));
    sessions.OnConnected(1, now);
    sessions.OnAnswer(1, "1", now);
    sessions.CloseConversation(1);
    After(SecuredSessions::RETRY);
    EXPECT_THAT(closed, ElementsAre(1));
}

TEST_F(SecuredSessionsTest, TheNextTryIsDueWhileAPeerWaitsAndNeverOtherwise) {
    EXPECT_EQ(sessions.NextDeadline(), TimePoint::max());
    Ask(1, "a");
    EXPECT_EQ(sessions.NextDeadline(), now + SecuredSessions::RETRY);
    sessions.CloseConversation(1);
    EXPECT_EQ(sessions.NextDeadline(), TimePoint::max());
}

TEST_F(SecuredSessionsTest, ARetiredSessionServesWhatLeftByItAndNothingElse) {
    Ask(1, "one");
    sessions.OnConnected(1, now);
    ASSERT_THAT(written, ElementsAre("1 one"));
    sessions.Retire(1);
    sessions.Retire(99);
    Ask(2, "two");
    After(SecuredSessions::RETRY);
    ASSERT_THAT(opened, ElementsAre(1, 2)) << "another handshake is begun";
    After(Milliseconds(1));
    ASSERT_THAT(closed, IsEmpty()) << "and not given up because of the retired one";
    sessions.OnConnected(2, now);
    EXPECT_THAT(written, ElementsAre("1 one", "2 two"));
    Ask(1, "one");
    EXPECT_THAT(written, ElementsAre("1 one", "2 two", "1 one")) << "a copy stays with its session";
    EXPECT_EQ(sessions.OnAnswer(1, "one", now), ConversationId(1));
    sessions.CloseConversation(1);
    After(Milliseconds(1));
    EXPECT_THAT(closed, ElementsAre(1));
    EXPECT_THAT(refused, IsEmpty());
}

}  // namespace lumora_link::test
