#include "blocks.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace lumora_test {

namespace {

constexpr std::uint32_t MARK = 0x4b4f4c42;

struct Head {
    std::uint32_t mark;
    std::uint32_t length;  // of the whole block
    std::uint64_t source;
    std::uint64_t number;
    std::uint64_t checksum;  // of the whole block, with this field cleared
};

std::atomic<int> g_faults{0};

std::uint64_t Mix(std::uint64_t value, std::uint64_t word) {
    value = (value ^ word) * 0x9e3779b97f4a7c15U;
    return value ^ (value >> 29U);
}

// By words: blocks are a megabyte long, and checked by the library's own threads.
std::uint64_t Checksum(const Head& head, const char* data) {
    std::uint64_t sum = Mix(Mix(Mix(head.mark, head.length), head.source), head.number);
    std::size_t at = sizeof(Head);
    for (std::uint64_t word = 0; at + sizeof(word) <= head.length; at += sizeof(word)) {
        std::memcpy(&word, data + at, sizeof(word));
        sum = Mix(sum, word);
    }
    for (; at < head.length; ++at) {
        sum = Mix(sum, static_cast<unsigned char>(data[at]));
    }
    return sum;
}

}  // namespace

std::uint64_t NewSource() {
    std::random_device device;
    return (static_cast<std::uint64_t>(device()) << 32U) | device();
}

std::size_t BlockWriter::PickSize() {
    const std::uint64_t kind = mRandom() % 100;
    std::size_t most = 4096;
    if (kind == 0) {
        most = mLongest;
    } else if (kind < 10) {
        most = mLongest / 10;
    }
    return sizeof(Head) + mRandom() % (most - sizeof(Head) + 1);
}

const std::vector<char>& BlockWriter::Next() {
    mBlock.resize(PickSize());
    for (std::size_t at = 0; at + sizeof(std::uint64_t) <= mBlock.size(); at += sizeof(std::uint64_t)) {
        const std::uint64_t word = mRandom();
        std::memcpy(&mBlock[at], &word, sizeof(word));
    }
    Head head = {MARK, static_cast<std::uint32_t>(mBlock.size()), mSource, mNumber++, 0};
    head.checksum = Checksum(head, mBlock.data());
    std::memcpy(mBlock.data(), &head, sizeof(head));
    return mBlock;
}

BlockNumber NumberOf(const char* data, std::size_t length) {
    Head head = {};
    if (length >= sizeof(head)) {
        std::memcpy(&head, data, sizeof(head));
    }
    return {head.source, head.number};
}

Arrival BlockChecker::Take(const char* data, std::size_t length) {
    Head head = {};
    if (length >= sizeof(head)) {
        std::memcpy(&head, data, sizeof(head));
    }
    const std::lock_guard<std::mutex> lock(mMutex);
    if (head.mark != MARK || head.length != length || Checksum(head, data) != head.checksum) {
        ReportFault("a block of " + std::to_string(length) + " bytes is torn");
        return Arrival::NEXT;
    }
    ++mBlocks;
    mBytes += length;
    return Place(head.source, head.number);
}

Arrival BlockChecker::Place(std::uint64_t source, std::uint64_t number) {
    const auto [last, isFirst] = mLastOfSource.try_emplace(source, number);
    if (isFirst) {
        return number == 0 ? Arrival::FIRST : Arrival::AFTER_A_GAP;
    }
    const std::uint64_t expected = last->second + 1;
    if (number < expected) {
        ReportFault("block " + std::to_string(number) + " came again or late, behind " +
                    std::to_string(last->second));
        return Arrival::NEXT;
    }
    last->second = number;
    return number == expected ? Arrival::NEXT : Arrival::AFTER_A_GAP;
}

std::uint64_t BlockChecker::Blocks() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mBlocks;
}

std::uint64_t BlockChecker::Bytes() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mBytes;
}

void ReportFault(const std::string& what) {
    ++g_faults;
    std::printf("FAULT: %s\n", what.c_str());
}

int Faults() { return g_faults; }

}  // namespace lumora_test
