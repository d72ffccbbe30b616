// Where the web face listens, and which options are refused.
#include "hub/web/options.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

TEST(ListenAddressTest, IsAnAddressAndAPort) {
    WebOptions options;
    EXPECT_TRUE(ReadListenAddress("192.0.2.1:80", options));
    EXPECT_EQ("192.0.2.1", options.address);
    EXPECT_EQ(80, options.port);
    EXPECT_TRUE(ReadListenAddress("[::1]:65535", options));
    EXPECT_EQ("::1", options.address);
    for (const char* const text : {"", ":80", "80", "localhost:80", "1.2.3.4:", "1.2.3.4:65536", "1.2.3.4:-1",
                                   "1.2.3.4:8o", "::1:80", "[1.2.3.4]:80", "[::1]"}) {
        EXPECT_FALSE(ReadListenAddress(text, options)) << text;
        EXPECT_EQ("::1", options.address);
    }
}

TEST(LoopbackTest, IsWhatThisHostAloneReaches) {
    for (const char* const address : {"127.0.0.1", "127.9.9.9", "::1"}) {
        EXPECT_TRUE(IsLoopback(address)) << address;
    }
    for (const char* const address : {"0.0.0.0", "::", "10.0.0.1", "128.0.0.1", "fe80::1", "localhost", ""}) {
        EXPECT_FALSE(IsLoopback(address)) << address;
    }
}

TEST(RefusalTest, OtherHostsNeedATokenAndTls) {
    WebOptions options;
    EXPECT_EQ("", Refusal(options));
    options.address = "0.0.0.0";
    EXPECT_NE("", Refusal(options));
    options.token = "0123456789abcdef";
    EXPECT_NE("", Refusal(options));
    options.plainAllowed = true;
    EXPECT_EQ("", Refusal(options));
    options.plainAllowed = false;
    options.certificateFile = "certificate";
    EXPECT_NE("", Refusal(options));
    options.keyFile = "key";
    EXPECT_EQ("", Refusal(options));
}

TEST(RefusalTest, ATokenMustBeLongAndSendable) {
    for (const char* const token : {"0123456789abcde", "0123456789 abcdef", "0123456789\tabcdef",
                                    "0123456789\xC3\xBC"
                                    "abcdef"}) {
        WebOptions options;
        options.token = token;
        EXPECT_NE("", Refusal(options)) << token;
    }
}

}  // namespace
}  // namespace lumora_hub::web
