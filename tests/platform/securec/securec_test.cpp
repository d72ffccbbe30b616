// The bounded functions: what fits is copied and nothing beyond it is touched; what does not leaves nothing
// behind.
#include "securec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr char UNTOUCHED = '#';

// A destination with guards on both sides.
struct Field {
    std::array<char, 8> before;
    std::array<char, 40> data;
    std::array<char, 8> behind;

    Field() {
        before.fill(UNTOUCHED);
        data.fill(UNTOUCHED);
        behind.fill(UNTOUCHED);
    }
    ~Field() {
        EXPECT_THAT(before, Each(UNTOUCHED));
        EXPECT_THAT(behind, Each(UNTOUCHED));
    }
    Field(const Field&) = delete;
    Field& operator=(const Field&) = delete;
};

TEST(MemcpyS, CopiesExactlyTheBytesThatWereAsked) {
    Field field;
    EXPECT_EQ(memcpy_s(field.data.data(), field.data.size(), "abc", 3), 0);
    EXPECT_EQ(std::string(field.data.data(), 4), "abc#");
}

TEST(MemcpyS, FillsTheDestinationToItsLastByte) {
    Field field;
    const std::string source(field.data.size(), 'x');
    EXPECT_EQ(memcpy_s(field.data.data(), field.data.size(), source.data(), source.size()), 0);
    EXPECT_THAT(field.data, Each('x'));
}

TEST(MemcpyS, RefusesOneByteMoreAndZeroesTheDestination) {
    Field field;
    const std::string source(field.data.size() + 1, 'x');
    EXPECT_NE(memcpy_s(field.data.data(), field.data.size(), source.data(), source.size()), 0);
    EXPECT_THAT(field.data, Each('\0'));
}

TEST(MemcpyS, RefusesALengthThatWasNegative) {
    Field field;
    EXPECT_NE(memcpy_s(field.data.data(), field.data.size(), "abc", static_cast<size_t>(-1)), 0);
    EXPECT_THAT(field.data, Each('\0'));
}

TEST(MemcpyS, CopiesNothingWhenNothingIsAsked) {
    Field field;
    EXPECT_EQ(memcpy_s(field.data.data(), field.data.size(), "abc", 0), 0);
    EXPECT_THAT(field.data, Each(UNTOUCHED));
}

TEST(MemcpyS, RefusesNullPointersWithoutWriting) {
    Field field;
    EXPECT_NE(memcpy_s(field.data.data(), field.data.size(), nullptr, 3), 0);
    EXPECT_NE(memcpy_s(nullptr, field.data.size(), "abc", 3), 0);
    EXPECT_THAT(field.data, Each(UNTOUCHED));
}

TEST(MemcpyS, RefusesADestinationWithoutSizeWithoutWriting) {
    Field field;
    EXPECT_NE(memcpy_s(field.data.data(), 0, "abc", 3), 0);
    EXPECT_NE(memcpy_s(field.data.data(), 0, "abc", 0), 0);
    EXPECT_THAT(field.data, Each(UNTOUCHED));
}

TEST(MemcpyS, RefusesRegionsThatShareAByte) {
    for (const size_t source : {1U, 3U, 4U, 5U, 7U}) {
        std::array<char, 12> bytes{};
        bytes.fill('x');
        EXPECT_NE(memcpy_s(&bytes[4], 4, &bytes[source], 4), 0) << source;
        EXPECT_EQ(std::string(&bytes[4], 4), std::string(4, '\0')) << source;
    }
}

TEST(MemcpyS, CopiesBetweenNeighbours) {
    std::array<char, 8> bytes{'a', 'b', 'c', 'd', '1', '2', '3', '4'};
    EXPECT_EQ(memcpy_s(&bytes[0], 4, &bytes[4], 4), 0);
    EXPECT_THAT(bytes, ElementsAre('1', '2', '3', '4', '1', '2', '3', '4'));
    bytes[0] = 'a';
    EXPECT_EQ(memcpy_s(&bytes[4], 4, &bytes[0], 4), 0);
    EXPECT_THAT(bytes, ElementsAre('a', '2', '3', '4', 'a', '2', '3', '4'));
}

TEST(MemcpyS, CopiesAMegabyteToTheLetter) {
    std::string source(1048576, '\0');
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<char>(i * 31 + i / 251);
    }
    std::string copy(source.size(), UNTOUCHED);
    EXPECT_EQ(memcpy_s(copy.data(), copy.size(), source.data(), source.size()), 0);
    EXPECT_TRUE(copy == source);
}

TEST(MemsetS, SetsExactlyTheBytesThatWereAsked) {
    Field field;
    EXPECT_EQ(memset_s(field.data.data(), field.data.size(), 'y', 3), 0);
    EXPECT_EQ(std::string(field.data.data(), 4), "yyy#");
}

TEST(MemsetS, FillsTheDestinationToItsLastByte) {
    Field field;
    EXPECT_EQ(memset_s(field.data.data(), field.data.size(), 0, field.data.size()), 0);
    EXPECT_THAT(field.data, Each('\0'));
}

TEST(MemsetS, TakesTheLowByteOfTheValue) {
    Field field;
    EXPECT_EQ(memset_s(field.data.data(), field.data.size(), 0x1234, 1), 0);
    EXPECT_EQ(field.data[0], '\x34');
    EXPECT_EQ(memset_s(field.data.data(), field.data.size(), -1, 1), 0);
    EXPECT_EQ(field.data[0], '\xff');
}

TEST(MemsetS, RefusesOneByteMoreAndZeroesTheDestination) {
    Field field;
    EXPECT_NE(memset_s(field.data.data(), field.data.size(), 'y', field.data.size() + 1), 0);
    EXPECT_THAT(field.data, Each('\0'));
}

TEST(MemsetS, RefusesANullDestinationAndOneWithoutSize) {
    Field field;
    EXPECT_NE(memset_s(nullptr, 4, 'y', 4), 0);
    EXPECT_NE(memset_s(field.data.data(), 0, 'y', 0), 0);
    EXPECT_THAT(field.data, Each(UNTOUCHED));
}

TEST(StrncpyS, CopiesATextAndTerminatesIt) {
    Field field;
    EXPECT_EQ(strncpy_s(field.data.data(), field.data.size(), "camera", 6), 0);
    EXPECT_STREQ(field.data.data(), "camera");
}

TEST(StrncpyS, StopsAtTheTerminatorOfTheSource) {
    Field field;
    EXPECT_EQ(strncpy_s(field.data.data(), field.data.size(), "camera", 400), 0);
    EXPECT_STREQ(field.data.data(), "camera");
}

TEST(StrncpyS, StopsAtTheCountInASourceWithoutTerminator) {
    Field field;
    const std::array<char, 3> source{'a', 'b', 'c'};
    EXPECT_EQ(strncpy_s(field.data.data(), field.data.size(), source.data(), source.size()), 0);
    EXPECT_STREQ(field.data.data(), "abc");
}

TEST(StrncpyS, CountsTheTerminatorIntoTheSize) {
    Field field;
    const std::string fits(39, 'n');
    const std::string tooLong(40, 'n');
    EXPECT_EQ(strncpy_s(field.data.data(), 40, fits.c_str(), fits.size()), 0);
    EXPECT_EQ(std::string(field.data.data()), fits);
    EXPECT_NE(strncpy_s(field.data.data(), 40, tooLong.c_str(), tooLong.size()), 0);
    EXPECT_STREQ(field.data.data(), "");
}

TEST(StrncpyS, ACountBeyondTheSizeIsNoFaultOfAShortText) {
    Field field;
    const std::string fits(39, 'n');
    EXPECT_EQ(strncpy_s(field.data.data(), 40, fits.c_str(), static_cast<size_t>(-1)), 0);
    EXPECT_EQ(std::string(field.data.data()), fits);
}

TEST(StrncpyS, CopiesAnEmptyText) {
    Field field;
    EXPECT_EQ(strncpy_s(field.data.data(), 1, "", 10), 0);
    EXPECT_STREQ(field.data.data(), "");
    field.data[0] = UNTOUCHED;
    EXPECT_EQ(strncpy_s(field.data.data(), 1, "abc", 0), 0);
    EXPECT_STREQ(field.data.data(), "");
}

TEST(StrncpyS, ReadsNoFurtherThanTheSizeOfTheDestination) {
    // No terminator at all: a sanitizer build sees any step beyond the 40th byte.
    const std::string storage(40, 'n');
    const std::unique_ptr<char[]> source(new char[40]);
    ASSERT_EQ(memcpy_s(source.get(), 40, storage.data(), 40), 0);
    Field field;
    EXPECT_NE(strncpy_s(field.data.data(), 40, source.get(), 400), 0);
    EXPECT_STREQ(field.data.data(), "");
}

TEST(StrncpyS, RefusesNullPointersAndADestinationWithoutSizeWithoutWriting) {
    Field field;
    EXPECT_NE(strncpy_s(field.data.data(), field.data.size(), nullptr, 3), 0);
    EXPECT_NE(strncpy_s(nullptr, field.data.size(), "abc", 3), 0);
    EXPECT_NE(strncpy_s(field.data.data(), 0, "", 0), 0);
    EXPECT_THAT(field.data, Each(UNTOUCHED));
}

TEST(StrncpyS, RefusesTextsThatOverlap) {
    std::array<char, 12> bytes{'a', 'b', 'c', 'd', 'e', 'f', '\0'};
    EXPECT_NE(strncpy_s(&bytes[2], 10, &bytes[0], 6), 0);
    EXPECT_EQ(bytes[2], '\0');
    EXPECT_NE(strncpy_s(&bytes[0], 12, &bytes[0], 6), 0);
    EXPECT_EQ(bytes[0], '\0');
}

TEST(StrncpyS, CopiesIntoTheByteBehindACountedSource) {
    std::array<char, 7> bytes{'a', 'b', 'c', '1', '2', '3', '4'};
    EXPECT_EQ(strncpy_s(&bytes[3], 4, &bytes[0], 3), 0);
    EXPECT_THAT(bytes, ElementsAreArray({'a', 'b', 'c', 'a', 'b', 'c', '\0'}));
}

}  // namespace
