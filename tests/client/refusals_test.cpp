// What each operation refuses, in the order of its checks: a call lacks what one check asks for, and
// everything that the later ones ask for.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Refusal {
    const char* of;
    std::function<int()> call;
    std::string text;
    int level = 4;
};

class RefusalTest : public ChannelTest {
protected:
    RefusalTest() : mCamera(Camera()) {}

    // Each call fails with this one line, asks no device and writes no result.
    void ExpectRefused(const std::vector<Refusal>& refusals) {
        for (const Refusal& refusal : refusals) {
            SCOPED_TRACE(refusal.of);
            ForgetAsked();
            mLog.Clear();
            EXPECT_EQ(-1, refusal.call());
            EXPECT_THAT(mLog.Texts(refusal.level), ElementsAre(refusal.text)) << mLog.Dump();
            EXPECT_EQ(refusal.level == 4 ? 1U : 0U, mLog.Texts(4).size()) << mLog.Dump();
            EXPECT_THAT(Asked(), IsEmpty());
            EXPECT_EQ(99U, mSent);
            EXPECT_EQ(99U, mHandle);
            EXPECT_EQ("before", mVersion);
            EXPECT_THAT(ClientModuleProbe::IdsInUse(), ElementsAre(1U));
        }
    }
    int Create(int clientID, std::string serviceType, unsigned int* handle) {
        return mModule->CreateAiDevice(clientID, serviceType, handle);
    }
    int Find(LUM_DEVICES_INFO_S* devices) {
        std::string type = "camera";
        return mModule->GetNetDeviceList(type, devices);
    }
    int SendRaw(const void* data, unsigned int handle, int clientID) {
        SendDataInfo info(data, 3, 1000);
        return mModule->SendData(clientID, handle, info, mSent);
    }
    int Command(unsigned int handle, const char* cmd, const char* param, int clientID = NO_CLIENT) {
        return mModule->SendCmd(clientID, handle, cmd, param);
    }

    const unsigned int mCamera;
    unsigned int mHandle = 99;
    std::string mVersion = "before";
};

TEST_F(RefusalTest, CallsWithoutAnArgumentClientOrHandle) {
    const char* const NO_RECORD = "ClientID : 17 no resource!!\n";
    ExpectRefused({
        {"DeInit: count", [&] { return mModule->DeInitLumoraModule(NO_CLIENT, nullptr); },
         "clientNum nullptr\n"},
        {"DeInit: count, of a client", [&] { return mModule->DeInitLumoraModule(1, nullptr); },
         "clientNum nullptr\n"},
        {"DeInit: client", [&] { return RemoveClient(NO_CLIENT); }, NO_RECORD},
        {"RegisterEvent: client", [&] { return mModule->RegisterEvent(NO_CLIENT, RemovalCallback); },
         NO_RECORD},
        {"CreateAiDevice: client", [&] { return Create(NO_CLIENT, "nothing", &mHandle); }, NO_RECORD},
        {"CreateAiDevice: type", [&] { return Create(1, "nothing", &mHandle); },
         "No service type :nothing found in net!\n"},
        {"CreateAiDevice: type, exactly", [&] { return Create(1, "Camera", &mHandle); },
         "No service type :Camera found in net!\n"},
        {"CreateAiDevice: type, empty", [&] { return Create(1, "", &mHandle); },
         "No service type : found in net!\n"},
        {"DestoryAiDevice: client", [&] { return mModule->DestoryAiDevice(NO_CLIENT, NO_HANDLE); },
         NO_RECORD},
        {"DestoryAiDevice: handle", [&] { return mModule->DestoryAiDevice(1, NO_HANDLE); },
         "Handle error: 4711, no such device!\n"},
        {"ConnectAiDevice: handle", [&] { return TryToConnect(NO_CLIENT, NO_HANDLE); },
         "Handle error, ConnectAiDevice failed!\n", 1},
        {"ConnectAiDevice: client", [&] { return TryToConnect(NO_CLIENT, mCamera); }, NO_RECORD, 1},
        {"DisconnectAiDevice: handle", [&] { return mModule->DisconnectAiDevice(NO_CLIENT, NO_HANDLE); },
         "Handle error: 4711, no such device!\n"},
        {"DisconnectAiDevice: client", [&] { return mModule->DisconnectAiDevice(NO_CLIENT, mCamera); },
         NO_RECORD},
        {"RegisterAiDeviceEvent: callback",
         [&] { return mModule->RegisterAiDeviceEvent(NO_CLIENT, NO_HANDLE, nullptr); },
         "callback is null!\n"},
        {"RegisterAiDeviceEvent: client",
         [&] { return mModule->RegisterAiDeviceEvent(NO_CLIENT, NO_HANDLE, FirstCallback); }, NO_RECORD},
        {"RegisterAiDeviceEvent: handle",
         [&] { return mModule->RegisterAiDeviceEvent(1, NO_HANDLE, FirstCallback); },
         "No such Handle, RegisterAiDeviceEvent failed!\n"},
        {"GetClientVersion: client", [&] { return mModule->GetClientVersion(NO_CLIENT, mVersion); },
         NO_RECORD},
        {"GetServerVersion: client",
         [&] { return mModule->GetServerVersion(NO_CLIENT, NO_HANDLE, mVersion); }, NO_RECORD},
        {"GetServerVersion: handle", [&] { return mModule->GetServerVersion(1, NO_HANDLE, mVersion); },
         "Handle error: 4711, no such device!\n"},
        {"SendCmd: command", [&] { return Command(NO_HANDLE, nullptr, nullptr); }, "cmd is null!\n"},
        {"SendCmd: parameter", [&] { return Command(NO_HANDLE, "Hello", nullptr); }, "param is nullptr!\n"},
        {"SendCmd: handle", [&] { return Command(NO_HANDLE, "Hello", ""); },
         "Handle error: 4711, no such device!\n"},
        {"SendCmd: client", [&] { return Command(mCamera, "Hello", ""); }, "No such ClientID : 17!!\n"},
        {"SendData: data", [&] { return SendRaw(nullptr, NO_HANDLE, NO_CLIENT); }, "buffer is nullptr!\n"},
        {"SendData: handle", [&] { return SendRaw("abc", NO_HANDLE, NO_CLIENT); },
         "Error: 4711,no such device!\n"},
        {"SendData: client", [&] { return SendRaw("abc", mCamera, NO_CLIENT); }, "No such ClientID : 17!!\n"},
    });
    EXPECT_EQ(99U, mClientsLeft);
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));
    Bytes frame = lumora_test::ServerFrameBytes("\x01", "face", "data");
    mModule->OnRecvData(&frame[0], static_cast<unsigned int>(frame.size()));
    EXPECT_THAT(ReceivedEvents(), IsEmpty()) << "a refused callback is not kept";
}

TEST_F(RefusalTest, CallsForADeviceThatTheLastSearchDidNotFind) {
    LoseTheCamera();
    ExpectRefused({
        {"DestoryAiDevice", [&] { return mModule->DestoryAiDevice(1, mCamera); },
         "Device source: camera no resource!\n"},
        {"ConnectAiDevice", [&] { return TryToConnect(NO_CLIENT, mCamera); },
         "Handle error, No such device!\n", 1},
        {"GetServerVersion", [&] { return mModule->GetServerVersion(1, mCamera, mVersion); },
         "Handle error, no such handle!\n"},
        {"SendCmd", [&] { return Command(mCamera, "Hello", ""); }, "Handle error: 1, no such device!\n"},
        {"SendData", [&] { return SendRaw("abc", mCamera, NO_CLIENT); }, "Error:1, no such Handle!\n"},
    });
}

TEST_F(RefusalTest, CallsOnAStoppedLink) {
    EXPECT_EQ(0, RemoveClient(1));
    TakeId();
    mFound.devNum = 3;
    const std::size_t searches = mPlatform.Searches().size();
    ExpectRefused({{"GetNetDeviceList: list", [&] { return Find(nullptr); }, "devsInfo invalid!\n"}});
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    ExpectRefused({
        {"GetNetDeviceList", [&] { return Find(&mFound); },
         "mSmartHomeLink is not running, you can't GetNetDevices\n"},
        {"CreateAiDevice: handle", [&] { return Create(NO_CLIENT, "nothing", nullptr); },
         "handle invalid!\n"},
        {"CreateAiDevice", [&] { return Create(NO_CLIENT, "nothing", &mHandle); },
         "mSmartHomeLink is not running, you can't CreateAiDevice\n"},
    });
    EXPECT_EQ(3U, mFound.devNum);
    EXPECT_EQ(searches, mPlatform.Searches().size());
}

TEST_F(RefusalTest, DataForAHandleWithoutATransportCountAsNothingSent) {
    mLog.Clear();
    EXPECT_EQ(-1, SendData(1, mCamera, "x"));
    ExpectOnlyError("This Handle has no transport.\n");
    EXPECT_EQ(0U, mSent);
}

}  // namespace
}  // namespace lumoraAiModule
