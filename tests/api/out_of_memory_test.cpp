// Each allocation of each function fails in turn: the call fails, and the library stays usable.
#include <cjson/cJSON.h>

#include <atomic>
#include <cstdlib>
#include <functional>

#include "tests/api/api_fixture.h"
#include "tests/support/system_faults.h"

namespace lumora_test {
namespace {

// Allocations of a call that is far from ending normally. Bounds a failing test.
constexpr int MANY_ALLOCATIONS = 500;

std::atomic<int> g_jsonAllocationsUntilFailure{0};

void* JsonMalloc(size_t size) {
    return g_jsonAllocationsUntilFailure > 0 && --g_jsonAllocationsUntilFailure == 0 ? nullptr
                                                                                     : std::malloc(size);
}

class OutOfMemoryTest : public ApiTest {
protected:
    void TearDown() override {
        cJSON_InitHooks(nullptr);
        ApiTest::TearDown();
    }

    // Types and names longer than what strings hold without an allocation.
    const std::string LONG_TYPE = "a device type of many characters";

    // Fails the call's n-th allocation, for n = 1, 2, 3 ... until it needs no further one. At least one must
    // have been needed. afterwards puts things as they were.
    void FailEachAllocation(
        const std::function<int()>& call, const std::function<void()>& afterwards = [] {}) {
        int n = 1;
        for (; n < MANY_ALLOCATIONS; ++n) {
            mLog.Clear();
            FailAllocation(n);
            const int result = call();
            const bool failed = !AllocationFailurePending();
            ResetAllocationFaults();
            EXPECT_EQ(failed ? -1 : 0, result) << "allocation " << n << "\n" << mLog.Dump();
            if (failed) {
                EXPECT_FALSE(mLog.Texts(4).empty() && mLog.Texts(1).empty()) << "allocation " << n;
            }
            afterwards();
            if (!failed) {
                break;
            }
        }
        EXPECT_GT(n, 1);
        EXPECT_LT(n, MANY_ALLOCATIONS);
    }

    void FailEachJsonAllocation(const std::function<int()>& call) {
        cJSON_Hooks hooks = {JsonMalloc, std::free};
        cJSON_InitHooks(&hooks);
        int n = 1;
        for (; n < MANY_ALLOCATIONS; ++n) {
            g_jsonAllocationsUntilFailure = n;
            const int result = call();
            const bool failed = g_jsonAllocationsUntilFailure.exchange(0) == 0;
            EXPECT_EQ(failed ? -1 : 0, result) << "allocation " << n;
            if (!failed) {
                break;
            }
        }
        EXPECT_GT(n, 1);
        EXPECT_LT(n, MANY_ALLOCATIONS);
    }
};

// In a process of its own: an ID whose record could not be made stays taken for ever.
class InitClientOutOfMemoryTest : public OutOfMemoryTest {
protected:
    void FailEachInit() {
        FailEachAllocation(
            [this] {
                mClientID = 0;
                return LUM_InitClient(&mClientID, LONG_TYPE.c_str());
            },
            [this] {
                LUM_DeInitClient(mClientID);
                const int next = InitClient();
                EXPECT_EQ(0, LUM_RegisterEvent(next, OnClientEvent));
                LUM_DeInitClient(next);
            });
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    }

private:
    int mClientID = 0;
};

TEST_F(InitClientOutOfMemoryTest, InitClientFailsAndTheNextOneWorks) {
    EXPECT_EXIT(FailEachInit(), testing::ExitedWithCode(0), "");
}

TEST_F(OutOfMemoryTest, ClientModuleThatCannotBeMadeIsReported) {
    int clientID = -77;
    FailAllocation(1);
    EXPECT_EQ(-1, LUM_InitClient(&clientID, "viewer"));
    EXPECT_EQ((Texts{"0 Enter\n", "0 Enter\n", "4 malloc LumoraClientModule failed!\n",
                     "4 LumoraClientModule CreateInstance failed!\n"}),
              Log());
    EXPECT_EQ(-77, clientID);
    EXPECT_EQ(1, InitClient());
}

TEST_F(OutOfMemoryTest, ServerModuleThatCannotBeMadeIsReported) {
    FailAllocation(1);
    EXPECT_EQ(-1, LUM_InitServer("camera"));
    EXPECT_EQ((Texts{"0 Enter\n", "0 Enter\n", "0 Out\n", "4 LumoraServerModule CreateInstance failed!\n"}),
              Log());
    InitServer();
}

TEST_F(OutOfMemoryTest, SecondClientFailsAndTheFirstOneGoesOn) {
    InitClient();
    int clientID = 0;
    // A string of the type is the first thing that this call needs: no ID is given out yet.
    FailAllocation(1);
    EXPECT_EQ(-1, LUM_InitClient(&clientID, LONG_TYPE.c_str()));
    EXPECT_EQ(0, clientID);
    EXPECT_EQ(Texts{"failed: std::bad_alloc\n"}, mLog.Texts(4));
    EXPECT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
    EXPECT_EQ(2, InitClient());
}

TEST_F(OutOfMemoryTest, GetAiDeviceListFailsOrLeavesTheDeviceOut) {
    InitClient();
    mPlatform.devices = {DescribedDevice(ServiceInfo(LONG_TYPE))};
    LUM_DEVICES_INFO_S found;
    FailEachAllocation([&] { return LUM_GetAiDeviceList(LONG_TYPE.c_str(), &found); });
    EXPECT_EQ(1U, found.devNum);
}

TEST_F(OutOfMemoryTest, CreateAiDeviceFails) {
    InitClient();
    mPlatform.devices = {DescribedDevice(ServiceInfo(LONG_TYPE))};
    LUM_DEVICES_INFO_S found;
    ASSERT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    unsigned int handle = 0;
    FailEachAllocation([&] { return LUM_CreateAiDevice(1, LONG_TYPE.c_str(), &handle); });
    EXPECT_EQ(1U, handle);
}

TEST_F(OutOfMemoryTest, RegisterAiDeviceEventFails) {
    InitClient();
    FindCamera(1);
    FailEachAllocation([] { return LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent); });
}

TEST_F(OutOfMemoryTest, ConnectAiDeviceFailsAndTheNextOneWorks) {
    InitClient();
    FindCamera(1);
    mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    FailEachAllocation([] { return LUM_ConnectAiDevice(1, 1); });
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendData(1, 1, "data", 4, &sent, 0)) << mLog.Dump();
}

TEST_F(OutOfMemoryTest, SendCmdFails) {
    BeConnectedClient();
    FailEachAllocation([] { return LUM_SendCmd(1, 1, "SetMode", "night and day"); });
    FailEachJsonAllocation([] { return LUM_SendCmd(1, 1, "SetMode", "night and day"); });
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "SetMode", ""));
}

TEST_F(OutOfMemoryTest, SubscribeFails) {
    BeConnectedClient();
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    SetName(subscription.serviceName, "a service of quite some name");
    const auto* param = reinterpret_cast<const char*>(&subscription);
    FailEachAllocation([&] { return LUM_SendCmd(1, 1, "subscribe", param); });
    FailEachJsonAllocation([&] { return LUM_SendCmd(1, 1, "subscribe", param); });
}

TEST_F(OutOfMemoryTest, SendDataFails) {
    BeConnectedClient();
    unsigned int sent = 77;
    FailEachAllocation([&] { return LUM_SendData(1, 1, "data", 4, &sent, 0); });
    EXPECT_EQ(4U, sent);
}

TEST_F(OutOfMemoryTest, GetServerVersionFails) {
    InitClient();
    FindCamera(1);
    FakeDevice device = mPlatform.devices.front();
    const auto described = device.answer;
    device.answer = [described](const Request& request, std::string& reply) {
        const int result = described(request, reply);
        reply = request.key == "GetVersion" ? "a version of many characters" : reply;
        return result;
    };
    mPlatform.devices = {device};
    LUM_DEVICES_INFO_S found;
    ASSERT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    char text[64];
    FailEachAllocation([&] { return LUM_GetServerVersion(1, 1, text, sizeof(text)); });
}

// What these need is in place already: they work with the last byte spent.
TEST_F(OutOfMemoryTest, LeavingNeedsNoMemory) {
    BeConnectedClient();
    FailAllocation(1, ALWAYS);
    char text[64];
    EXPECT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
    EXPECT_EQ(0, LUM_GetClientVersion(1, text, sizeof(text)));
    EXPECT_EQ(0, LUM_DestoryAiDevice(1, 1));
    EXPECT_EQ(0, LUM_DisconnectAiDevice(1, 1));
    EXPECT_EQ(0, LUM_DeInitClient(1));
    ResetAllocationFaults();
    EXPECT_EQ(0, mPlatform.LiveHandles());
    EXPECT_TRUE(mDevice.SeesEnd());
}

TEST_F(OutOfMemoryTest, InitServerFailsAndTheNextOneWorks) {
    FailEachAllocation([this] { return LUM_InitServer(LONG_TYPE.c_str()); });
    ASSERT_EQ(0, LUM_DeInitServer());
    // Also if an instance is there already.
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, LUM_InitServer(LONG_TYPE.c_str()));
    mPlatform.runResult = 0;
    FailEachAllocation([this] { return LUM_InitServer(LONG_TYPE.c_str()); });
    Register();
}

TEST_F(OutOfMemoryTest, RegisterFailsAndTheNextOneWorks) {
    InitServer();
    const LUM_DEVICE_INFO_S device =
        DeviceRecord({"a service of quite some name", "another service of some name"});
    FailEachAllocation([&] { return LUM_RegisterAiDevInfo(&device); });
    FailEachJsonAllocation([&] { return LUM_RegisterAiDevInfo(&device); });
    EXPECT_NE("", mPlatform.Get("ServiceInfo").reply);
}

TEST_F(OutOfMemoryTest, SendDataToClientFailsAndTheNextOneWorks) {
    InitServer();
    Register({"a service of quite some name"});
    Subscribe(3, "a service of quite some name");
    OpenChannel();
    unsigned int sent = 77;
    FailEachAllocation(
        [&] { return LUM_SendDataToClient("a service of quite some name", "data", 4, &sent, 0); });
    EXPECT_EQ(4U, sent);
}

TEST_F(OutOfMemoryTest, LeavingTheServerNeedsNoMemory) {
    BeServingDevice();
    FailAllocation(1, ALWAYS);
    EXPECT_EQ(0, LUM_DeInitServer());
    ResetAllocationFaults();
    EXPECT_TRUE(mToServer.SeesEnd());
}

}  // namespace
}  // namespace lumora_test
