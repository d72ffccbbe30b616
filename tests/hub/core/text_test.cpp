// What of a device's bytes is text.
#include "hub/core/text.h"

#include <gtest/gtest.h>

namespace lumora_hub {

namespace {

TEST(TextTest, IsUtf8WithoutControlCharacters) {
    for (const char* const text : {"", "a\tb\r\n", "\xC3\xBC", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
        EXPECT_TRUE(IsText(text)) << text;
        EXPECT_EQ(text, Utf8(text));
    }
    // A lone lead, an overlong form, a surrogate, a code too large, and control characters.
    for (const char* const text :
         {"\xC3", "\xC0\xAF", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\x80", "\x07", "\x7F"}) {
        EXPECT_FALSE(IsText(text)) << text;
    }
    EXPECT_EQ(
        "a\xEF\xBF\xBD\xEF\xBF\xBD"
        "b",
        Utf8("a\xC0\xAF"
             "b"));
    EXPECT_EQ("\xEF\xBF\xBD", Utf8("\xC3"));
}

}  // namespace

}  // namespace lumora_hub
