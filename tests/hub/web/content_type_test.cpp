// What the first bytes of a block tell.
#include "hub/web/content_type.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

TEST(ContentTypeTest, TellsPicturesTextsAndJson) {
    EXPECT_STREQ("image/jpeg", ContentType("\xFF\xD8\xFF\xE0 and more"));
    EXPECT_STREQ("image/png", ContentType("\x89PNG\r\n\x1A\n and more"));
    EXPECT_STREQ("application/json", ContentType(" {\"a\": [1]}"));
    EXPECT_STREQ("application/json", ContentType("[1, 2]"));
    EXPECT_STREQ("text/plain; charset=utf-8", ContentType("{not json"));
    EXPECT_STREQ("text/plain; charset=utf-8", ContentType("{} and more"));
    EXPECT_STREQ("text/plain; charset=utf-8", ContentType("21.5"));
    EXPECT_STREQ("text/plain; charset=utf-8", ContentType("gr\xC3\xBC\x6E\n"));
}

TEST(ContentTypeTest, WhatIsNoTextIsBytes) {
    using std::string_view;
    for (const string_view bytes : {string_view("a\0b", 3), string_view("\x89PNG"), string_view("\xFF\xD8"),
                                    string_view("\xC3"), string_view("\x1B[31m")}) {
        EXPECT_STREQ("application/octet-stream", ContentType(bytes));
    }
}

}  // namespace
}  // namespace lumora_hub::web
