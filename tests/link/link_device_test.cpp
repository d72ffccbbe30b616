#include "link/link_device.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>

#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakePlatform;
using lumora_test::Request;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char TOO_LARGE[] = "value size is larger than (1023:1023)\n";

class LinkDeviceTest : public testing::Test {
protected:
    LinkDeviceTest() : mHandle(GetLinkPlatform()) { mPlatform.devices.resize(3); }
    ~LinkDeviceTest() override {
        FreeLinkPlatform(mHandle);
        lumora_test::ResetBoundedCalls();
    }

    // The first of the chain of three.
    AppResourceProxy* FindProxies() { return mHandle->FindResource(mHandle, "camera"); }
    // One alone.
    AppResourceProxy* FindProxy() {
        mPlatform.devices.resize(1);
        return FindProxies();
    }
    std::shared_ptr<LinkDevice> FindDevice() { return std::make_shared<LinkDeviceImpl>(*FindProxy()); }
    void AnswerWith(int result, const std::string& reply = "") {
        mPlatform.devices[0].answer = [=](const Request&, std::string& out) {
            out = reply;
            return result;
        };
    }

    CapturedLog mLog;
    FakePlatform mPlatform;
    LinkPlatform* mHandle;
    std::string mOut = "before";
};

TEST_F(LinkDeviceTest, PutPostAndDeleteReachTheDevice) {
    const auto device = FindDevice();
    EXPECT_EQ(0, device->Put("StopTransport", "now", mOut));
    EXPECT_EQ(0, device->Post("Command", "{}", mOut));
    EXPECT_EQ(0, device->Delete("x", "", mOut));
    EXPECT_THAT(mPlatform.Requests(),
                ElementsAre(Request{"Put", "StopTransport", "now"}, Request{"Post", "Command", "{}"},
                            Request{"Delete", "x", ""}));
    EXPECT_EQ("before", mOut);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(LinkDeviceTest, LengthOfAValueGoesWithoutItsTerminator) {
    static unsigned int length;
    AppResourceProxy* proxy = FindProxy();
    proxy->Put = [](AppResourceProxy*, const char*, const char* value, unsigned int count) {
        length = count;
        return value[count] == '\0' ? 0 : 1;
    };
    LinkDeviceImpl device(*proxy);
    EXPECT_EQ(0, device.Put("k", "12345", mOut));
    EXPECT_EQ(5U, length);
}

TEST_F(LinkDeviceTest, GetTakesTheReply) {
    AnswerWith(0, "busy");
    EXPECT_EQ(0, FindDevice()->Get("TransStatus", "asked", mOut));
    EXPECT_EQ("busy", mOut);
    EXPECT_THAT(mPlatform.Requests(), ElementsAre(Request{"Get", "TransStatus", "asked"}));
}

TEST_F(LinkDeviceTest, EmptyReplyEmptiesTheText) {
    AnswerWith(0, "");
    EXPECT_EQ(0, FindDevice()->Get("k", "v", mOut));
    EXPECT_EQ("", mOut);
}

TEST_F(LinkDeviceTest, ResultsOfThePlatformComeUpUnchanged) {
    for (const int result : {-1, 7, -2147483647 - 1}) {
        AnswerWith(result, "a reply that is not read");
        const auto device = FindDevice();
        EXPECT_EQ(result, device->Get("k", "v", mOut));
        EXPECT_EQ(result, device->Put("k", "v", mOut));
        EXPECT_EQ(result, device->Post("k", "v", mOut));
        EXPECT_EQ(result, device->Delete("k", "v", mOut));
        EXPECT_EQ(result, device->SetupMediaService("v", mOut));
    }
    EXPECT_EQ("before", mOut);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(LinkDeviceTest, ValueOf1022CharactersIsSent) {
    const std::string value(1022, 'v');
    const auto device = FindDevice();
    EXPECT_EQ(0, device->Put("k", value, mOut));
    EXPECT_EQ(0, device->Post("k", value, mOut));
    EXPECT_EQ(0, device->Delete("k", value, mOut));
    EXPECT_EQ(0, device->Get("k", value, mOut));
    EXPECT_THAT(mPlatform.Requests(), ElementsAre(Request{"Put", "k", value}, Request{"Post", "k", value},
                                                  Request{"Delete", "k", value}, Request{"Get", "k", value}));
}

TEST_F(LinkDeviceTest, ValueOf1023CharactersIsRefused) {
    const std::string value(1023, 'v');
    const auto device = FindDevice();
    EXPECT_EQ(-1, device->Put("k", value, mOut));
    EXPECT_EQ(-1, device->Post("k", value, mOut));
    EXPECT_EQ(-1, device->Delete("k", value, mOut));
    EXPECT_EQ(-1, device->Get("k", value, mOut));
    EXPECT_EQ(-1, device->SetupMediaService(value, mOut));
    EXPECT_THAT(mLog.Texts(4), ElementsAre(TOO_LARGE, TOO_LARGE, TOO_LARGE, TOO_LARGE, TOO_LARGE));
    EXPECT_THAT(mPlatform.Requests(), IsEmpty());
    EXPECT_EQ("before", mOut);
}

TEST_F(LinkDeviceTest, SizeCheckNamesTheLength) {
    EXPECT_TRUE(CheckValueSize(0));
    EXPECT_TRUE(CheckValueSize(1022));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    EXPECT_FALSE(CheckValueSize(1023));
    EXPECT_FALSE(CheckValueSize(5000));
    EXPECT_THAT(mLog.Texts(4), ElementsAre(TOO_LARGE, "value size is larger than (5000:1023)\n"));
}

TEST_F(LinkDeviceTest, GetOffers1023BytesOfAClearedBufferOf1024) {
    static unsigned int capacity;
    static bool cleared;
    AppResourceProxy* proxy = FindProxy();
    proxy->Get = [](AppResourceProxy*, const char*, char* buffer, unsigned int size) {
        capacity = size;
        cleared = std::string(buffer) == "abc";
        for (unsigned int i = 3; i <= size; ++i) {
            cleared = cleared && buffer[i] == '\0';
        }
        return 0;
    };
    LinkDeviceImpl device(*proxy);
    EXPECT_EQ(0, device.Get("k", "abc", mOut));
    EXPECT_EQ(1023U, capacity);
    EXPECT_TRUE(cleared);
    EXPECT_EQ("abc", mOut);
}

TEST_F(LinkDeviceTest, ReplyMayFillTheWholeCapacity) {
    AppResourceProxy* proxy = FindProxy();
    proxy->Get = [](AppResourceProxy*, const char*, char* buffer, unsigned int size) {
        std::memset(buffer, 'r', size);  // and no terminator
        return 0;
    };
    LinkDeviceImpl device(*proxy);
    EXPECT_EQ(0, device.Get("k", "v", mOut));
    EXPECT_EQ(std::string(1023, 'r'), mOut);
}

TEST_F(LinkDeviceTest, CopyThatFailsFailsTheGet) {
    const auto device = FindDevice();
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY);
    EXPECT_EQ(-1, device->Get("k", "v", mOut));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memcpy_s failed\n"));
    EXPECT_THAT(mPlatform.Requests(), IsEmpty());
    EXPECT_EQ("before", mOut);
}

TEST_F(LinkDeviceTest, MediaServiceIsSetUpByAGetOfItsOwnKey) {
    AnswerWith(0, "Succ");
    EXPECT_EQ(0, FindDevice()->SetupMediaService("a setup string", mOut));
    EXPECT_THAT(mPlatform.Requests(),
                ElementsAre(Request{"Get", ".sys.mediaservice.setup", "a setup string"}));
    EXPECT_EQ("Succ", mOut);
}

TEST_F(LinkDeviceTest, MediaServiceIsSetUpByTheGetOfASubclass) {
    struct Subclass : LinkDeviceImpl {
        using LinkDeviceImpl::LinkDeviceImpl;
        int Get(const std::string& key, const std::string& value, std::string& out) override {
            out = key + "=" + value;
            return 5;
        }
    };
    Subclass device(nullptr);
    EXPECT_EQ(5, device.SetupMediaService("setup", mOut));
    EXPECT_EQ(".sys.mediaservice.setup=setup", mOut);
}

TEST_F(LinkDeviceTest, AddressAndPortAreTheProxys) {
    mPlatform.devices[0].address = "192.168.7.9";
    mPlatform.devices[0].port = 40001;
    const auto device = FindDevice();
    EXPECT_EQ("192.168.7.9", device->Address());
    EXPECT_EQ(40001, device->Port());
}

TEST_F(LinkDeviceTest, ProxyWithoutAnAddressHasAnEmptyOne) {
    AppResourceProxy* proxy = FindProxy();
    proxy->GetAddress = [](AppResourceProxy*) -> const char* { return nullptr; };
    EXPECT_EQ("", LinkDeviceImpl(*proxy).Address());
}

TEST_F(LinkDeviceTest, HandleWithoutAProxySucceedsAndDoesNothing) {
    {
        LinkDeviceImpl device(nullptr);
        EXPECT_EQ(0, device.Put("k", "v", mOut));
        EXPECT_EQ(0, device.Post("k", "v", mOut));
        EXPECT_EQ(0, device.Delete("k", "v", mOut));
        EXPECT_EQ(0, device.Get("k", "v", mOut));
        EXPECT_EQ(0, device.SetupMediaService("v", mOut));
        EXPECT_EQ("", device.Address());
        EXPECT_EQ(0, device.Port());
    }
    EXPECT_EQ("before", mOut);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    EXPECT_EQ(0, mPlatform.FreedProxies());
}

TEST_F(LinkDeviceTest, SizeIsCheckedBeforeTheProxy) {
    LinkDeviceImpl device(nullptr);
    EXPECT_EQ(-1, device.Put("k", std::string(1023, 'v'), mOut));
    EXPECT_EQ(-1, device.Get("k", std::string(1023, 'v'), mOut));
    EXPECT_THAT(mLog.Texts(4), ElementsAre(TOO_LARGE, TOO_LARGE));
}

TEST_F(LinkDeviceTest, LastReferenceFreesTheProxyOnce) {
    auto device = FindDevice();
    auto second = device;
    device.reset();
    EXPECT_EQ(0, mPlatform.FreedProxies());
    second.reset();
    EXPECT_EQ(1, mPlatform.FreedProxies());
    EXPECT_EQ(0, mPlatform.LiveProxies());
}

TEST_F(LinkDeviceTest, HandlesOfOneSearchDieInAnyOrder) {
    const std::size_t orders[][3] = {{0, 1, 2}, {2, 1, 0}, {1, 0, 2}, {1, 2, 0}};
    for (const auto& order : orders) {
        std::shared_ptr<LinkDevice> devices[3];
        AppResourceProxy* proxy = FindProxies();
        for (auto& device : devices) {
            device = std::make_shared<LinkDeviceImpl>(*proxy);
            proxy = GetNextAppResourceProxy(proxy);
        }
        EXPECT_EQ(nullptr, proxy);
        for (const std::size_t index : order) {
            EXPECT_EQ(0, devices[index]->Put("k", "v", mOut));
            devices[index].reset();
        }
        EXPECT_EQ(0, mPlatform.LiveProxies());
    }
}

TEST_F(LinkDeviceTest, BaseClassImplementsNothing) {
    LinkDevice device;
    EXPECT_EQ(-1, device.Put("k", "v", mOut));
    EXPECT_EQ(-1, device.Get("k", "v", mOut));
    EXPECT_EQ(-1, device.Post("k", "v", mOut));
    EXPECT_EQ(-1, device.Delete("k", "v", mOut));
    EXPECT_EQ(-1, device.SetupMediaService("v", mOut));
    EXPECT_EQ("", device.Address());
    EXPECT_EQ(0, device.Port());
    EXPECT_EQ("before", mOut);
    EXPECT_EQ(7, mLog.Count(1, "NOT IMPLEMENT\n")) << mLog.Dump();
    EXPECT_EQ(7U, mLog.Lines().size());
}

}  // namespace
}  // namespace lumora
