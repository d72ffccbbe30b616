#include "platform/link/core/request_table.h"

#include <gtest/gtest.h>

namespace lumora_link::test {

using Verdict = RequestTable::Verdict;

namespace {

struct RequestTableTest : testing::Test {
    // A message of our own kind of requester.
    Verdict Admit(std::uint32_t sequence, std::uint32_t oldestOpen, std::uint32_t instance = 1) {
        const Requester requester{{7, instance}, 4000, sequence, oldestOpen, sequence};
        return table.Admit(Key(sequence, instance), requester, now);
    }
    Verdict AdmitForeign(std::uint32_t number) {
        return table.Admit(KeyFor(Message(number), std::nullopt, FOREIGNER), std::nullopt, now);
    }
    void AnswerForeign(std::uint32_t number) {
        table.Answer(KeyFor(Message(number), std::nullopt, FOREIGNER), {code::CHANGED, "x"}, now);
    }
    void Answer(std::uint32_t sequence, const std::string& payload = "answer") {
        table.Answer(Key(sequence, 1), {code::CONTENT, payload}, now);
    }

    static CoapMessage Message(std::uint32_t number) {
        CoapMessage message;
        message.messageId = static_cast<std::uint16_t>(number);
        message.token = std::to_string(number);
        return message;
    }
    static RequestKey Key(std::uint32_t sequence, std::uint32_t instance) {
        const Requester requester{{7, instance}, 4000, sequence, sequence, sequence};
        return KeyFor(Message(sequence), requester, Endpoint());
    }

    const Endpoint FOREIGNER{htonl(0x0a000001), 5000};
    static RequestTable::Limits Small() {
        RequestTable::Limits limits;
        limits.entries = 100;
        return limits;
    }
    RequestTable::Limits limits = Small();
    TimePoint now{std::chrono::hours(1)};
    RequestTable table{limits};
};

}  // namespace

TEST_F(RequestTableTest, ARequestIsNewThenPendingThenAnswered) {
    EXPECT_EQ(Admit(1, 1), Verdict::NEW);
    EXPECT_EQ(Admit(1, 1), Verdict::PENDING);
    Answer(1);
    EXPECT_EQ(Admit(1, 1), Verdict::ANSWERED);
    EXPECT_EQ(table.StoredAnswer(Key(1, 1)).payload, "answer");
}

TEST_F(RequestTableTest, TheAnswersThatTheRequesterHasAreDroppedAndItsLateDatagramsToo) {
    Admit(1, 1);
    Answer(1);
    EXPECT_EQ(Admit(2, 2), Verdict::NEW);
    EXPECT_EQ(table.Entries(), 1U);
    EXPECT_EQ(Admit(1, 1), Verdict::STALE);
}

TEST_F(RequestTableTest, AnOpenRequestIsTakenThoughLaterOnesCameFirst) {
    EXPECT_EQ(Admit(5, 4), Verdict::NEW);
    EXPECT_EQ(Admit(4, 4), Verdict::NEW);
}

TEST_F(RequestTableTest, NumbersMayWrap) {
    EXPECT_EQ(Admit(0xffffffff, 0xffffffff), Verdict::NEW);
    Answer(0xffffffff);
    EXPECT_EQ(Admit(0, 0), Verdict::NEW);
    EXPECT_EQ(Admit(0xffffffff, 0xffffffff), Verdict::STALE);
}

TEST_F(RequestTableTest, AnotherInstanceCountsAnew) {
    Admit(50, 50);
    EXPECT_EQ(Admit(1, 1, 2), Verdict::NEW);
    EXPECT_EQ(Admit(49, 49), Verdict::STALE) << "the former instance is still told apart";
}

TEST_F(RequestTableTest, AnAnswerNobodyWaitsForIsNotKept) {
    Admit(1, 1);
    Admit(2, 2);
    Answer(1);
    EXPECT_EQ(table.Entries(), 1U);
    EXPECT_EQ(table.Bytes(), 0U);
}

TEST_F(RequestTableTest, MillionsOfRequestsLeaveNothingBehind) {
    for (std::uint32_t sequence = 1; sequence < 20000; ++sequence) {
        ASSERT_EQ(Admit(sequence, sequence), Verdict::NEW);
        Answer(sequence, std::string(1000, 'x'));
    }
    EXPECT_EQ(table.Entries(), 1U);
    EXPECT_EQ(table.Bytes(), 1000U);
}

TEST_F(RequestTableTest, AFullTableTakesNoMoreUntilSomethingEnds) {
    for (std::uint32_t sequence = 1; sequence <= 100; ++sequence) {
        ASSERT_EQ(Admit(sequence, 1), Verdict::NEW);
    }
    EXPECT_EQ(Admit(101, 1), Verdict::FULL);
    EXPECT_EQ(Admit(1, 1), Verdict::PENDING) << "what is in it is still known";
    Answer(1);
    EXPECT_EQ(Admit(101, 2), Verdict::NEW);
}

TEST_F(RequestTableTest, StoredAnswersAreBoundedInBytes) {
    limits.bytes = 2000;
    RequestTable small(limits);
    std::uint32_t admitted = 0;
    for (std::uint32_t sequence = 1; sequence <= 10; ++sequence) {
        const Requester requester{{7, 1}, 4000, sequence, 1, sequence};
        if (small.Admit(Key(sequence, 1), requester, now) == Verdict::NEW) {
            small.Answer(Key(sequence, 1), {code::CONTENT, std::string(1000, 'x')}, now);
            ++admitted;
        }
    }
    EXPECT_EQ(admitted, 2U);
}

TEST_F(RequestTableTest, ForeignRequestsAreToldApartByTheirSource) {
    EXPECT_EQ(AdmitForeign(1), Verdict::NEW);
    EXPECT_EQ(AdmitForeign(1), Verdict::PENDING);
    const Endpoint other{htonl(0x0a000001), 5001};
    EXPECT_EQ(table.Admit(KeyFor(Message(1), std::nullopt, other), std::nullopt, now), Verdict::NEW);
}

TEST_F(RequestTableTest, ForeignAnswersAgeOut) {
    AdmitForeign(1);
    AnswerForeign(1);
    now += limits.age - Milliseconds(1);
    EXPECT_EQ(AdmitForeign(1), Verdict::ANSWERED);
    now += std::chrono::seconds(10);
    EXPECT_EQ(AdmitForeign(1), Verdict::NEW);
}

TEST_F(RequestTableTest, ForeignFloodsTakeNoRoomFromOthers) {
    limits.foreign = 20;
    RequestTable shared(limits);
    for (std::uint32_t number = 0; number < 1000; ++number) {
        const RequestKey key = KeyFor(Message(number), std::nullopt, FOREIGNER);
        ASSERT_EQ(shared.Admit(key, std::nullopt, now), Verdict::NEW);
        shared.Answer(key, {code::CHANGED, "x"}, now);
    }
    EXPECT_LE(shared.Entries(), 20U);
}

TEST_F(RequestTableTest, InventedRequestersAreBoundedAndThoseKnownAreServedOn) {
    limits.requesters = 3;
    RequestTable small(limits);
    const auto admit = [&](std::uint64_t node, std::uint32_t sequence) {
        const Requester requester{{node, 1}, 4000, sequence, sequence, sequence};
        return small.Admit(KeyFor(Message(sequence), requester, Endpoint()), requester, now);
    };
    for (std::uint64_t node = 1; node <= 1000; ++node) {
        EXPECT_EQ(admit(node, 1), node <= 3 ? Verdict::NEW : Verdict::FULL);
    }
    EXPECT_EQ(small.Requesters(), 3U);
    EXPECT_EQ(admit(2, 2), Verdict::NEW);
}

}  // namespace lumora_link::test
