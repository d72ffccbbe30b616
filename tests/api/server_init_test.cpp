// LUM_InitServer and LUM_DeInitServer: the server side before, between and after them.
#include <stdexcept>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

class ServerInitTest : public ApiTest {};

TEST_F(ServerInitTest, InitServerTracesAndLogsTheType) {
    InitServer("camera");
    EXPECT_EQ((Texts{"0 Enter\n", "2 Init Lumora server success. device type: camera.\n", "0 Out\n"}),
              LogOf("LUM_InitServer"));
}

TEST_F(ServerInitTest, InitServerAcceptsTypesOfOneAndOfFortyCharacters) {
    InitServer("c");
    ASSERT_EQ(0, LUM_DeInitServer());
    InitServer(std::string(40, 'c'));
}

TEST_F(ServerInitTest, SecondInitServerSucceedsAndChangesNothing) {
    InitServer("camera");
    mLog.Clear();
    InitServer("printer");
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
    EXPECT_EQ(Texts{"Lumora Module has been initiliazed!\n"}, mLog.Texts(4));
    EXPECT_TRUE(mLog.Has(2, "Init Lumora server success. device type: printer.\n"));
    EXPECT_EQ("camera", std::string(mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource())));
}

TEST_F(ServerInitTest, FailedStartIsReportedAndCanBeRepeated) {
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, LUM_InitServer("camera"));
    EXPECT_EQ((Texts{"0 Enter\n", "4 InitLumoraModule failed!\n"}), LogOf("LUM_InitServer"));
    mPlatform.runResult = 0;
    InitServer("camera");
    Register();
}

TEST_F(ServerInitTest, FailedStartLeavesTheInstance) {
    mPlatform.givesHandles = false;
    EXPECT_EQ(-1, LUM_InitServer("camera"));
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 DeInitLumoraModule failed!\n"}), LogOf("LUM_DeInitServer"));
    EXPECT_TRUE(mLog.Has(4, "mSmartHomeLink is not running, you can't close it!\n"));
    EXPECT_TRUE(mLog.Has(4, "CloseCoapService failed!!\n"));
    Register();
}

TEST_F(ServerInitTest, DeInitServerTracesAndLogsItsSuccess) {
    InitServer();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "2 DeInit Lumora server success. \n", "0 Out\n"}),
              LogOf("LUM_DeInitServer"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(ServerInitTest, DeInitServerWithoutAServerSucceedsAndSaysSo) {
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 g_lumora is nullptr, we can't deinit it ,but will return succ.\n"}),
              Log());
}

TEST_F(ServerInitTest, SecondDeInitServerSucceedsAndSaysSo) {
    InitServer();
    EXPECT_EQ(0, LUM_DeInitServer());
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 g_lumora is nullptr, we can't deinit it ,but will return succ.\n"}),
              Log());
}

TEST_F(ServerInitTest, FailedExitKeepsTheServer) {
    InitServer();
    mPlatform.exitResult = -1;
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_EQ((Texts{"mSmartHomeLink->exit() failed!\n", "CloseCoapService failed!!\n",
                     "DeInitLumoraModule failed!\n"}),
              mLog.Texts(4));
    Register();
}

TEST_F(ServerInitTest, AfterDeInitEverythingButInitAsksForInit) {
    InitServer();
    ASSERT_EQ(0, LUM_DeInitServer());
    mLog.Clear();
    const LUM_DEVICE_INFO_S device = DeviceRecord();
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    unsigned int sent = 0;
    EXPECT_EQ(-1, LUM_SendDataToClient("face", "data", 4, &sent, 0));
    EXPECT_EQ((Texts{"4 please call LUM_ConnectAiDevice first.\n", "0 Enter\n",
                     "4 please call LUM_ConnectAiDevice first.\n"}),
              Log());
}

TEST_F(ServerInitTest, NewServerKnowsNothingOfTheOneBefore) {
    InitServer("camera");
    Register({"face"});
    ASSERT_EQ(0, LUM_DeInitServer());
    InitServer("printer");
    EXPECT_EQ("", mPlatform.Get("ServiceInfo").reply);
    EXPECT_EQ("printer", std::string(mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource())));
}

TEST_F(ServerInitTest, StopThatThrowsIsAFailureOfTheCall) {
    InitServer();
    mPlatform.onExit = [] { throw std::runtime_error("the platform is broken"); };
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_THAT(mLog.Texts(4), testing::Contains("failed: the platform is broken\n"));
    mPlatform.onExit = [] {};
}

}  // namespace
}  // namespace lumora_test
