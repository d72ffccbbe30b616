// What a child sees after a fork: the threads that keep clients and devices going exist in its parent alone.
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

constexpr char REFUSED[] = "called in a forked child of a process that uses Lumora; only exec may follow.\n";

// Runs check in a child: 0 if it succeeded. A child that hangs is ended by its alarm.
int InForkedChild(const std::function<bool()>& check) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20);
        _exit(check() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

class ForkedChildTest : public ApiTest {
protected:
    // Whether the call fails, and says why in one line of level 4.
    bool IsRefused(const std::function<int()>& call) {
        mLog.Clear();
        return call() == -1 && mLog.Texts(4) == Texts{REFUSED};
    }

    bool EveryClientCallIsRefused() {
        int clientID = 0;
        unsigned int number = 0;
        LUM_DEVICES_INFO_S found;
        char text[64];
        return IsRefused([&] { return LUM_InitClient(&clientID, "viewer"); }) &&
               IsRefused([] { return LUM_RegisterEvent(1, OnClientEvent); }) &&
               IsRefused([&] { return LUM_GetAiDeviceList("camera", &found); }) &&
               IsRefused([&] { return LUM_CreateAiDevice(1, "camera", &number); }) &&
               IsRefused([] { return LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent); }) &&
               IsRefused([] { return LUM_ConnectAiDevice(1, 1); }) &&
               IsRefused([] { return LUM_SendCmd(1, 1, "cmd", ""); }) &&
               IsRefused([&] { return LUM_SendData(1, 1, "data", 4, &number, 0); }) &&
               IsRefused([&] { return LUM_GetClientVersion(1, text, sizeof(text)); }) &&
               IsRefused([&] { return LUM_GetServerVersion(1, 1, text, sizeof(text)); }) &&
               IsRefused([] { return LUM_DisconnectAiDevice(1, 1); }) &&
               IsRefused([] { return LUM_DestoryAiDevice(1, 1); }) &&
               IsRefused([] { return LUM_DeInitClient(1); });
    }

    bool EveryServerCallIsRefused() {
        unsigned int sent = 0;
        const LUM_DEVICE_INFO_S device = DeviceRecord();
        return IsRefused([] { return LUM_InitServer("camera"); }) &&
               IsRefused([&] { return LUM_RegisterAiDevInfo(&device); }) &&
               IsRefused([&] { return LUM_SendDataToClient("face", "data", 4, &sent, 0); }) &&
               IsRefused([] { return LUM_DeInitServer(); });
    }
};

TEST_F(ForkedChildTest, EveryCallFailsBesideAClient) {
    BeConnectedClient();
    EXPECT_EQ(0, InForkedChild([this] { return EveryClientCallIsRefused() && EveryServerCallIsRefused(); }));
    EXPECT_EQ(0, LUM_DisconnectAiDevice(1, 1));  // the parent goes on
}

TEST_F(ForkedChildTest, EveryCallFailsBesideADevice) {
    ASSERT_EQ(0, LUM_InitServer("camera"));
    EXPECT_EQ(0, InForkedChild([this] { return EveryClientCallIsRefused() && EveryServerCallIsRefused(); }));
    EXPECT_EQ(0, LUM_DeInitServer());
}

TEST_F(ForkedChildTest, NoCallWaitsForOneThatTheParentWasIn) {
    InitClient();
    Signal inSearch;
    Signal forked;
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera"))};
    mPlatform.devices[0].answer = [&](const Request&, std::string&) {
        inSearch.Set();
        forked.Wait();
        return -1;
    };
    std::thread searching([] {
        LUM_DEVICES_INFO_S found;
        LUM_GetAiDeviceList("camera", &found);
    });
    inSearch.Wait();
    const int status = InForkedChild([this] { return IsRefused([] { return LUM_DeInitClient(1); }); });
    forked.Set();
    searching.join();
    EXPECT_EQ(0, status);
}

TEST_F(ForkedChildTest, AProcessThatBecomesADaemonFirstCanUseEverything) {
    EXPECT_EQ(0, InForkedChild([] { return LUM_InitServer("camera") == 0 && LUM_DeInitServer() == 0; }));
}

TEST_F(ForkedChildTest, AChildMayBeginAnewAfterTheParentHadEnded) {
    InitClient();
    ASSERT_EQ(0, LUM_DeInitClient(1));
    EXPECT_EQ(0, InForkedChild([] {
                  int clientID = 0;
                  return LUM_InitClient(&clientID, "viewer") == 0 && LUM_DeInitClient(clientID) == 0;
              }));
}

}  // namespace
}  // namespace lumora_test
