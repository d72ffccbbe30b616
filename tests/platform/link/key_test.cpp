// Nodes with a key in their settings, in builds with DTLS and without.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/link/io/coap_port.h"
#include "raw_coap_peer.h"
#include "test_node.h"
#include "tests/support/eventually.h"
#include "tests/support/own_network.h"

namespace lumora_link::test {

namespace {

using lumora_test::Eventually;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

struct KeyTest : testing::Test {
    void SetUp() override {
        std::string pattern = testing::TempDir() + "key.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
    }
    void TearDown() override {
        unsetenv("LUMORA_LINK_PSK_FILE");
        std::filesystem::remove_all(folder);
    }
    // For the nodes that are started from now on.
    void UseKey(const std::string& key, mode_t mode = 0600) {
        const std::string path = folder + "/key";
        std::ofstream(path) << "lumora:" << key << "\n";
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        setenv("LUMORA_LINK_PSK_FILE", path.c_str(), 1);
    }

    // A device at a port that its next start takes again.
    bool StartAtPort(const char* port) {
        setenv("LUMORA_LINK_PORT", port, 1);
        const bool started = device.Start();
        unsetenv("LUMORA_LINK_PORT");
        return started;
    }

    std::string folder;
    TestNode asker{"reader"};
    TestNode device{"camera"};
};

struct SecuredNodeTest : KeyTest {
    void SetUp() override {
        if (!CoapPort::CanSecure()) {
            GTEST_SKIP() << "built without DTLS";
        }
        KeyTest::SetUp();
    }
};

}  // namespace

TEST_F(KeyTest, ANodeWhoseKeyMayBeReadByOthersDoesNotRun) {
    UseKey("secret", 0640);
    EXPECT_FALSE(device.Start());
}

TEST_F(KeyTest, ANodeThatMustHaveAKeyAndHasNoneDoesNotRun) {
    unsetenv("LUMORA_LINK_PSK_FILE");
    setenv("LUMORA_LINK_REQUIRE_KEY", "1", 1);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(device.Start());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("a key is required, and LUMORA_LINK_PSK_FILE is not set"));
    setenv("LUMORA_LINK_REQUIRE_KEY", "0", 1);
    EXPECT_TRUE(TestNode("lamp").Start());
    unsetenv("LUMORA_LINK_REQUIRE_KEY");
}

TEST_F(KeyTest, ANodeThatCannotUseItsKeyDoesNotRun) {
    if (CoapPort::CanSecure()) {
        GTEST_SKIP() << "built with DTLS";
    }
    UseKey("secret");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(device.Start());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("LUMORA_LINK_PSK_FILE is set, but this library was built without DTLS"));
}

TEST_F(SecuredNodeTest, PlainRequestsAreRefusedAndSecuredOnesServed) {
    UseKey("secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);

    RawPeer peer(found.At(0));
    peer.Send(RawPost("key", "value"));
    const auto answer = peer.Receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->code, MakeCode(4, 1));
    EXPECT_THAT(device.Requests(), IsEmpty());

    EXPECT_EQ(Post(found.At(0), "key", "value"), 0);
    EXPECT_THAT(device.Requests(), SizeIs(1));
}

TEST_F(SecuredNodeTest, WhoeverAsksWithoutTheKeyIsToldWhereTheNodeIs) {
    UseKey("secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    RawPeer peer(found.At(0));
    peer.Send(MakePing());
    const auto answer = peer.Receive();
    ASSERT_TRUE(answer);
    EXPECT_THAT(answer->payload,
                HasSubstr("<coaps://127.0.0.1:" + std::to_string(found.At(0)->GetPort(found.At(0)) + 1) +
                          "/lumora>"));
}

TEST_F(SecuredNodeTest, AnotherKeyIsOfNoUse) {
    UseKey("secret");
    ASSERT_TRUE(device.Start());
    UseKey("Secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(Eventually([&] {
        Found found(asker, "camera");
        return found.Size() == 1 && Post(found.At(0), "key", "value") != 0;
    }));
    EXPECT_THAT(device.Requests(), IsEmpty());
}

TEST_F(SecuredNodeTest, RequestsToOneNodeShareASession) {
    UseKey("secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    const std::size_t before = OpenDescriptors();
    for (int count = 0; count < 50; ++count) {
        EXPECT_EQ(Post(found.At(0), "key", "value"), 0);
    }
    EXPECT_GT(OpenDescriptors(), before) << "the session stays";
    EXPECT_LT(OpenDescriptors(), before + 10) << "with the sessions of pings, where the machine is slow";
    EXPECT_THAT(device.Requests(), SizeIs(50));
}

TEST_F(SecuredNodeTest, ANodeThatWasStartedAgainIsAskedByANewSession) {
    UseKey("secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(StartAtPort("6200"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    ASSERT_EQ(Post(found.At(0), "before", ""), 0);
    ASSERT_EQ(device.Platform()->Exit(device.Platform()), 0);
    EXPECT_NE(Post(found.At(0), "meanwhile", ""), 0);
    ASSERT_EQ(device.Platform()->Run(device.Platform()), 0);
    EXPECT_EQ(Post(found.At(0), "after", ""), 0);
    EXPECT_THAT(device.Requests(),
                ElementsAre(Request{"POST", "", "before", ""}, Request{"POST", "", "after", ""}));
}

TEST_F(SecuredNodeTest, AForgedGoodbyeRemovesNobody) {
    UseKey("secret");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    ASSERT_TRUE(Eventually([&] { return asker.Events().size() == 1 && device.Events().size() == 1; }));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    RawPeer toDevice(found.At(0));
    toDevice.Send(MakePing());
    const auto link = toDevice.Receive();
    ASSERT_TRUE(link);

    Found readers(device, "reader");
    ASSERT_EQ(readers.Size(), 1U);
    RawPeer toAsker(readers.At(0));
    toAsker.Send(MakeNotice(GOODBYE_PATH, link->payload));
    toAsker.Send(MakePing());
    ASSERT_TRUE(toAsker.Receive()) << "the goodbye has been read";
    EXPECT_EQ(Found(asker, "camera").Size(), 1U);
    EXPECT_THAT(asker.Events(), SizeIs(1));
}

}  // namespace lumora_link::test

int main(int argc, char** argv) {
    lumora_test::EnterOwnNetwork();
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
