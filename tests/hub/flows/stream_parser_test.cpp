// The parser of what consumers of the hub's streams receive, which other tests and benches rely on.
#include "tests/support/stream_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace lumora_test {
namespace {

using namespace std::string_literals;

struct Seen {
    std::uint64_t number;
    std::uint32_t lost;
    std::size_t size;
    std::string start;
};

// All of it in pieces of the same size. Empty if the parser refuses it.
std::vector<Seen> Parse(StreamParser::Kind kind, std::size_t kept, const std::string& bytes,
                        std::size_t piece) {
    std::vector<Seen> seen;
    StreamParser parser(kind, kept, [&](const StreamedBlock& block) {
        seen.push_back({block.number, block.lost, block.size, std::string(block.start)});
    });
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        if (!parser.Take(std::string_view(bytes).substr(at, piece))) {
            return {};
        }
    }
    return seen;
}

const std::string HEAD = "\1\0\0\0\0\0\0\7\0\0\0\0\0\0\1\2\0\0\0\0\0\3\4\5"s;
const std::string UPGRADED = "HTTP/1.1 101 x\r\nA: b\r\n\r\n";
const std::string OK = "HTTP/1.1 200 OK\r\nA: b\r\n\r\n";

TEST(StreamParserTest, PutsBlocksTogetherFromFrames) {
    const std::string pinged = "\x89\3abc";
    const std::string first = "\2\x19" + HEAD + "x" + pinged + "\0\2yz"s + "\x80\1!"s;
    const std::string second = "\x82\x7e\x01\x18" + HEAD + std::string(256, 'b');
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 1000U}) {
        const auto seen = Parse(StreamParser::Kind::WEB_SOCKET, 1000, UPGRADED + first + second, piece);
        ASSERT_EQ(2U, seen.size()) << piece;
        EXPECT_EQ("xyz!", seen[0].start);
        EXPECT_EQ(4U, seen[0].size);
        EXPECT_EQ(0x0102U, seen[0].number);
        EXPECT_EQ(7U, seen[0].lost);
        EXPECT_EQ(std::string(256, 'b'), seen[1].start);
    }
}

TEST(StreamParserTest, KeepsOnlyTheBeginning) {
    const std::string block = "\x82\x7e\x01\x18" + HEAD + std::string(256, 'b');
    const auto seen = Parse(StreamParser::Kind::WEB_SOCKET, 2, UPGRADED + block + block, 5);
    ASSERT_EQ(2U, seen.size());
    EXPECT_EQ("bb", seen[1].start);
    EXPECT_EQ(256U, seen[1].size);
}

TEST(StreamParserTest, ReadsEvents) {
    const std::string events =
        "retry: 500\n\nevent: text\nid: 5\ndata: a\ndata: \ndata: b\n\nevent: base64\nid: 258\ndata: "
        "/wA=\n\n";
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 1000U}) {
        const auto seen = Parse(StreamParser::Kind::SERVER_SENT_EVENTS, 1000, OK + events, piece);
        ASSERT_EQ(2U, seen.size()) << piece;
        EXPECT_EQ("a\n\nb", seen[0].start);
        EXPECT_EQ(5U, seen[0].number);
        EXPECT_EQ("\xff\0"s, seen[1].start);
        EXPECT_EQ(2U, seen[1].size);
        EXPECT_EQ(258U, seen[1].number);
    }
}

TEST(StreamParserTest, RefusesWhatIsNoStream) {
    const std::string block = "\x82\x18" + HEAD;
    EXPECT_EQ(1U, Parse(StreamParser::Kind::WEB_SOCKET, 9, UPGRADED + block, 100).size());
    EXPECT_TRUE(Parse(StreamParser::Kind::WEB_SOCKET, 9, OK + block, 100).empty());
    EXPECT_TRUE(Parse(StreamParser::Kind::WEB_SOCKET, 9, UPGRADED + "\x88\0"s, 100).empty());
    EXPECT_TRUE(Parse(StreamParser::Kind::WEB_SOCKET, 9, UPGRADED + "\x82\1x", 100).empty());
    EXPECT_TRUE(
        Parse(StreamParser::Kind::SERVER_SENT_EVENTS, 9, "HTTP/1.1 503 x\r\n\r\nid: 1\ndata: x\n\n", 9)
            .empty());
}

}  // namespace
}  // namespace lumora_test
