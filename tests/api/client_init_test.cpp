// LUM_InitClient and LUM_DeInitClient: the client side from the first client to after the last, and what
// failed starts and stops leave behind.
#include <stdexcept>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

class ClientInitTest : public ApiTest {
protected:
    // Each function with arguments that pass all other checks; logs one line each.
    void CallEverythingButInit() {
        LUM_DEVICES_INFO_S found;
        unsigned int number = 0;
        char text[64];
        EXPECT_EQ(-1, LUM_DeInitClient(1));
        EXPECT_EQ(-1, LUM_RegisterEvent(1, OnClientEvent));
        EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
        EXPECT_EQ(-1, LUM_CreateAiDevice(1, "camera", &number));
        EXPECT_EQ(-1, LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent));
        EXPECT_EQ(-1, LUM_ConnectAiDevice(1, 1));
        EXPECT_EQ(-1, LUM_DisconnectAiDevice(1, 1));
        EXPECT_EQ(-1, LUM_DestoryAiDevice(1, 1));
        EXPECT_EQ(-1, LUM_SendCmd(1, 1, "cmd", ""));
        EXPECT_EQ(-1, LUM_SendData(1, 1, "data", 4, &number, 0));
        EXPECT_EQ(-1, LUM_GetClientVersion(1, text, sizeof(text)));
        EXPECT_EQ(-1, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    }

    void ExpectUninitialised() {
        mLog.Clear();
        CallEverythingButInit();
        const std::string init = "please call LUM_InitModule first.\n";
        const std::string connect = "please call LUM_ConnectAiDevice first.\n";
        EXPECT_EQ((Texts{"lumora is null, please call InitClient first.\n",
                         "lumora is null, please call LUM_InitModule first.\n", init, init, init, init, init,
                         connect, connect, connect, connect, connect}),
                  mLog.Texts(4));
    }

    int InitResult(int* clientID) {
        mLog.Clear();
        return LUM_InitClient(clientID, "viewer");
    }
};

TEST_F(ClientInitTest, InitClientTracesAndGivesTheLowestId) {
    int clientID = 0;
    EXPECT_EQ(0, LUM_InitClient(&clientID, "viewer"));
    EXPECT_EQ(1, clientID);
    EXPECT_EQ((Texts{"0 Enter\n", "0 Out\n"}), LogOf("LUM_InitClient"));
    EXPECT_TRUE(mLog.Has(2, "Init Lumora client success. device type: viewer, clientID: 1. \n"));
}

TEST_F(ClientInitTest, InitClientLogsTheTypeOfItsOwnCall) {
    InitClient("viewer");
    InitClient("printer");
    EXPECT_TRUE(mLog.Has(2, "Init Lumora client success. device type: printer, clientID: 2. \n"));
    EXPECT_EQ(1, mLog.Count(2, "Register dev ServiceType = viewer\n"));
}

TEST_F(ClientInitTest, InitClientAcceptsTypesOfOneAndOfFortyCharacters) {
    InitClient("v");
    InitClient(std::string(40, 'v'));
}

TEST_F(ClientInitTest, DeInitClientTellsHowManyClientsRemain) {
    InitClient();
    InitClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"0 Enter\n", "2 There are already 1 clients use Lumora. \n",
                     "2 Deinit Lumora client[1] success.\n", "0 Out\n"}),
              LogOf("LUM_DeInitClient"));
}

TEST_F(ClientInitTest, DeInitOfTheLastClientReleasesEverything) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"0 Enter\n", "2 No client use Lumora, the lumora server resource will be released.\n",
                     "2 Deinit Lumora client[1] success.\n", "0 Out\n"}),
              LogOf("LUM_DeInitClient"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(ClientInitTest, NothingWorksBeforeInit) { ExpectUninitialised(); }

TEST_F(ClientInitTest, NothingWorksAfterTheLastClientHasGone) {
    InitClient();
    ASSERT_EQ(0, LUM_DeInitClient(1));
    ExpectUninitialised();
}

TEST_F(ClientInitTest, InitAfterTheLastClientMakesANewInstanceOfTheNewType) {
    InitClient("viewer");
    ASSERT_EQ(0, LUM_DeInitClient(1));
    mLog.Clear();
    EXPECT_EQ(1, InitClient("printer"));
    EXPECT_TRUE(mLog.Has(2, "Register dev ServiceType = printer\n"));
    EXPECT_EQ(2, mPlatform.CallCount("GetLinkPlatform"));
}

TEST_F(ClientInitTest, LowestFreeIdIsReusedFirst) {
    EXPECT_EQ(1, InitClient());
    EXPECT_EQ(2, InitClient());
    EXPECT_EQ(3, InitClient());
    ASSERT_EQ(0, LUM_DeInitClient(2));
    EXPECT_EQ(2, InitClient());
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
}

TEST_F(ClientInitTest, TwentyFirstClientIsRefusedInTwoSteps) {
    for (int clientID = 1; clientID <= 20; ++clientID) {
        ASSERT_EQ(clientID, InitClient());
    }
    int clientID = 77;
    EXPECT_EQ(-1, InitResult(&clientID));
    EXPECT_EQ(0, clientID);
    EXPECT_EQ((Texts{"0 Enter\n", "0 Enter\n",
                     "2 The number of application instances has exceeded the maximum[20]. The clientID "
                     "application failed.\n",
                     "0 client [0] Enter.\n", "4 clientID error!\n", "1 InitLumoraModule failed!\n",
                     "4 At least one Lumora client is running, you could not Destroy!\n",
                     "4 DestoryInstance failed!\n"}),
              Log());
}

TEST_F(ClientInitTest, OtherTwentyClientsGoOnAfterTheRefusal) {
    for (int i = 0; i < 20; ++i) {
        InitClient();
    }
    int clientID = 0;
    EXPECT_EQ(-1, LUM_InitClient(&clientID, "viewer"));
    EXPECT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
    EXPECT_EQ(0, LUM_RegisterEvent(20, OnClientEvent));
    ASSERT_EQ(0, LUM_DeInitClient(7));
    EXPECT_EQ(7, InitClient());
}

TEST_F(ClientInitTest, FailedStartKeepsTheInstanceAndTheId) {
    mPlatform.runResult = -1;
    int clientID = 0;
    EXPECT_EQ(-1, InitResult(&clientID));
    EXPECT_EQ(1, clientID);
    EXPECT_EQ((Texts{"0 Enter\n", "1 InitLumoraModule failed!\n", "4 DestoryInstance failed!\n"}),
              LogOf("LUM_InitClient"));
    EXPECT_TRUE(mLog.Has(4, "StartCoapService failed!\n"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(ClientInitTest, AfterAFailedStartTheInstanceAnswersButIsNotRunning) {
    mPlatform.registerResult = -1;
    int clientID = 0;
    EXPECT_EQ(-1, InitResult(&clientID));
    mLog.Clear();
    LUM_DEVICES_INFO_S found;
    unsigned int handle = 0;
    EXPECT_EQ(-1, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(-1, LUM_CreateAiDevice(1, "camera", &handle));
    EXPECT_TRUE(mLog.Has(4, "mSmartHomeLink is not running, you can't GetNetDevices\n"));
    EXPECT_TRUE(mLog.Has(4, "mSmartHomeLink is not running, you can't CreateAiDevice\n"));
    char text[64];
    EXPECT_EQ(0, LUM_GetClientVersion(1, text, sizeof(text)));
}

TEST_F(ClientInitTest, InitAfterAFailedStartStartsAgainWithTheNextId) {
    mPlatform.givesHandles = false;
    int clientID = 0;
    EXPECT_EQ(-1, InitResult(&clientID));
    mPlatform.givesHandles = true;
    EXPECT_EQ(0, InitResult(&clientID));
    EXPECT_EQ(2, clientID);
    LUM_DEVICES_INFO_S found;
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera"))};
    EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    EXPECT_EQ(1U, found.devNum);
}

TEST_F(ClientInitTest, DeInitOfTheOnlyClientOfAFailedStartFailsAndFreesItsId) {
    mPlatform.runResult = -1;
    int clientID = 0;
    EXPECT_EQ(-1, InitResult(&clientID));
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"mSmartHomeLink is not running, you can't close it!\n", "CloseCoapService failed!!\n",
                     "LUM_DeInitClient failed!\n"}),
              mLog.Texts(4));
    mPlatform.runResult = 0;
    EXPECT_EQ(1, InitClient());
}

TEST_F(ClientInitTest, FailedExitMakesTheLastDeInitFail) {
    InitClient();
    mPlatform.exitResult = -1;
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitClient(1));
    EXPECT_EQ((Texts{"mSmartHomeLink->Exit() failed!\n", "CloseCoapService failed!!\n",
                     "LUM_DeInitClient failed!\n"}),
              mLog.Texts(4));
    EXPECT_EQ((Texts{"0 Enter\n", "4 LUM_DeInitClient failed!\n"}), LogOf("LUM_DeInitClient"));
}

TEST_F(ClientInitTest, DeInitOfAnUnknownIdFailsAndChangesNothing) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitClient(2));
    EXPECT_EQ((Texts{"0 Enter\n", "4 ClientID : 2 no resource!!\n", "4 LUM_DeInitClient failed!\n"}), Log());
    EXPECT_EQ(0, LUM_RegisterEvent(1, OnClientEvent));
}

TEST_F(ClientInitTest, DeInitOfTheSameClientTwiceFails) {
    InitClient();
    InitClient();
    EXPECT_EQ(0, LUM_DeInitClient(2));
    EXPECT_EQ(-1, LUM_DeInitClient(2));
}

TEST_F(ClientInitTest, StopThatThrowsIsAFailureOfTheCall) {
    InitClient();
    mPlatform.onExit = [] { throw std::runtime_error("the platform is broken"); };
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitClient(1));
    EXPECT_THAT(mLog.Texts(4), testing::Contains("failed: the platform is broken\n"));
    mPlatform.onExit = [] {};
}

}  // namespace
}  // namespace lumora_test
