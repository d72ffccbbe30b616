// The small languages inside of requests.
#include "hub/web/request.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

TEST(PercentDecodeTest, LeavesWhatIsNoCode) {
    EXPECT_EQ("a/b", PercentDecode("a%2Fb"));
    EXPECT_EQ("a/b", PercentDecode("a%2fb"));
    EXPECT_EQ("100%", PercentDecode("100%"));
    EXPECT_EQ("%2", PercentDecode("%2"));
    EXPECT_EQ("%zz", PercentDecode("%zz"));
    EXPECT_EQ("a+b", PercentDecode("a+b"));
    EXPECT_EQ("a b", PercentDecode("a+b", true));
    EXPECT_EQ(std::string("\0", 1), PercentDecode("%00"));
}

TEST(FormTest, IsReadInPairsUpToALimit) {
    const auto pairs = ReadForm("token=a%26b&empty=&alone&x=1=2");
    EXPECT_EQ("a&b", pairs.at("token"));
    EXPECT_EQ("", pairs.at("empty"));
    EXPECT_EQ("", pairs.at("alone"));
    EXPECT_EQ("1=2", pairs.at("x"));
    std::string many;
    for (int count = 0; count < 1000; ++count) {
        many += "n" + std::to_string(count) + "=1&";
    }
    EXPECT_EQ(16U, ReadForm(many).size());
}

TEST(CookieTest, IsFoundByItsWholeName) {
    EXPECT_EQ("1", CookieValue("a=0; b=1 ; ab=2", "b"));
    EXPECT_EQ("", CookieValue("ab=2", "b"));
    EXPECT_EQ("x=y", CookieValue("b=x=y", "b"));
    EXPECT_EQ("", CookieValue("", "b"));
}

TEST(HostNameTest, GoesWithoutItsPort) {
    EXPECT_EQ("hub", HostName("HUB:80"));
    EXPECT_EQ("::1", HostName("[::1]:80"));
    EXPECT_EQ("1.2.3.4", HostName("1.2.3.4"));
    for (const char* const host : {"hub:80a", "[::1", "[::1]80", "a:b:c"}) {
        EXPECT_EQ("", HostName(host)) << host;
    }
}

TEST(SecretTest, IsTheSameWholeOrNotAtAll) {
    EXPECT_TRUE(SameSecret("", ""));
    EXPECT_TRUE(SameSecret("abc", "abc"));
    EXPECT_FALSE(SameSecret("abc", "abd"));
    EXPECT_FALSE(SameSecret("abc", "Abc"));
    EXPECT_FALSE(SameSecret("abc", "ab"));
}

}  // namespace
}  // namespace lumora_hub::web
