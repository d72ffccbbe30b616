#include "protocol/data_frame.h"

#include <gmock/gmock.h>

#include <climits>

#include "tests/support/raw_peer.h"

namespace lumoraAiModule {
namespace {

using lumora_test::Bytes;
using lumora_test::ServerFrameBytes;

Bytes Written(std::uint32_t value) {
    Bytes bytes(4, '_');
    WriteLittleEndian32(&bytes[0], value);
    return bytes;
}

TEST(LittleEndianTest, LowestByteComesFirst) {
    EXPECT_EQ(Bytes("\x10\0\0\0", 4), Written(16));
    EXPECT_EQ(Bytes("\x78\x56\x34\x12", 4), Written(0x12345678));
    EXPECT_EQ(16U, ReadLittleEndian32("\x10\0\0"));
    EXPECT_EQ(0x12345678U, ReadLittleEndian32("\x78\x56\x34\x12"));
}

TEST(LittleEndianTest, ValuesRoundPowersOfTwoSurvive) {
    for (unsigned int bit = 0; bit < 32; ++bit) {
        for (const std::uint32_t offset : {UINT_MAX, 0U, 1U}) {
            const std::uint32_t value = (1U << bit) + offset;
            EXPECT_EQ(lumora_test::LittleEndian32(value), Written(value));
            EXPECT_EQ(value, ReadLittleEndian32(Written(value).data()));
        }
    }
}

TEST(LittleEndianTest, NothingNeedsAlignment) {
    const Bytes bytes("_\x01\x02\x03\x84_", 6);
    EXPECT_EQ(0x84030201U, ReadLittleEndian32(bytes.data() + 1));
}

TEST(FrameHeadTest, LengthsAreReadUnsigned) {
    const Bytes head("\xff\xff\xff\xff\xff", 5);
    EXPECT_EQ(255U, HeadLengthOf(head.data()));
    EXPECT_EQ(0xffffffffU, PayloadLengthOf(head.data()));
}

TEST(FrameHeadTest, OnlyBytesBehindTheHeadCountAsPayload) {
    EXPECT_EQ(0U, PayloadWritten(0, 6));
    EXPECT_EQ(0U, PayloadWritten(5, 6));
    EXPECT_EQ(0U, PayloadWritten(6, 6));
    EXPECT_EQ(1U, PayloadWritten(7, 6));
    EXPECT_EQ(UINT_MAX - 6, PayloadWritten(UINT_MAX, 6));
}

TEST(ClientFrameTest, HeadHasSixBytes) {
    Bytes head(7, '_');
    WriteClientFrameHead(&head[0], 0x00500006, 20);
    EXPECT_EQ(Bytes("\x06\x06\x00\x50\x00\x14_", 7), head);
}

TEST(ClientFrameTest, OnlyTheLowByteOfTheClientIdGoesOut) {
    Bytes head(6, '_');
    WriteClientFrameHead(&head[0], 0, 0x1234ff);
    EXPECT_EQ(Bytes("\x06\0\0\0\0\xff", 6), head);
    WriteClientFrameHead(&head[0], 0, -1);
    EXPECT_EQ(Bytes("\x06\0\0\0\0\xff", 6), head);
}

TEST(ServerFrameTest, HeadListsClientsThenTheNamesLength) {
    Bytes frame(20, '_');
    char* const name = WriteServerFrameHead(&frame[0], 3, {1, 20, 0x102}, "text");
    EXPECT_EQ(Bytes("\x0e\x03\0\0\0\x03\x01\x14\x02\x04__________", 20), frame);
    EXPECT_EQ(frame.data() + 10, name);
}

TEST(ServerFrameTest, HeadWithoutClientsHasSevenBytes) {
    Bytes frame(8, '_');
    char* const name = WriteServerFrameHead(&frame[0], 0, {}, "");
    EXPECT_EQ(Bytes("\x07\0\0\0\0\0\0_", 8), frame);
    EXPECT_EQ(frame.data() + 7, name);
}

class ReadServerFrameTest : public testing::Test {
protected:
    FrameDamage Read(const Bytes& bytes) {
        mBytes = bytes;
        mBytes.resize(bytes.size() + FRAME_SPARE_LENGTH);
        return ReadServerFrame(&mBytes[0], static_cast<unsigned int>(bytes.size()), mFields);
    }

    Bytes mBytes;
    ServerFrame mFields;
};

TEST_F(ReadServerFrameTest, FieldsOfAWellFormedFrame) {
    ASSERT_EQ(FrameDamage::NONE, Read(ServerFrameBytes("\x01\x14", "text", "payload")));
    EXPECT_EQ(7U, mFields.payloadLen);
    ASSERT_EQ(2U, mFields.clientNum);
    EXPECT_EQ(1, mFields.clientIDs[0]);
    EXPECT_EQ(20, mFields.clientIDs[1]);
    EXPECT_EQ("text", Bytes(mFields.name, mFields.nameLen));
    EXPECT_EQ("payload", Bytes(mFields.payload, mFields.payloadLen));
}

TEST_F(ReadServerFrameTest, TwentyClientsAndAFortyByteNameMakeAHeadOf67) {
    const Bytes frame = ServerFrameBytes(Bytes(20, '\x07'), Bytes(40, 'n'), "p");
    EXPECT_EQ(67U, HeadLengthOf(frame.data()));
    ASSERT_EQ(FrameDamage::NONE, Read(frame));
    EXPECT_EQ(20U, mFields.clientNum);
    EXPECT_EQ(40U, mFields.nameLen);
    EXPECT_EQ("p", Bytes(mFields.payload, 1));
}

TEST_F(ReadServerFrameTest, TenBytesAreTheLeast) {
    EXPECT_EQ(FrameDamage::NONE, Read(ServerFrameBytes("", "", "123")));
    EXPECT_EQ(FrameDamage::TOO_SHORT, Read(ServerFrameBytes("", "", "12")));
    EXPECT_EQ(FrameDamage::TOO_SHORT, Read(""));
}

TEST_F(ReadServerFrameTest, PayloadOf1024000BytesIsTheMost) {
    const Bytes rest = Bytes("\0\0", 2) + Bytes(1024000, 'p');
    EXPECT_EQ(FrameDamage::NONE, Read("\x07" + lumora_test::LittleEndian32(1024000) + rest));
    EXPECT_EQ(1024000U, mFields.payloadLen);
    EXPECT_EQ(FrameDamage::PAYLOAD_LENGTH, Read("\x07" + lumora_test::LittleEndian32(1024001) + rest));
    EXPECT_EQ(1024001U, mFields.payloadLen);
    EXPECT_EQ(FrameDamage::PAYLOAD_LENGTH, Read("\x07" + lumora_test::LittleEndian32(UINT_MAX) + rest));
}

TEST_F(ReadServerFrameTest, TwentyOneClientsAreRefusedThoughTheHeadIsShortEnough) {
    const Bytes frame = ServerFrameBytes(Bytes(21, '\x07'), Bytes(40, 'n'), "p");
    EXPECT_EQ(68U, HeadLengthOf(frame.data()));
    EXPECT_EQ(FrameDamage::CLIENT_COUNT, Read(frame));
    EXPECT_EQ(21U, mFields.clientNum);
}

TEST_F(ReadServerFrameTest, NameOf41BytesIsRefused) {
    EXPECT_EQ(FrameDamage::NONE, Read(ServerFrameBytes("\x01", Bytes(40, 'n'), "p")));
    EXPECT_EQ(FrameDamage::NAME_LENGTH, Read(ServerFrameBytes("\x01", Bytes(41, 'n'), "p")));
    EXPECT_EQ(41U, mFields.nameLen);
}

TEST_F(ReadServerFrameTest, FirstDamageIsTheOneReported) {
    Bytes frame = "\x07" + lumora_test::LittleEndian32(1024001) + Bytes(5, '\xff');
    EXPECT_EQ(FrameDamage::TOO_SHORT, Read(frame.substr(0, 9)));
    EXPECT_EQ(FrameDamage::PAYLOAD_LENGTH, Read(frame));
    frame[1] = 0;
    EXPECT_EQ(FrameDamage::CLIENT_COUNT, Read(frame));
}

TEST_F(ReadServerFrameTest, CountsAboveTheSignBitAreLargeNotNegative) {
    EXPECT_EQ(FrameDamage::CLIENT_COUNT, Read(Bytes("\x0a\0\0\0\0\x80____", 10)));
    EXPECT_EQ(128U, mFields.clientNum);
    EXPECT_EQ(FrameDamage::NAME_LENGTH, Read(Bytes("\x0a\0\0\0\0\0\xff___", 10)));
    EXPECT_EQ(255U, mFields.nameLen);
}

TEST_F(ReadServerFrameTest, PayloadFollowsTheNameWhateverTheHeadLengthSays) {
    Bytes frame = ServerFrameBytes("\x01", "text", "payload");
    frame[0] = 100;
    ASSERT_EQ(FrameDamage::NONE, Read(frame));
    EXPECT_EQ("payload", Bytes(mFields.payload, 7));
}

TEST_F(ReadServerFrameTest, LyingFrameIsReadFromTheSpareBytes) {
    ASSERT_EQ(FrameDamage::NONE, Read(Bytes("\x0a\0\0\0\0\x14____", 10)));
    EXPECT_EQ(20U, mFields.clientNum);
    EXPECT_EQ(0, mFields.clientIDs[19]);
    EXPECT_EQ(0U, mFields.nameLen);
    EXPECT_LE(mFields.payload, mBytes.data() + 67);
}

// A receiver cuts by the length of the frame before when a head is illegal: then nothing says that the
// payload is there.
TEST_F(ReadServerFrameTest, PayloadMustEndWithinTheFrameAndItsSpareBytes) {
    const Bytes fields = Bytes("\x01\x01\x04", 3) + "face";
    for (const unsigned int missing : {0U, FRAME_SPARE_LENGTH}) {
        EXPECT_EQ(FrameDamage::NONE,
                  Read("\x65" + lumora_test::LittleEndian32(20 + missing) + fields + Bytes(20, 'p')));
    }
    const Bytes head = "\x65" + lumora_test::LittleEndian32(21 + FRAME_SPARE_LENGTH);
    EXPECT_EQ(FrameDamage::PAYLOAD_MISSING, Read(head + fields + Bytes(20, 'p')));
    EXPECT_EQ(FrameDamage::PAYLOAD_MISSING, Read("\x65" + lumora_test::LittleEndian32(1024000) + fields));
}

}  // namespace
}  // namespace lumoraAiModule
