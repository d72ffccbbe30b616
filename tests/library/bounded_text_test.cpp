#include "library/bounded_text.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>

namespace lumora {
namespace {

TEST(BoundedTextTest, LengthIsCountedUpToTheLimit) {
    EXPECT_EQ(0U, LengthUpTo("", 3));
    EXPECT_EQ(3U, LengthUpTo("abc", 3));
    EXPECT_EQ(4U, LengthUpTo("abcd", 3));
    EXPECT_EQ(4U, LengthUpTo("abcdefgh", 3));
}

TEST(BoundedTextTest, NothingIsReadBehindTheByteAfterTheLimit) {
    const auto text = std::make_unique<char[]>(4);  // a sanitizer sees a fifth byte
    std::memset(text.get(), 'a', 4);
    EXPECT_EQ(4U, LengthUpTo(text.get(), 3));
}

TEST(BoundedTextTest, NameThatFillsItsFieldHas40Characters) {
    LUM_SUBSCRIBE_SERVICE_S record = {};
    std::memset(record.serviceName, 'n', sizeof(record.serviceName));
    EXPECT_EQ(40U, NameLength(&record, offsetof(LUM_SUBSCRIBE_SERVICE_S, serviceName)));
    EXPECT_EQ(std::string(40, 'n'), NameText(record.serviceName));
}

TEST(BoundedTextTest, NameThatRunsIntoTheNextFieldHas41Characters) {
    const auto record = std::make_unique<LUM_SUBSCRIBE_SERVICE_S>();
    std::memset(record.get(), 'n', sizeof(*record));
    EXPECT_EQ(41U, NameLength(record.get(), offsetof(LUM_SUBSCRIBE_SERVICE_S, serviceName)));
    EXPECT_EQ(std::string(40, 'n'), NameText(record->serviceName));
}

TEST(BoundedTextTest, TerminatedNameEndsAtItsTerminator) {
    const LUM_SERVICE_INFO_S record = {0, "face", LUM_TRANSPORT_NONE};
    EXPECT_EQ(4U, NameLength(&record, offsetof(LUM_SERVICE_INFO_S, serviceName)));
    EXPECT_EQ("face", NameText(record.serviceName));
}

}  // namespace
}  // namespace lumora
