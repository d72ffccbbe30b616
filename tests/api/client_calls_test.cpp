// The client side's functions: what passes their checks, what they log and what they hand out.
#include <cstring>
#include <stdexcept>

#include "tests/api/api_fixture.h"
#include "tests/support/fake_securec.h"

namespace lumora_test {
namespace {

class ClientCallsTest : public ApiTest {
protected:
    bool LoggedIllegalId() const {
        return mLog.Has(4, "clientID is illegal\n") || mLog.Has(4, "clientID is illegal.\n");
    }
};

TEST_F(ClientCallsTest, InitClientTracesAndGivesTheLowestId) {
    int clientID = 0;
    EXPECT_EQ(0, LUM_InitClient(&clientID, "viewer"));
    EXPECT_EQ(1, clientID);
    EXPECT_EQ((Texts{"0 Enter\n", "0 Out\n"}), LogOf("LUM_InitClient"));
    EXPECT_TRUE(mLog.Has(2, "Init Lumora client success. device type: viewer, clientID: 1. \n"));
}

TEST_F(ClientCallsTest, InitClientLogsTheTypeOfItsOwnCall) {
    InitClient("viewer");
    InitClient("printer");
    EXPECT_TRUE(mLog.Has(2, "Init Lumora client success. device type: printer, clientID: 2. \n"));
    EXPECT_EQ(1, mLog.Count(2, "Register dev ServiceType = viewer\n"));
}

TEST_F(ClientCallsTest, InitClientAcceptsTypesOfOneAndOfFortyCharacters) {
    InitClient("v");
    InitClient(std::string(40, 'v'));
}

TEST_F(ClientCallsTest, DeInitClientTellsHowManyClientsRemain) {
    InitClient();
    InitClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"0 Enter\n", "2 There are already 1 clients use Lumora. \n",
                     "2 Deinit Lumora client[1] success.\n", "0 Out\n"}),
              LogOf("LUM_DeInitClient"));
}

TEST_F(ClientCallsTest, DeInitOfTheLastClientReleasesEverything) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"0 Enter\n", "2 No client use Lumora, the lumora server resource will be released.\n",
                     "2 Deinit Lumora client[1] success.\n", "0 Out\n"}),
              LogOf("LUM_DeInitClient"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(ClientCallsTest, RegisterEventLogsItsSuccess) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
    EXPECT_EQ(Texts{"2 Client[1] register event success. \n"}, LogOf("LUM_RegisterEvent"));
}

TEST_F(ClientCallsTest, RegisterEventReportsTheModulesRefusal) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_RegisterEvent(2, OnClientEvent));
    EXPECT_EQ(Texts{"4 LUM_RegisterEvent failed!\n"}, LogOf("LUM_RegisterEvent"));
    EXPECT_TRUE(mLog.Has(4, "ClientID : 2 no resource!!\n"));
}

TEST_F(ClientCallsTest, GetAiDeviceListHasNoMessageOfItsOwn) {
    InitClient();
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera"))};
    LUM_DEVICES_INFO_S found;
    EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    mPlatform.devices.clear();
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetAiDeviceList"));
    EXPECT_TRUE(mLog.Has(4, "No device found !\n"));
}

TEST_F(ClientCallsTest, GetAiDeviceListClearsTheWholeRecordFirst) {
    InitClient();
    LUM_DEVICES_INFO_S found;
    std::memset(static_cast<void*>(&found), 0x5a, sizeof(found));
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    const auto* bytes = reinterpret_cast<const char*>(&found);
    EXPECT_EQ(std::string(sizeof(found), '\0'), std::string(bytes, sizeof(found)));
}

TEST_F(ClientCallsTest, GetAiDeviceListReportsARecordThatCannotBeCleared) {
    InitClient();
    mLog.Clear();
    FailBoundedCall(Bounded::MEMSET);
    LUM_DEVICES_INFO_S found;
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(Texts{"4 memset_s failed\n"}, Log());
    EXPECT_EQ(Texts{}, mPlatform.Searches());
}

TEST_F(ClientCallsTest, SearchTakesATypeOfFortyCharactersAndPassesItOn) {
    InitClient();
    LUM_DEVICES_INFO_S found;
    const std::string type(40, 'c');
    EXPECT_EQ(-1, LUM_GetAiDeviceList(type.c_str(), &found));
    EXPECT_EQ(Texts{type}, mPlatform.Searches());
}

TEST_F(ClientCallsTest, CreateAiDeviceLogsClientAndType) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(1U, FindCamera(1));
    EXPECT_EQ(Texts{"2 Client[1] create resouce for remote device[camera] success. \n"},
              LogOf("LUM_CreateAiDevice"));
}

TEST_F(ClientCallsTest, CreateAiDeviceReportsTheModulesRefusal) {
    InitClient();
    mLog.Clear();
    unsigned int handle = 77;
    const std::string type(40, 'c');
    EXPECT_EQ(-1, LUM_CreateAiDevice(1, type.c_str(), &handle));
    EXPECT_EQ(Texts{"4 CreateAiDevice failed!\n"}, LogOf("LUM_CreateAiDevice"));
    EXPECT_TRUE(mLog.Has(4, "No service type :" + type + " found in net!\n"));
    EXPECT_EQ(77U, handle);
}

TEST_F(ClientCallsTest, RegisterAiDeviceEventReportsSuccessAndRefusal) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    EXPECT_EQ(0, LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent));
    EXPECT_EQ(-1, LUM_RegisterAiDeviceEvent(1, 2, OnDeviceEvent));
    EXPECT_EQ((Texts{"2 Client[1] regester event callback function success. \n",
                     "4 RegisterAiDeviceEvent failed!\n"}),
              LogOf("LUM_RegisterAiDeviceEvent"));
}

TEST_F(ClientCallsTest, ConnectAiDeviceTracesAndReportsSuccess) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    ConnectCamera(1, 1);
    EXPECT_EQ((Texts{"0 Enter\n", "2 Client[1] connect to remote device success. \n", "0 Out\n"}),
              LogOf("LUM_ConnectAiDevice"));
}

TEST_F(ClientCallsTest, ConnectAiDeviceReportsTheModulesRefusal) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_ConnectAiDevice(1, 1));
    EXPECT_EQ((Texts{"0 Enter\n", "4 ConnectAiDevice failed!\n"}), LogOf("LUM_ConnectAiDevice"));
}

TEST_F(ClientCallsTest, DisconnectAiDeviceReportsSuccessAndRefusal) {
    BeConnectedClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DisconnectAiDevice(1, 1));
    EXPECT_EQ(-1, LUM_DisconnectAiDevice(1, 1));
    EXPECT_EQ((Texts{"2 Client[1] disconnect from remote device. \n", "4 LUM_DisconnectAiDevice failed!\n"}),
              LogOf("LUM_DisconnectAiDevice"));
}

TEST_F(ClientCallsTest, DestoryAiDeviceReportsSuccessAndRefusal) {
    BeConnectedClient();
    mLog.Clear();
    mPlatform.ClearRequests();
    EXPECT_EQ(0, LUM_DestoryAiDevice(1, 1));
    EXPECT_EQ((std::vector<Request>{{"Post", "Destroy", "1"}}), mPlatform.Requests());
    EXPECT_EQ(-1, LUM_DestoryAiDevice(1, 2));
    EXPECT_EQ((Texts{"2 Client[1] destory resouce for remote device success. \n",
                     "4 LUM_DestoryAiDevice failed!\n"}),
              LogOf("LUM_DestoryAiDevice"));
}

TEST_F(ClientCallsTest, SendCmdIsSilentOnSuccessAndReportsARefusal) {
    BeConnectedClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "SetMode", ""));
    EXPECT_EQ(Texts{}, LogOf("LUM_SendCmd"));
    EXPECT_EQ(-1, LUM_SendCmd(1, 2, "SetMode", ""));
    EXPECT_EQ(Texts{"4 LUM_SendCmd failed!\n"}, LogOf("LUM_SendCmd"));
}

TEST_F(ClientCallsTest, SendCmdTakesFourHundredCharactersInAnyDivision) {
    BeConnectedClient();
    EXPECT_EQ(0, LUM_SendCmd(1, 1, std::string(400, 'c').c_str(), ""));
    EXPECT_EQ(0, LUM_SendCmd(1, 1, std::string(200, 'c').c_str(), std::string(200, 'p').c_str()));
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "c", std::string(399, 'p').c_str()));
    mLog.Clear();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, "c", std::string(400, 'p').c_str()));
    EXPECT_EQ(Texts{"4 Total length of param and cmd exceeding the limit length: 400\n"}, Log());
}

TEST_F(ClientCallsTest, SendDataReportsThePayloadSentAndIsSilent) {
    BeConnectedClient();
    mLog.Clear();
    unsigned int sent = 77;
    EXPECT_EQ(0, LUM_SendData(1, 1, "data", 4, &sent, 2000));
    EXPECT_EQ(4U, sent);
    EXPECT_EQ(ClientFrame(1, "data"), mDevice.Receive(10));
    EXPECT_EQ(Texts{}, LogOf("LUM_SendData"));
}

TEST_F(ClientCallsTest, SendDataReportsAMissingConnection) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    unsigned int sent = 77;
    EXPECT_EQ(-1, LUM_SendData(1, 1, "data", 4, &sent, 0));
    EXPECT_EQ(0U, sent);
    EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_SendData"));
}

TEST_F(ClientCallsTest, SendDataLetsTheLongestBlockPass) {
    InitClient();
    const std::string block(5242880, 'd');
    unsigned int sent = 77;
    EXPECT_EQ(-1, LUM_SendData(1, 1, block.data(), 5242880, &sent, 2000));
    EXPECT_TRUE(mLog.Has(4, "Error: 1,no such device!\n")) << mLog.Dump();
}

TEST_F(ClientCallsTest, ClientIdsFromZeroToTwentyPassTheCheck) {
    for (const int clientID : {0, 20}) {
        InitClient();
        LUM_DeInitClient(clientID);
        LUM_RegisterEvent(clientID, OnClientEvent);
        unsigned int number = 0;
        LUM_CreateAiDevice(clientID, "camera", &number);
        LUM_RegisterAiDeviceEvent(clientID, 1, OnDeviceEvent);
        LUM_ConnectAiDevice(clientID, 1);
        LUM_DisconnectAiDevice(clientID, 1);
        LUM_DestoryAiDevice(clientID, 1);
        LUM_SendCmd(clientID, 1, "cmd", "");
        LUM_SendData(clientID, 1, "data", 4, &number, 0);
        EXPECT_FALSE(LoggedIllegalId()) << mLog.Dump();
        EXPECT_EQ(1, mLog.Count(4, "LUM_DeInitClient failed!\n"));
        mLog.Clear();
    }
}

TEST_F(ClientCallsTest, VersionQueriesLetEveryPositiveIdPass) {
    InitClient();
    char text[64];
    for (const int clientID : {0, 21, 2147483647}) {
        mLog.Clear();
        EXPECT_EQ(-1, LUM_GetClientVersion(clientID, text, sizeof(text)));
        EXPECT_EQ(-1, LUM_GetServerVersion(clientID, 1, text, sizeof(text)));
        EXPECT_EQ(2, mLog.Count(4, "ClientID : " + std::to_string(clientID) + " no resource!!\n"));
        EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_GetClientVersion"));
        EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_GetServerVersion"));
    }
}

TEST_F(ClientCallsTest, VersionsArriveTerminatedInAClearedBuffer) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    const std::string expected = std::string("1.1.1") + std::string(59, '\0');
    char text[64];
    std::memset(text, 0x5a, sizeof(text));
    EXPECT_EQ(0, LUM_GetClientVersion(1, text, sizeof(text)));
    EXPECT_EQ(expected, std::string(text, sizeof(text)));
    std::memset(text, 0x5a, sizeof(text));
    EXPECT_EQ(0, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    EXPECT_EQ(expected, std::string(text, sizeof(text)));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetClientVersion"));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetServerVersion"));
}

class ServerVersionLengthTest : public ClientCallsTest {
protected:
    // What a device that answers with a version of so many characters comes to, in a buffer of 64.
    int AskDeviceOf(std::size_t versionLength) {
        InitClient();
        FindCamera(1);
        FakeDevice device = mPlatform.devices.front();
        const auto described = device.answer;
        device.answer = [described, versionLength](const Request& request, std::string& reply) {
            if (request.key != "GetVersion") {
                return described(request, reply);
            }
            reply = std::string(versionLength, 'v');
            return 0;
        };
        mPlatform.devices = {device};
        LUM_DEVICES_INFO_S found;
        EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found));
        mLog.Clear();
        std::memset(mText, 0x5a, sizeof(mText));
        return LUM_GetServerVersion(1, 1, mText, sizeof(mText));
    }

    char mText[64];
};

TEST_F(ServerVersionLengthTest, SixtyThreeCharactersFitIntoSixtyFourBytes) {
    EXPECT_EQ(0, AskDeviceOf(63));
    EXPECT_EQ(std::string(63, 'v'), mText);
}

TEST_F(ServerVersionLengthTest, SixtyFourCharactersAreTooManyAndLeaveTheBufferAlone) {
    EXPECT_EQ(-1, AskDeviceOf(64));
    EXPECT_EQ(Texts{"4 buff is too short!\n"}, LogOf("LUM_GetServerVersion"));
    EXPECT_EQ(std::string(64, 0x5a), std::string(mText, sizeof(mText)));
}

TEST_F(ServerVersionLengthTest, EmptyVersionLeavesAClearedBuffer) {
    EXPECT_EQ(0, AskDeviceOf(0));
    EXPECT_EQ(std::string(64, '\0'), std::string(mText, sizeof(mText)));
}

TEST_F(ClientCallsTest, VersionQueriesReportFailedFillsAndCopies) {
    InitClient();
    FindCamera(1);
    char text[64];
    mLog.Clear();
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, LUM_GetClientVersion(1, text, sizeof(text)));
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, LUM_GetClientVersion(1, text, sizeof(text)));
    EXPECT_EQ((Texts{"4 memset_s failed!\n", "4 memcpy_s failed!\n"}), LogOf("LUM_GetClientVersion"));
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    EXPECT_EQ((Texts{"4 memset_s failed!\n", "4 memcpy_s failed!\n"}), LogOf("LUM_GetServerVersion"));
}

TEST_F(ClientCallsTest, WhateverThePlatformThrowsIsAFailureOfTheCall) {
    InitClient();
    bool broken = false;
    FakeDevice device = DescribedDevice(ServiceInfo("camera"));
    device.answer = [&broken, answer = device.answer](const Request& request, std::string& reply) {
        return broken ? throw 1 : answer(request, reply);
    };
    mPlatform.devices = {device};
    LUM_DEVICES_INFO_S found;
    unsigned int handle = 0;
    ASSERT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    ASSERT_EQ(0, LUM_CreateAiDevice(1, "camera", &handle));
    mLog.Clear();
    broken = true;
    EXPECT_EQ(-1, LUM_DestoryAiDevice(1, handle));
    EXPECT_EQ(Texts{"4 failed by an unknown exception.\n"}, LogOf("LUM_DestoryAiDevice"));
    broken = false;
    EXPECT_EQ(0, LUM_DestoryAiDevice(1, handle));
}

TEST_F(ClientCallsTest, StopThatThrowsIsAFailureOfTheCall) {
    InitClient();
    mPlatform.onExit = [] { throw std::runtime_error("the platform is broken"); };
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitClient(1));
    EXPECT_THAT(mLog.Texts(4), testing::Contains("failed: the platform is broken\n"));
    mPlatform.onExit = [] {};
}

}  // namespace
}  // namespace lumora_test
