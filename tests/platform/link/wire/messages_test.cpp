#include "platform/link/wire/messages.h"

#include <gmock/gmock.h>

namespace lumora_link::test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

bool Asks(const std::string& query, const std::optional<std::string>& deviceType) {
    CoapMessage probe;
    probe.Add(option::URI_QUERY, query);
    return IsAskedFor(probe, deviceType);
}

}  // namespace

TEST(MessagesTest, AProbeAsksForOneType) {
    const CoapMessage probe = MakeProbe("camera", "token", {});
    EXPECT_EQ(probe.type, MessageType::NonConfirmable);
    EXPECT_EQ(PathOf(probe), ".well-known/core");
    EXPECT_EQ(*probe.Find(option::URI_QUERY), "rt=camera");
    EXPECT_EQ(probe.Find(option::KNOWN_NODES), nullptr);
    EXPECT_TRUE(IsAskedFor(probe, "camera"));
    EXPECT_FALSE(IsAskedFor(probe, "camera2"));
    EXPECT_FALSE(IsAskedFor(probe, std::nullopt));
}

TEST(MessagesTest, TheQueryIsAFilterOfTheLinkFormat) {
    EXPECT_TRUE(Asks("rt=cam*", "camera"));
    EXPECT_TRUE(Asks("rt=*", "camera"));
    EXPECT_TRUE(Asks("rt=cam*", "cam*"));
    EXPECT_TRUE(Asks("rt=", ""));
    EXPECT_FALSE(Asks("rt=cam", "camera"));
    EXPECT_FALSE(Asks("rt=camera*", "camer"));
    EXPECT_FALSE(Asks("if=camera", "camera"));
    EXPECT_TRUE(IsAskedFor(CoapMessage(), std::nullopt)) << "who asks for everything";
}

TEST(MessagesTest, ATypeThatDoesNotFitIsAskedForByItsBeginning) {
    const std::string fits(252, 't');
    EXPECT_EQ(*MakeProbe(fits, "", {}).Find(option::URI_QUERY), "rt=" + fits);
    const std::string tooLong(253, 't');
    EXPECT_EQ(*MakeProbe(tooLong, "", {}).Find(option::URI_QUERY), "rt=" + std::string(251, 't') + "*");
}

TEST(MessagesTest, AProbeNamesTheNodesThatNeedNotAnswer) {
    EXPECT_THAT(KnownNodes(MakeProbe("t", "", {7, 0xffffffff})), ElementsAre(7, 0xffffffff));
    EXPECT_THAT(KnownNodes(MakeProbe("t", "", std::vector<NodeHint>(1000, 1))), SizeIs(1));
    EXPECT_LE(SerializeMessage(MakeProbe("t", "", std::vector<NodeHint>(1000, 1))).size(), 1472U);
}

TEST(MessagesTest, TheRequesterIsReadBackAndNothingShorterIs) {
    Requester requester{{0x0102030405060708, 0x090a0b0c}, 0x0d0e, 0x0f101112, 0x13141516, 0x1718191a};
    const std::string bytes = EncodeRequester(requester);
    ASSERT_EQ(bytes.size(), 26U);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        EXPECT_EQ(static_cast<std::size_t>(bytes[at]), at + 1);
    }
    CoapMessage message;
    message.Add(option::REQUESTER, bytes);
    const auto read = DecodeRequester(message);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->identity, requester.identity);
    EXPECT_EQ(read->port, requester.port);
    EXPECT_EQ(read->sequence, requester.sequence);
    EXPECT_EQ(read->oldestOpen, requester.oldestOpen);
    EXPECT_EQ(read->firstOfBody, requester.firstOfBody);

    message.options.front().value.pop_back();
    EXPECT_FALSE(DecodeRequester(message));
    EXPECT_FALSE(DecodeRequester(CoapMessage()));
}

TEST(MessagesTest, TheSecretFollowsWhatOlderNodesReadAndHasEightBytes) {
    Requester requester{{1, 2}, 3, 4, 5, 6, 0x1112131415161718};
    CoapMessage message;
    message.Add(option::REQUESTER, EncodeRequester(requester));
    const std::string& bytes = message.options.front().value;
    EXPECT_EQ(bytes.size(), 34U);
    EXPECT_EQ(bytes.substr(26), "\x11\x12\x13\x14\x15\x16\x17\x18");
    EXPECT_EQ(DecodeRequester(message)->secret, requester.secret);

    message.options.front().value.resize(30);
    EXPECT_FALSE(DecodeRequester(message)) << "a part of a secret is none";
    message.options.front().value.resize(26);
    EXPECT_EQ(DecodeRequester(message)->secret, 0U);
}

TEST(MessagesTest, BlocksAreNumberedAsInBlockwiseTransfer) {
    EXPECT_EQ(EncodeBlock({0, true, 4}), "\x0c");
    EXPECT_EQ(EncodeBlock({3, false, 4}), "\x34");
    CoapMessage message;
    message.Add(option::BLOCK1, "\x34");
    const auto block = FindBlock(message);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->number, 3U);
    EXPECT_FALSE(block->more);
    EXPECT_EQ(block->sizeExponent, 4U);
}

TEST(MessagesTest, KeysOfAnyLengthAndBytesAreReadBack) {
    for (const std::size_t length : {0U, 1U, 254U, 255U, 256U, 510U, 511U, 1023U}) {
        std::string key(length, '&');
        if (!key.empty()) {
            key.back() = '\xff';
        }
        CoapMessage message;
        AddKey(message, key);
        EXPECT_EQ(KeyOf(message), key);
        EXPECT_EQ(PathOf(message), "lumora");
        for (const CoapOption& option : message.options) {
            EXPECT_THAT(option.value, Not(IsEmpty()));
            EXPECT_LE(option.value.size(), 255U);
        }
    }
}

TEST(MessagesTest, NoticesNeedNoAnswerAndCarryTheLink) {
    const CoapMessage notice = MakeNotice(HELLO_PATH, "link");
    EXPECT_EQ(notice.type, MessageType::NonConfirmable);
    EXPECT_EQ(PathOf(notice), "lumora/hello");
    EXPECT_EQ(DecodeUint(*notice.Find(option::CONTENT_FORMAT)), 40U);
    EXPECT_EQ(notice.payload, "link");
}

TEST(MessagesTest, TheCountStandsBehindTheContentFormat) {
    CoapMessage answer = MakeLinkAnswer(MakeProbe("camera", "token", {}), "");
    EXPECT_EQ(CountIn(answer), std::nullopt);
    AddCount(answer, 200);
    EXPECT_EQ(CountIn(answer), 200U);
    const std::string bytes = SerializeMessage(answer);
    EXPECT_EQ(bytes.substr(bytes.size() - 6), "\xc1\x28\xe1\xfc\xdf\xc8");
    answer.options.back().value = std::string(5, '\0');
    EXPECT_EQ(CountIn(answer), std::nullopt) << "of more bytes than a number has";
}

}  // namespace lumora_link::test
