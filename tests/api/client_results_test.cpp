// What the client side's functions let pass, log and hand out once a client is there.
#include <cstring>
#include <functional>

#include "tests/api/api_fixture.h"
#include "tests/support/fake_securec.h"

namespace lumora_test {
namespace {

class ClientResultsTest : public ApiTest {
protected:
    bool LoggedIllegalId() const {
        return mLog.Has(4, "clientID is illegal\n") || mLog.Has(4, "clientID is illegal.\n");
    }
};

// Each function succeeds, and is refused by the module then. It logs these two lines itself, and no others.
TEST_F(ClientResultsTest, FunctionsReportSuccessAndTheModulesRefusal) {
    BeConnectedClient();
    const struct {
        const char* function;
        std::function<int()> succeeds;
        std::function<int()> isRefused;
        Texts lines;
    } calls[] = {
        {"LUM_RegisterEvent",
         [] { return LUM_RegisterEvent(1, OnClientEvent); },
         [] { return LUM_RegisterEvent(2, OnClientEvent); },
         {"2 Client[1] register event success. \n", "4 LUM_RegisterEvent failed!\n"}},
        {"LUM_RegisterAiDeviceEvent",
         [] { return LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent); },
         [] { return LUM_RegisterAiDeviceEvent(1, 2, OnDeviceEvent); },
         {"2 Client[1] regester event callback function success. \n", "4 RegisterAiDeviceEvent failed!\n"}},
        {"LUM_SendCmd",
         [] { return LUM_SendCmd(1, 1, "SetMode", ""); },
         [] { return LUM_SendCmd(1, 2, "SetMode", ""); },
         {"4 LUM_SendCmd failed!\n"}},
        {"LUM_DestoryAiDevice",
         [] { return LUM_DestoryAiDevice(1, 1); },
         [] { return LUM_DestoryAiDevice(1, 2); },
         {"2 Client[1] destory resouce for remote device success. \n", "4 LUM_DestoryAiDevice failed!\n"}},
        {"LUM_DisconnectAiDevice",
         [] { return LUM_DisconnectAiDevice(1, 1); },
         [] { return LUM_DisconnectAiDevice(1, 1); },
         {"2 Client[1] disconnect from remote device. \n", "4 LUM_DisconnectAiDevice failed!\n"}},
    };
    mPlatform.ClearRequests();
    for (const auto& call : calls) {
        mLog.Clear();
        EXPECT_EQ(0, call.succeeds()) << call.function;
        EXPECT_EQ(-1, call.isRefused()) << call.function;
        EXPECT_EQ(call.lines, LogOf(call.function));
        EXPECT_EQ(call.function == std::string("LUM_RegisterEvent"),
                  mLog.Has(4, "ClientID : 2 no resource!!\n"));
    }
    EXPECT_EQ((Request{"Post", "Destroy", "1"}), mPlatform.Requests().back());
    EXPECT_EQ(2U, mPlatform.Requests().size()) << "the command, and the end of the handle";
}

TEST_F(ClientResultsTest, ConnectAiDeviceReportsTheModulesRefusal) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_ConnectAiDevice(1, 1));
    EXPECT_EQ((Texts{"0 Enter\n", "4 ConnectAiDevice failed!\n"}), LogOf("LUM_ConnectAiDevice"));
}

TEST_F(ClientResultsTest, GetAiDeviceListHasNoMessageOfItsOwn) {
    InitClient();
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera"))};
    LUM_DEVICES_INFO_S found;
    EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    mPlatform.devices.clear();
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetAiDeviceList"));
    EXPECT_TRUE(mLog.Has(4, "No device found !\n"));
}

TEST_F(ClientResultsTest, GetAiDeviceListClearsTheWholeRecordFirst) {
    InitClient();
    LUM_DEVICES_INFO_S found;
    std::memset(static_cast<void*>(&found), 0x5a, sizeof(found));
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    const auto* bytes = reinterpret_cast<const char*>(&found);
    EXPECT_EQ(std::string(sizeof(found), '\0'), std::string(bytes, sizeof(found)));
}

TEST_F(ClientResultsTest, GetAiDeviceListReportsARecordThatCannotBeCleared) {
    InitClient();
    mLog.Clear();
    FailBoundedCall(Bounded::MEMSET);
    LUM_DEVICES_INFO_S found;
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(Texts{"4 memset_s failed\n"}, Log());
    EXPECT_EQ(Texts{}, mPlatform.Searches());
}

TEST_F(ClientResultsTest, SearchTakesATypeOfFortyCharactersAndPassesItOn) {
    InitClient();
    LUM_DEVICES_INFO_S found;
    const std::string type(40, 'c');
    EXPECT_EQ(-1, LUM_GetAiDeviceList(type.c_str(), &found));
    EXPECT_EQ(Texts{type}, mPlatform.Searches());
}

TEST_F(ClientResultsTest, CreateAiDeviceLogsClientAndType) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(1U, FindCamera(1));
    EXPECT_EQ(Texts{"2 Client[1] create resouce for remote device[camera] success. \n"},
              LogOf("LUM_CreateAiDevice"));
}

TEST_F(ClientResultsTest, CreateAiDeviceReportsTheModulesRefusal) {
    InitClient();
    mLog.Clear();
    unsigned int handle = 77;
    const std::string type(40, 'c');
    EXPECT_EQ(-1, LUM_CreateAiDevice(1, type.c_str(), &handle));
    EXPECT_EQ(Texts{"4 CreateAiDevice failed!\n"}, LogOf("LUM_CreateAiDevice"));
    EXPECT_TRUE(mLog.Has(4, "No service type :" + type + " found in net!\n"));
    EXPECT_EQ(77U, handle);
}

TEST_F(ClientResultsTest, ConnectAiDeviceTracesAndReportsSuccess) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    ConnectCamera(1, 1);
    EXPECT_EQ((Texts{"0 Enter\n", "2 Client[1] connect to remote device success. \n", "0 Out\n"}),
              LogOf("LUM_ConnectAiDevice"));
}

TEST_F(ClientResultsTest, SendCmdTakesFourHundredCharactersInAnyDivision) {
    BeConnectedClient();
    EXPECT_EQ(0, LUM_SendCmd(1, 1, std::string(400, 'c').c_str(), ""));
    EXPECT_EQ(0, LUM_SendCmd(1, 1, std::string(200, 'c').c_str(), std::string(200, 'p').c_str()));
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "c", std::string(399, 'p').c_str()));
    mLog.Clear();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, "c", std::string(400, 'p').c_str()));
    EXPECT_EQ(Texts{"4 Total length of param and cmd exceeding the limit length: 400\n"}, Log());
}

TEST_F(ClientResultsTest, SendDataReportsThePayloadSentAndIsSilent) {
    BeConnectedClient();
    mLog.Clear();
    unsigned int sent = 77;
    EXPECT_EQ(0, LUM_SendData(1, 1, "data", 4, &sent, 2000));
    EXPECT_EQ(4U, sent);
    EXPECT_EQ(ClientFrame(1, "data"), mDevice.Receive(10));
    EXPECT_EQ(Texts{}, LogOf("LUM_SendData"));
}

TEST_F(ClientResultsTest, SendDataReportsAMissingConnection) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    unsigned int sent = 77;
    EXPECT_EQ(-1, LUM_SendData(1, 1, "data", 4, &sent, 0));
    EXPECT_EQ(0U, sent);
    EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_SendData"));
}

TEST_F(ClientResultsTest, SendDataLetsTheLongestBlockPass) {
    InitClient();
    const std::string block(5242880, 'd');
    unsigned int sent = 77;
    EXPECT_EQ(-1, LUM_SendData(1, 1, block.data(), 5242880, &sent, 2000));
    EXPECT_TRUE(mLog.Has(4, "Error: 1,no such device!\n")) << mLog.Dump();
}

TEST_F(ClientResultsTest, ClientIdsFromZeroToTwentyPassTheCheck) {
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

TEST_F(ClientResultsTest, WhateverThePlatformThrowsIsAFailureOfTheCall) {
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

}  // namespace
}  // namespace lumora_test
