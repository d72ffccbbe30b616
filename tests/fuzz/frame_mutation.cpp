#include <vector>

#include "protocol/data_frame.h"
#include "tests/fuzz/mutation.h"
#include "tests/support/raw_peer.h"

namespace lumora_fuzz {

namespace {

using namespace lumoraAiModule;

const std::uint32_t LENGTHS[] = {0,          1,          5,          6,         7,       10,
                                 100,        101,        255,        1023999,   1024000, 1024001,
                                 1048576,    5242885,    5242886,    5242887,   65535,   65536,
                                 0x7fffffff, 0x80000000, 0xfffffffa, 0xffffffff};
const unsigned char BYTES[] = {0, 1, 3, 5, 6, 7, 19, 20, 21, 39, 40, 41, 99, 100, 101, 254, 255};

// Where frames begin, as far as the lengths lead.
std::vector<std::size_t> Beginnings(const std::string& stream, bool fixedHead) {
    std::vector<std::size_t> beginnings;
    for (std::size_t at = 0; at + COMMON_HEAD_LENGTH <= stream.size();) {
        beginnings.push_back(at);
        const std::size_t head = fixedHead ? CLIENT_FRAME_HEAD_LENGTH : HeadLengthOf(stream.data() + at);
        const std::size_t frame = head + PayloadLengthOf(stream.data() + at);
        at += frame != 0 ? frame : stream.size();
    }
    return beginnings;
}

std::string SomeBytes(std::size_t most, Dice& dice) {
    std::string bytes(dice.Below(most + 1), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(dice.Number());
    }
    return bytes;
}

std::string MutateFrames(std::string stream, bool fixedHead, const std::string& valid, Dice& dice) {
    const std::vector<std::size_t> beginnings = Beginnings(stream, fixedHead);
    if (beginnings.empty() || dice.OneIn(5)) {
        const std::size_t at = beginnings.empty() ? stream.size() : dice.Pick(beginnings);
        return stream.insert(at, valid);
    }
    const std::size_t at = dice.Pick(beginnings);
    switch (dice.Below(4)) {
        case 0:
            stream[at] = static_cast<char>(dice.Pick(BYTES));
            return stream;
        case 1:
            WriteLittleEndian32(&stream[at + 1], dice.Pick(LENGTHS));
            return stream;
        case 2: {  // a count or a length behind the common head
            const std::size_t field = at + COMMON_HEAD_LENGTH + dice.Below(24);
            if (field < stream.size()) {
                stream[field] = static_cast<char>(dice.Pick(BYTES));
            }
            return stream;
        }
        default:
            return MutateBytes(stream, dice);
    }
}

}  // namespace

std::string MutateClientFrames(const std::string& stream, Dice& dice) {
    const std::string valid =
        lumora_test::ClientFrame(static_cast<int>(dice.Below(256)), SomeBytes(60, dice));
    return MutateFrames(stream, true, valid, dice);
}

std::string MutateServerFrames(const std::string& stream, Dice& dice) {
    const std::string valid =
        lumora_test::ServerFrameBytes(SomeBytes(22, dice), SomeBytes(41, dice), SomeBytes(40, dice));
    return MutateFrames(stream, false, valid, dice);
}

}  // namespace lumora_fuzz
