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
    const Endpoint OTHER_FOREIGNER{htonl(0x0a000002), 5000};
    const Endpoint HONEST{htonl(0x0a000009), 5000};
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

TEST_F(RequestTableTest, AnAnswerToNoPendingRequestIsNotKept) {
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

TEST_F(RequestTableTest, StoredAnswersAreBoundedInBytesAndTheOldestGoes) {
    limits.bytes = 2000;
    RequestTable small(limits);
    for (std::uint32_t sequence = 1; sequence <= 10; ++sequence) {
        const Requester requester{{7, 1}, 4000, sequence, 1, sequence};
        ASSERT_EQ(small.Admit(Key(sequence, 1), requester, now), Verdict::NEW);
        small.Answer(Key(sequence, 1), {code::CONTENT, std::string(1000, 'x')}, now);
        EXPECT_LE(small.Bytes(), 2000U);
    }
    const Requester latest{{7, 1}, 4000, 10, 1, 10};
    EXPECT_EQ(small.Admit(Key(10, 1), latest, now), Verdict::ANSWERED);
    EXPECT_EQ(small.Bites(), 8U);
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
    limits.entriesPerSource = 20;
    RequestTable shared(limits);
    for (std::uint32_t number = 0; number < 1000; ++number) {
        const RequestKey key = KeyFor(Message(number), std::nullopt, FOREIGNER);
        ASSERT_EQ(shared.Admit(key, std::nullopt, now), Verdict::NEW);
        shared.Answer(key, {code::CHANGED, "x"}, now);
    }
    EXPECT_LE(shared.Entries(), 20U);
}

TEST_F(RequestTableTest, InventedRequestersTakeThePlaceOfOthersFromTheirOwnAddressOnly) {
    limits.requesters = 30;
    limits.requestersPerSource = 20;
    RequestTable small(limits);
    const auto admit = [&](in_addr_t host, std::uint64_t node, std::uint32_t sequence) {
        const Requester requester{{node, 1}, 4000, sequence, sequence, sequence};
        const RequestKey key = KeyFor(Message(sequence), requester, {host, 5000});
        const Verdict verdict = small.Admit(key, requester, now);
        small.Answer(key, {code::CHANGED, ""}, now);
        return verdict;
    };
    EXPECT_EQ(admit(HONEST.host, 1, 7), Verdict::NEW);
    for (std::uint64_t node = 1; node <= 1000; ++node) {
        EXPECT_EQ(admit(FOREIGNER.host, node, 1), Verdict::NEW);
        EXPECT_EQ(admit(OTHER_FOREIGNER.host, node, 1), Verdict::NEW);
    }
    EXPECT_EQ(small.Requesters(), 30U);
    EXPECT_EQ(admit(HONEST.host, 1, 6), Verdict::STALE) << "it is still known";
    EXPECT_EQ(admit(HONEST.host, 1, 8), Verdict::NEW);
}

TEST_F(RequestTableTest, OneAddressThatFillsItsShareLeavesTheOthersTheirAnswers) {
    limits.entriesPerSource = 80;
    RequestTable shared(limits);
    const auto admit = [&](const Endpoint& source, std::uint32_t number) {
        return shared.Admit(KeyFor(Message(number), std::nullopt, source), std::nullopt, now);
    };
    const auto answer = [&](const Endpoint& source, std::uint32_t number) {
        shared.Answer(KeyFor(Message(number), std::nullopt, source), {code::CHANGED, "x"}, now);
    };
    ASSERT_EQ(admit(HONEST, 1), Verdict::NEW);
    answer(HONEST, 1);
    for (std::uint32_t number = 1; number <= 10000; ++number) {
        ASSERT_EQ(admit(FOREIGNER, number), Verdict::NEW);
        answer(FOREIGNER, number);
    }
    EXPECT_EQ(shared.Entries(), 81U);
    EXPECT_EQ(admit(HONEST, 1), Verdict::ANSWERED) << "exactly once, for a client that does not flood";
    EXPECT_EQ(admit(HONEST, 2), Verdict::NEW);
    EXPECT_EQ(shared.Bites(), 10000U - 80);
}

TEST_F(RequestTableTest, RequestsThatNeverEndFillTheShareOfTheirAddressOnly) {
    limits.entriesPerSource = 50;
    RequestTable shared(limits);
    const auto admit = [&](const Endpoint& source, std::uint32_t number) {
        return shared.Admit(KeyFor(Message(number), std::nullopt, source), std::nullopt, now);
    };
    for (std::uint32_t number = 1; number <= 1000; ++number) {
        EXPECT_EQ(admit(FOREIGNER, number), number <= 50 ? Verdict::NEW : Verdict::FULL);
    }
    EXPECT_EQ(admit(HONEST, 1), Verdict::NEW);
}

TEST_F(RequestTableTest, AFullTableTakesTheRoomFromTheAddressThatHasMost) {
    RequestTable shared(limits);
    for (std::uint32_t host = 1; host <= 5; ++host) {
        for (std::uint32_t number = 1; number <= (host == 3 ? 60U : 10U); ++number) {
            const RequestKey key = KeyFor(Message(number), std::nullopt, {htonl(0x0a000100 + host), 1});
            ASSERT_EQ(shared.Admit(key, std::nullopt, now), Verdict::NEW);
            shared.Answer(key, {code::CHANGED, ""}, now);
        }
    }
    const auto again = [&](std::uint32_t host, std::uint32_t number) {
        return shared.Admit(KeyFor(Message(number), std::nullopt, {htonl(0x0a000100 + host), 1}),
                            std::nullopt, now);
    };
    EXPECT_EQ(shared.Admit(KeyFor(Message(1), std::nullopt, HONEST), std::nullopt, now), Verdict::NEW);
    EXPECT_EQ(again(1, 1), Verdict::ANSWERED);
    EXPECT_EQ(again(3, 2), Verdict::ANSWERED);
    EXPECT_EQ(again(3, 1), Verdict::NEW) << "the oldest of the address with most entries was dropped";
}

TEST_F(RequestTableTest, OnlyTheSecretOfTheRequesterMovesItsNumbersOn) {
    Requester client{{7, 1}, 4000, 5, 5, 5, 0x1234};
    const RequestKey own = KeyFor(Message(5), client, HONEST);
    EXPECT_EQ(table.Admit(own, client, now), Verdict::NEW);
    const Requester guesses[] = {{{7, 1}, 4000, 0x7fffffff, 0x7fffffff, 1, 0},
                                 {{7, 1}, 4000, 0x7fffffff, 0x7fffffff, 1, 0x1235}};
    for (const Requester& guess : guesses) {
        EXPECT_EQ(table.Admit(KeyFor(Message(1), guess, HONEST), guess, now), Verdict::NEW);
    }
    client.sequence = client.oldestOpen = 6;
    EXPECT_EQ(table.Admit(KeyFor(Message(6), client, HONEST), client, now), Verdict::NEW);
}

TEST_F(RequestTableTest, ARequesterWithoutASecretIsAnotherOneAtAnotherAddress) {
    const Requester older{{7, 1}, 4000, 5, 5, 5};
    const Requester stranger{{7, 1}, 4000, 0x7fffffff, 0x7fffffff, 1};
    EXPECT_EQ(table.Admit(KeyFor(Message(1), stranger, FOREIGNER), stranger, now), Verdict::NEW);
    EXPECT_EQ(table.Admit(KeyFor(Message(5), older, HONEST), older, now), Verdict::NEW);
}

}  // namespace lumora_link::test
