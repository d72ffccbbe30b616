// Blocks that show when they were damaged, lost, repeated or put out of order.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace lumora_test {

// A number that no other source of blocks has, on whatever host.
std::uint64_t NewSource();

// The blocks of one source, numbered from 0. Most are short, some have many pieces on their way.
class BlockWriter {
public:
    explicit BlockWriter(std::size_t longest) : mLongest(longest) {}

    const std::vector<char>& Next();
    void BeginAnew() {
        mSource = NewSource();
        mNumber = 0;
    }

private:
    std::size_t PickSize();

    const std::size_t mLongest;
    std::uint64_t mSource = NewSource();
    std::uint64_t mNumber = 0;
    std::mt19937_64 mRandom{std::random_device{}()};
    std::vector<char> mBlock;
};

struct BlockNumber {
    std::uint64_t source = 0;
    std::uint64_t number = 0;
};

// Of a block that is whole.
BlockNumber NumberOf(const char* data, std::size_t length);

enum class Arrival { NEXT, FIRST, AFTER_A_GAP };

// Checks what one receiver gets. Reports faults on standard output; safe to use from several threads.
class BlockChecker {
public:
    // Damaged, repeated and late blocks are faults. Whether a gap is one depends on what the receiver did.
    Arrival Take(const char* data, std::size_t length);
    std::uint64_t Blocks() const;
    std::uint64_t Bytes() const;

private:
    Arrival Place(std::uint64_t source, std::uint64_t number);

    mutable std::mutex mMutex;
    std::map<std::uint64_t, std::uint64_t> mLastOfSource;
    std::uint64_t mBlocks = 0;
    std::uint64_t mBytes = 0;
};

// Counts it, and says so on standard output.
void ReportFault(const std::string& what);
int Faults();

}  // namespace lumora_test
