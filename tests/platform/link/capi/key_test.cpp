// Nodes with a key in their settings, in builds with DTLS and without.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "link_security.h"
#include "platform/link/io/coap_port.h"
#include "tests/platform/link/capi/test_node.h"
#include "tests/platform/link/io/raw_coap_peer.h"
#include "tests/support/eventually.h"

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

    // Each node has a file of its own, which may be written anew while it runs.
    std::string Write(const std::string& name, const std::string& keys) {
        const std::string path = folder + "/" + name;
        std::ofstream(path + ".new") << keys;
        EXPECT_EQ(chmod((path + ".new").c_str(), 0600), 0);
        std::filesystem::rename(path + ".new", path);
        return path;
    }
    bool StartWith(TestNode& node, const std::string& name, const std::string& keys) {
        setenv("LUMORA_LINK_PSK_FILE", Write(name, keys).c_str(), 1);
        return node.Start();
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

TEST_F(SecuredNodeTest, ARequestWithoutTheKeyIsToldTheAddressOfTheNode) {
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
    ASSERT_TRUE(StartWith(device, "device", "lumora:secret\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:Secret\n"));
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
    EXPECT_LT(OpenDescriptors(), before + 10) << "with the sessions of pings, if the machine is slow";
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

TEST_F(SecuredNodeTest, AForgedGoodbyeRemovesNoNode) {
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

TEST_F(SecuredNodeTest, AClientHoldsAKeyForEachDevice) {
    TestNode lamp("lamp");
    TestNode door("door");
    ASSERT_TRUE(StartWith(asker, "asker", "client:0\ncamera-1:1\nlamp-1:2\n"));
    ASSERT_TRUE(StartWith(device, "device", "camera-1:1\n"));
    ASSERT_TRUE(StartWith(lamp, "lamp", "lamp-1:2\n"));
    ASSERT_TRUE(StartWith(door, "door", "door-1:3\n"));
    Found cameras(asker, "camera");
    Found lamps(asker, "lamp");
    ASSERT_EQ(cameras.Size(), 1U);
    ASSERT_EQ(lamps.Size(), 1U);
    EXPECT_EQ(Post(cameras.At(0), "key", "value"), 0);
    EXPECT_EQ(Post(lamps.At(0), "key", "value"), 0);
    Found doors(asker, "door");
    EXPECT_TRUE(doors.Size() == 0 || Post(doors.At(0), "key", "value") != 0) << "it has another key";
    // What one device gives away opens no other.
    Found otherLamps(device, "lamp");
    EXPECT_TRUE(otherLamps.Size() == 0 || Post(otherLamps.At(0), "key", "value") != 0);
    EXPECT_THAT(lamp.Requests(), SizeIs(1));
    EXPECT_THAT(door.Requests(), IsEmpty());
}

TEST_F(SecuredNodeTest, AKeyIsChangedUnderRunningNodesAndNoRequestFails) {
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:old\n"));
    ASSERT_TRUE(StartWith(device, "device", "lumora:old\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    std::size_t asked = 0;
    const auto AskFor = [&](milliseconds time) {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end) {
            EXPECT_EQ(Post(found.At(0), "key", "value"), 0) << asked;
            ++asked;
            std::this_thread::sleep_for(milliseconds(5));
        }
    };
    constexpr milliseconds READ_AGAIN(1600);
    for (const char* keys : {"lumora:old\nlumora-2:new\n", "lumora-2:new\nlumora:old\n", "lumora-2:new\n"}) {
        Write("asker", keys);
        AskFor(READ_AGAIN);
        Write("device", keys);
        AskFor(READ_AGAIN);
    }
    EXPECT_THAT(device.Requests(), SizeIs(asked));
}

TEST_F(SecuredNodeTest, ARevokedKeyEndsItsSessionsAndLeavesOthersAlone) {
    TestNode other("other");
    ASSERT_TRUE(StartWith(device, "device", "first:1\nsecond:2\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "second:2\n"));
    ASSERT_TRUE(StartWith(other, "other", "first:1\n"));
    Found found(asker, "camera");
    Found same(other, "camera");
    ASSERT_EQ(found.Size(), 1U);
    ASSERT_EQ(same.Size(), 1U);
    ASSERT_EQ(Post(found.At(0), "before", ""), 0);
    ASSERT_EQ(Post(same.At(0), "before", ""), 0);
    Write("device", "first:1\n");
    ASSERT_TRUE(Eventually([&] { return Post(found.At(0), "after", "") != 0; }));
    const std::size_t served = device.Requests().size();
    EXPECT_NE(Post(found.At(0), "after", ""), 0);
    EXPECT_THAT(device.Requests(), SizeIs(served));
    EXPECT_EQ(Post(same.At(0), "after", ""), 0) << "this one has its key still";
}

TEST_F(SecuredNodeTest, AMistakeInTheFileLeavesTheKeysAsTheyAre) {
    ASSERT_TRUE(StartWith(asker, "asker", "lumora:secret\n"));
    ASSERT_TRUE(StartWith(device, "device", "lumora:secret\n"));
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    Write("device", "no key\n");
    std::filesystem::remove(folder + "/asker");
    std::this_thread::sleep_for(milliseconds(1600));
    EXPECT_EQ(Post(found.At(0), "key", "value"), 0);
}

TEST_F(SecuredNodeTest, HandlersAreToldWhichKeyAndWhichNodeAsks) {
    TestNode twin("twin");
    std::mutex mutex;
    std::vector<LinkRequester> seen;
    device.handler = [&](const Request&, std::string&) {
        LinkRequester requester = {};
        EXPECT_EQ(GetLinkSecurity()->GetRequester(&requester), 1);
        const std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(requester);
        return 0;
    };
    ASSERT_TRUE(StartWith(device, "device", "camera-1:1\nspare:2\n"));
    ASSERT_TRUE(StartWith(asker, "asker", "camera-1:1\n"));
    ASSERT_TRUE(StartWith(twin, "twin", "spare:2\n"));
    Found found(asker, "camera");
    Found same(twin, "camera");
    ASSERT_EQ(found.Size(), 1U);
    ASSERT_EQ(same.Size(), 1U);
    for (AppResourceProxy* proxy : {found.At(0), same.At(0), found.At(0)}) {
        EXPECT_EQ(Post(proxy, "key", "value"), 0);
    }
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_STREQ(seen[0].identity, "camera-1");
    EXPECT_STREQ(seen[1].identity, "spare");
    EXPECT_EQ(std::memcmp(seen[0].node, seen[2].node, sizeof seen[0].node), 0);
    EXPECT_NE(std::memcmp(seen[0].node, seen[1].node, sizeof seen[0].node), 0);
    LinkRequester none = {};
    EXPECT_EQ(GetLinkSecurity()->GetRequester(&none), 0) << "no handler runs here";
    EXPECT_EQ(GetLinkSecurity()->GetRequester(nullptr), 0);
}

TEST_F(KeyTest, WithoutAKeyNoRequesterIsKnown) {
    unsetenv("LUMORA_LINK_PSK_FILE");
    device.handler = [&](const Request&, std::string&) {
        LinkRequester requester = {};
        EXPECT_EQ(GetLinkSecurity()->GetRequester(&requester), 0);
        return 0;
    };
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    Found found(asker, "camera");
    ASSERT_EQ(found.Size(), 1U);
    EXPECT_EQ(Post(found.At(0), "key", "value"), 0);
    EXPECT_THAT(device.Requests(), SizeIs(1));
}

}  // namespace lumora_link::test
