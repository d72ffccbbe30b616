// What blocks are taken for.
#include "hub/mqtt/content.h"

#include <gtest/gtest.h>

#include <string>

namespace lumora_hub {
namespace {

TEST(ContentTest, PicturesAreKnownByTheirFirstBytes) {
    EXPECT_EQ(KindOf("\xFF\xD8\xFF\xE0 and so on"), ContentKind::JPEG);
    EXPECT_EQ(KindOf("\x89PNG\r\n\x1A\n and so on"), ContentKind::PNG);
    EXPECT_EQ(KindOf("\xFF\xD8"), ContentKind::UNKNOWN);
}

TEST(ContentTest, NumbersAreWholeTexts) {
    for (const char* text : {"0", "-12", "+3.5", " 21.5\n", "1e-3", "6.02E23"}) {
        EXPECT_EQ(KindOf(text), ContentKind::NUMBER) << text;
    }
    for (const char* text : {"12 13", "1.2.3", "-", "e", "nan", "inf", "0x10", "12a", "1e", "."}) {
        EXPECT_EQ(KindOf(text), ContentKind::TEXT) << text;
    }
}

TEST(ContentTest, JsonMustBeOneDocument) {
    EXPECT_EQ(KindOf(R"({"a": 1})"), ContentKind::JSON);
    EXPECT_EQ(KindOf(" [1, 2]\n"), ContentKind::JSON);
    for (const char* text : {"{", "{} {}", "[1,", "{a: 1}", "\"text\""}) {
        EXPECT_EQ(KindOf(text), ContentKind::TEXT) << text;
    }
}

TEST(ContentTest, OtherBytesAreNotGuessed) {
    EXPECT_EQ(KindOf(""), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf(std::string("text\0", 5)), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf("\xC3"), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf("\xC0\xAF"), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf("\x1B[2J"), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf(std::string(1 << 20, 'x')), ContentKind::UNKNOWN);
    EXPECT_EQ(KindOf("K\u00fcche"), ContentKind::TEXT);
}

TEST(ContentTest, EachKindHasItsMediaType) {
    EXPECT_STREQ(MediaType(ContentKind::JPEG), "image/jpeg");
    EXPECT_STREQ(MediaType(ContentKind::PNG), "image/png");
    EXPECT_STREQ(MediaType(ContentKind::JSON), "application/json");
    EXPECT_STREQ(MediaType(ContentKind::NUMBER), "text/plain");
    EXPECT_STREQ(MediaType(ContentKind::TEXT), "text/plain");
    EXPECT_EQ(MediaType(ContentKind::UNKNOWN), nullptr);
}

TEST(ContentTest, FieldsHaveSimpleNamesAndValues) {
    const auto fields =
        FieldsOf(R"({"count": 2, "state": "on", "is_open": true, "faces": [1], "in": {"a": 1}, "none": null,)"
                 R"( "{{ states }}": 1, "": 2, "count": 3})");
    ASSERT_EQ(fields.size(), 3U);
    EXPECT_EQ(fields[0].name, "count");
    EXPECT_TRUE(fields[0].isNumber);
    EXPECT_EQ(fields[1].name, "state");
    EXPECT_FALSE(fields[1].isNumber);
    EXPECT_EQ(fields[2].name, "is_open");
}

TEST(ContentTest, OnlyTheFirstFieldsOfAnObjectCount) {
    std::string json = "{\"f0\":0";
    for (int i = 1; i < 100; ++i) {
        json += ",\"f" + std::to_string(i) + "\":0";
    }
    EXPECT_EQ(FieldsOf(json + "}").size(), 16U);
    EXPECT_TRUE(FieldsOf("[1, 2]").empty());
}

}  // namespace
}  // namespace lumora_hub
