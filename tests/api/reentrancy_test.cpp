// Exported functions called from inside the callbacks of their own side.
#include <functional>
#include <map>
#include <thread>

#include "tests/api/api_fixture.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

struct ExportedCall {
    const char* name;
    bool traced;
    std::function<int()> call;
};

// Every function of a side, with arguments that it would accept.
const std::vector<ExportedCall>& ClientCalls() {
    static int clientID = 0;
    static unsigned int number = 0;
    static LUM_DEVICES_INFO_S found;
    static char text[64];
    static const std::vector<ExportedCall> calls = {
        {"LUM_InitClient", true, [] { return LUM_InitClient(&clientID, "viewer"); }},
        {"LUM_DeInitClient", true, [] { return LUM_DeInitClient(1); }},
        {"LUM_RegisterEvent", false, [] { return LUM_RegisterEvent(1, OnClientEvent); }},
        {"LUM_GetAiDeviceList", false, [] { return LUM_GetAiDeviceList("camera", &found); }},
        {"LUM_CreateAiDevice", false, [] { return LUM_CreateAiDevice(1, "camera", &number); }},
        {"LUM_RegisterAiDeviceEvent", false, [] { return LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent); }},
        {"LUM_ConnectAiDevice", true, [] { return LUM_ConnectAiDevice(1, 1); }},
        {"LUM_DisconnectAiDevice", false, [] { return LUM_DisconnectAiDevice(1, 1); }},
        {"LUM_DestoryAiDevice", false, [] { return LUM_DestoryAiDevice(1, 1); }},
        {"LUM_SendCmd", false, [] { return LUM_SendCmd(1, 1, "cmd", ""); }},
        {"LUM_SendData", false, [] { return LUM_SendData(1, 1, "data", 4, &number, 0); }},
        {"LUM_GetClientVersion", false, [] { return LUM_GetClientVersion(1, text, sizeof(text)); }},
        {"LUM_GetServerVersion", false, [] { return LUM_GetServerVersion(1, 1, text, sizeof(text)); }},
    };
    return calls;
}

const std::vector<ExportedCall>& ServerCalls() {
    static unsigned int sent = 0;
    static const LUM_DEVICE_INFO_S device = DeviceRecord();
    static const std::vector<ExportedCall> calls = {
        {"LUM_InitServer", true, [] { return LUM_InitServer("camera"); }},
        {"LUM_RegisterAiDevInfo", false, [] { return LUM_RegisterAiDevInfo(&device); }},
        {"LUM_SendDataToClient", true, [] { return LUM_SendDataToClient("face", "data", 4, &sent, 0); }},
        {"LUM_DeInitServer", true, [] { return LUM_DeInitServer(); }},
    };
    return calls;
}

const char* const SAME_SIDE = "called from a callback of the same side: it would wait for itself.\n";
const char* const FROM_ON_DATA = "called from OnData: it would wait for itself.\n";

class ReentrancyTest : public ApiTest {
protected:
    // For a callback: makes all calls, once.
    std::function<void()> MakingAll(const std::vector<ExportedCall>& calls) {
        return [this, &calls] {
            for (const ExportedCall& exported : calls) {
                mResults[exported.name] = exported.call();
            }
            mDone.Set();
        };
    }

    void ExpectRefused(const ExportedCall& exported, const char* reason) {
        ASSERT_EQ(1U, mResults.count(exported.name)) << exported.name;
        EXPECT_EQ(-1, mResults[exported.name]) << exported.name;
        Texts expected = {std::string("4 ") + reason};
        if (exported.traced) {
            expected.insert(expected.begin(), "0 Enter\n");
        }
        EXPECT_EQ(expected, LogOf(exported.name)) << exported.name;
    }

    void ExpectAllRefused(const std::vector<ExportedCall>& calls, const char* reason) {
        mDone.Wait();
        for (const ExportedCall& exported : calls) {
            ExpectRefused(exported, reason);
        }
    }

    std::map<std::string, int> mResults;
    Signal mDone;
};

TEST_F(ReentrancyTest, ClientFunctionsFailInTheClientEventCallback) {
    BeConnectedClient();
    ASSERT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
    Reactions reactions;
    const auto makeAll = MakingAll(ClientCalls());
    reactions.clientEvent = [&](int, LUM_EVENT_E) { makeAll(); };
    React(reactions);
    mLog.Clear();
    RemoveCamera();
    ExpectAllRefused(ClientCalls(), SAME_SIDE);
    EXPECT_EQ(0, LUM_DeInitClient(1)) << mLog.Dump();
}

TEST_F(ReentrancyTest, ClientFunctionsFailInTheDeviceEventCallback) {
    BeConnectedClient();
    ASSERT_EQ(0, LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent));
    Reactions reactions;
    const auto makeAll = MakingAll(ClientCalls());
    reactions.deviceEvent = [&](const LUM_DEVICE_EVENT_S&) { makeAll(); };
    React(reactions);
    mLog.Clear();
    SendFromDevice(1, "data");
    ExpectAllRefused(ClientCalls(), SAME_SIDE);
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "cmd", "")) << mLog.Dump();
}

TEST_F(ReentrancyTest, ServerFunctionsFailInOnCommand) {
    BeServingDevice();
    Reactions reactions;
    const auto makeAll = MakingAll(ServerCalls());
    reactions.command = [&](const std::string&, const std::string&) { makeAll(); };
    React(reactions);
    mLog.Clear();
    EXPECT_EQ(0, mPlatform.Post("Command", R"({"ClientID":3,"cmd":"SetMode","param":""})"));
    ExpectAllRefused(ServerCalls(), SAME_SIDE);
    Register();
}

TEST_F(ReentrancyTest, ServerFunctionsFailInOnEventNotify) {
    InitServer();
    Register();
    Reactions reactions;
    const auto makeAll = MakingAll(ServerCalls());
    reactions.notify = [&](int, int) { makeAll(); };
    React(reactions);
    mLog.Clear();
    Subscribe(3, "face");
    ExpectAllRefused(ServerCalls(), SAME_SIDE);
    Register();
}

TEST_F(ReentrancyTest, ServerFunctionsFailWhenAClientThatLeavesEndsItsSubscription) {
    BeServingDevice();
    EXPECT_EQ(0, mPlatform.Post("Connect", "3"));
    Reactions reactions;
    const auto makeAll = MakingAll(ServerCalls());
    reactions.notify = [&](int, int) { makeAll(); };
    React(reactions);
    mLog.Clear();
    EXPECT_EQ(0, mPlatform.Post("Destroy", "3"));
    ExpectAllRefused(ServerCalls(), SAME_SIDE);
}

TEST_F(ReentrancyTest, OnDataMaySendAndNothingElseOfTheServerSide) {
    BeServingDevice();
    Reactions reactions;
    const auto makeAll = MakingAll(ServerCalls());
    reactions.data = [&](int, const std::string&) { makeAll(); };
    React(reactions);
    mLog.Clear();
    mToServer.Send(ClientFrame(3, "question"));
    mDone.Wait();
    for (const ExportedCall& exported : ServerCalls()) {
        if (exported.name == std::string("LUM_SendDataToClient")) {
            EXPECT_EQ(0, mResults[exported.name]) << mLog.Dump();
        } else {
            ExpectRefused(exported, FROM_ON_DATA);
        }
    }
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "data"), mFromServer.Receive(16));
}

TEST_F(ReentrancyTest, OtherThreadsMayCallWhileADataCallbackRuns) {
    BeConnectedClient();
    ASSERT_EQ(0, LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent));
    int result = -77;
    Signal done;
    Reactions reactions;
    reactions.deviceEvent = [&](const LUM_DEVICE_EVENT_S&) {
        std::thread([&] { result = LUM_DisconnectAiDevice(1, 1); }).join();
        done.Set();
    };
    React(reactions);
    SendFromDevice(1, "data");
    done.Wait();
    EXPECT_EQ(0, result) << mLog.Dump();
}

// The two sides have locks of their own.
TEST_F(ReentrancyTest, CallbacksOfOneSideMayCallTheOther) {
    InitServer();
    Register();
    Reactions reactions;
    int clientID = 0;
    reactions.command = [&](const std::string&, const std::string&) {
        mResults["init"] = LUM_InitClient(&clientID, "viewer");
        mResults["deinit"] = LUM_DeInitClient(clientID);
    };
    React(reactions);
    EXPECT_EQ(0, mPlatform.Post("Command", R"({"ClientID":3,"cmd":"SetMode","param":""})"));
    EXPECT_EQ((std::map<std::string, int>{{"init", 0}, {"deinit", 0}}), mResults) << mLog.Dump();
}

}  // namespace
}  // namespace lumora_test
