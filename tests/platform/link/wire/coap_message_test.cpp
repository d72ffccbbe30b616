#include "platform/link/wire/coap_message.h"

#include <gmock/gmock.h>

namespace lumora_link::test {

using namespace std::string_literals;

TEST(CoapMessageTest, EncodesTheProbeOfTheDocumentation) {
    CoapMessage message;
    message.type = MessageType::NonConfirmable;
    message.code = code::GET;
    message.messageId = 0x1234;
    message.token = "\xAA\xBB";
    message.Add(option::URI_QUERY, "rt=camera");
    message.Add(option::URI_PATH, ".well-known");
    message.Add(option::URI_PATH, "core");
    EXPECT_EQ(SerializeMessage(message),
              "\x52\x01\x12\x34\xAA\xBB"
              "\xBB.well-known"
              "\x04"
              "core"
              "\x49rt=camera"s);
}

TEST(CoapMessageTest, ReadsBackWhatItWrites) {
    for (const std::size_t length : {0U, 1U, 12U, 13U, 14U, 268U, 269U, 270U, 1000U}) {
        CoapMessage message;
        message.type = MessageType::Confirmable;
        message.code = code::CONTENT;
        message.messageId = 0xffff;
        message.token = "12345678";
        message.Add(1, std::string(length, 'a'));
        message.Add(13, "");
        message.Add(14, std::string(length, 'b'));
        message.Add(282, "c");
        message.Add(283 + 269, "d");
        message.Add(65000, std::string(length, 'e'));
        message.payload = std::string(length, 'p');
        const auto read = ParseMessage(SerializeMessage(message));
        ASSERT_TRUE(read) << length;
        EXPECT_EQ(read->type, message.type);
        EXPECT_EQ(read->code, message.code);
        EXPECT_EQ(read->messageId, message.messageId);
        EXPECT_EQ(read->token, message.token);
        EXPECT_EQ(read->options, message.options);
        EXPECT_EQ(read->payload, message.payload);
    }
}

TEST(CoapMessageTest, RefusesWhatIsNoMessage) {
    EXPECT_FALSE(ParseMessage(""));
    EXPECT_FALSE(ParseMessage("\x50\x01\x12"s)) << "head cut";
    EXPECT_FALSE(ParseMessage("\x90\x01\x12\x34"s)) << "version 2";
    EXPECT_FALSE(ParseMessage("\x59\x01\x12\x34"s + std::string(9, 't'))) << "token of 9 bytes";
    EXPECT_FALSE(ParseMessage("\x52\x01\x12\x34\x01"s)) << "token cut";
    EXPECT_FALSE(ParseMessage("\x51\x00\x12\x34\x01"s)) << "empty with a token";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\xF1"s)) << "reserved delta";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\x1F"s)) << "reserved length";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\xB4\x01"s)) << "option cut";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\xD0"s)) << "extended delta cut";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\xE0\xFF\xFF"s)) << "number beyond 16 bits";
    EXPECT_FALSE(ParseMessage("\x50\x01\x12\x34\xFF"s)) << "marker without a payload";
}

TEST(CoapMessageTest, EveryCutOfAMessageIsReadOrRefusedWithoutHarm) {
    CoapMessage message;
    message.code = code::POST;
    message.token = "token";
    message.Add(option::URI_PATH, std::string(300, 'a'));
    message.Add(option::REQUESTER, std::string(20, 'b'));
    message.payload = "payload";
    const std::string bytes = SerializeMessage(message);
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        // A copy of exactly that size, so that a sanitizer sees every byte read too many.
        const std::string cut(bytes, 0, length);
        const auto read = ParseMessage(cut);
        EXPECT_TRUE(!read || read->payload != message.payload);
    }
}

TEST(CoapMessageTest, NumbersTakeAsFewBytesAsTheyNeed) {
    EXPECT_EQ(EncodeUint(0), "");
    EXPECT_EQ(EncodeUint(255), "\xff");
    EXPECT_EQ(EncodeUint(256), "\x01\x00"s);
    EXPECT_EQ(EncodeUint(0x01020304), "\x01\x02\x03\x04");
    for (const std::uint32_t value : {0U, 1U, 255U, 256U, 65535U, 65536U, 0xffffffffU}) {
        EXPECT_EQ(DecodeUint(EncodeUint(value)), value);
    }
    EXPECT_EQ(DecodeUint("12345"), 0U) << "longer than any number";
}

TEST(CoapMessageTest, JoinsTheOptionsOfOneNumber) {
    CoapMessage message;
    message.Add(option::URI_PATH, "a");
    message.Add(option::URI_QUERY, "x");
    message.Add(option::URI_PATH, "b");
    EXPECT_EQ(message.Joined(option::URI_PATH, "/"), "a/b");
    EXPECT_EQ(*message.Find(option::URI_QUERY), "x");
    EXPECT_EQ(message.Find(option::BLOCK1), nullptr);
}

}  // namespace lumora_link::test
