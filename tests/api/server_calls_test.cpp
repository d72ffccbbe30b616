// The server side's functions: what passes their checks, what they log, and their states.
#include <cstring>
#include <stdexcept>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

class ServerCallsTest : public ApiTest {
protected:
    int RegisterResult(const LUM_DEVICE_INFO_S& device) {
        mLog.Clear();
        return LUM_RegisterAiDevInfo(&device);
    }

    int SendResult(const std::string& serviceName, unsigned int length, unsigned int timeoutMs = 100) {
        const std::string data(length, 'd');
        mSent = 77;
        mLog.Clear();
        return LUM_SendDataToClient(serviceName.c_str(), data.data(), length, &mSent, timeoutMs);
    }

    unsigned int mSent = 77;
};

TEST_F(ServerCallsTest, InitServerTracesAndLogsTheType) {
    InitServer("camera");
    EXPECT_EQ((Texts{"0 Enter\n", "2 Init Lumora server success. device type: camera.\n", "0 Out\n"}),
              LogOf("LUM_InitServer"));
}

TEST_F(ServerCallsTest, InitServerAcceptsTypesOfOneAndOfFortyCharacters) {
    InitServer("c");
    ASSERT_EQ(0, LUM_DeInitServer());
    InitServer(std::string(40, 'c'));
}

TEST_F(ServerCallsTest, SecondInitServerSucceedsAndChangesNothing) {
    InitServer("camera");
    mLog.Clear();
    InitServer("printer");
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
    EXPECT_EQ(Texts{"Lumora Module has been initiliazed!\n"}, mLog.Texts(4));
    EXPECT_TRUE(mLog.Has(2, "Init Lumora server success. device type: printer.\n"));
    EXPECT_EQ("camera", std::string(mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource())));
}

TEST_F(ServerCallsTest, FailedStartIsReportedAndCanBeRepeated) {
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, LUM_InitServer("camera"));
    EXPECT_EQ((Texts{"0 Enter\n", "4 InitLumoraModule failed!\n"}), LogOf("LUM_InitServer"));
    mPlatform.runResult = 0;
    InitServer("camera");
    Register();
}

TEST_F(ServerCallsTest, FailedStartLeavesTheInstance) {
    mPlatform.givesHandles = false;
    EXPECT_EQ(-1, LUM_InitServer("camera"));
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 DeInitLumoraModule failed!\n"}), LogOf("LUM_DeInitServer"));
    EXPECT_TRUE(mLog.Has(4, "mSmartHomeLink is not running, you can't close it!\n"));
    EXPECT_TRUE(mLog.Has(4, "CloseCoapService failed!!\n"));
    Register();
}

TEST_F(ServerCallsTest, RegisterLogsTheNumberOfServices) {
    InitServer();
    mLog.Clear();
    Register({"face", "gait"});
    EXPECT_EQ(Texts{"2 Create lumora services succss. services number:2. \n"},
              LogOf("LUM_RegisterAiDevInfo"));
}

TEST_F(ServerCallsTest, RegisterTakesUpToEightServices) {
    InitServer();
    for (const unsigned int count : {1U, 5U, 6U, 7U, 8U}) {
        LUM_DEVICE_INFO_S device = DeviceRecord({"a", "b", "c", "d", "e", "f", "g", "h"});
        device.serviceNum = count;
        EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
    }
    EXPECT_NE(std::string::npos, mPlatform.Get("ServiceInfo").reply.find(R"("service7":{"Name":"h")"));
}

TEST_F(ServerCallsTest, RegisterTakesNamesThatFillTheirFields) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    SetName(device.devServiceType, std::string(40, 't'));
    device.serviceInfo[0].outputLenBytes = 0;
    SetName(device.serviceInfo[0].serviceName, std::string(40, 'n'));
    device.serviceInfo[0].transport = LUM_TRANSPORT_NONE;
    EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
    EXPECT_EQ(R"({"DevServiceType":")" + std::string(40, 't') + R"(","ServiceNum":1,"service0":{"Name":")" +
                  std::string(40, 'n') + R"(","transport":0,"output-len-bytes":0}})",
              mPlatform.Get("ServiceInfo").reply);
}

TEST_F(ServerCallsTest, RegisterTakesAnEmptyDeviceType) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    SetName(device.devServiceType, "");
    EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
}

TEST_F(ServerCallsTest, RegisterComparesTheTransportAsASignedNumber) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    for (const int transport : {-2147483647 - 1, -1, 0, 5}) {
        SetTransport(device.serviceInfo[0], transport);
        EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
    }
    SetTransport(device.serviceInfo[0], 6);
    EXPECT_EQ(-1, RegisterResult(device));
    EXPECT_EQ(Texts{"4 transport :6 is illegal\n"}, Log());
}

TEST_F(ServerCallsTest, RegisterReportsADescriptionThatIsTooLong) {
    InitServer();
    const std::string wide(39, '\x01');  // six characters each in the document
    LUM_DEVICE_INFO_S device = DeviceRecord({wide, wide, wide, wide, wide});
    EXPECT_EQ(-1, RegisterResult(device));
    EXPECT_EQ(Texts{"4 RegisterLocalDeviceInfo failed!\n"}, LogOf("LUM_RegisterAiDevInfo"));
    EXPECT_TRUE(mLog.Has(4, "mLocalServiceInfo exceed the max length!!\n"));
}

TEST_F(ServerCallsTest, RegisterIgnoresEntriesBehindTheCount) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord({"face", "gait"});
    device.serviceNum = 1;
    SetName(device.serviceInfo[1].serviceName, "");
    SetTransport(device.serviceInfo[1], 99);
    EXPECT_EQ(0, LUM_RegisterAiDevInfo(&device)) << mLog.Dump();
}

TEST_F(ServerCallsTest, FailedRegistrationCheckKeepsTheEarlierRegistration) {
    InitServer();
    Register({"face"});
    const std::string before = mPlatform.Get("ServiceInfo").reply;
    ASSERT_NE("", before);
    LUM_DEVICE_INFO_S device = DeviceRecord({"gait", "pose"});
    SetTransport(device.serviceInfo[1], 6);
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    EXPECT_EQ(before, mPlatform.Get("ServiceInfo").reply);
}

TEST_F(ServerCallsTest, RegisterCopiesTheRecord) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord({"face"});
    ASSERT_EQ(0, RegisterResult(device));
    const std::string before = mPlatform.Get("ServiceInfo").reply;
    std::memset(static_cast<void*>(&device), 0x5a, sizeof(device));
    EXPECT_EQ(before, mPlatform.Get("ServiceInfo").reply);
    Subscribe(1, "face");  // calls OnEventNotify
}

TEST_F(ServerCallsTest, SendReportsThePayloadSent) {
    BeServingDevice();
    EXPECT_EQ(0, SendResult("face", 4));
    EXPECT_EQ(4U, mSent);
    EXPECT_EQ((Texts{"0 Enter\n", "0 Out\n"}), LogOf("LUM_SendDataToClient"));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "dddd"), mFromServer.Receive(16));
}

TEST_F(ServerCallsTest, SendFailsWithoutADataChannel) {
    InitServer();
    Register();
    EXPECT_EQ(-1, SendResult("face", 4));
    EXPECT_EQ((Texts{"0 Enter\n", "4 SendDataToClient failed!\n"}), LogOf("LUM_SendDataToClient"));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n"));
}

TEST_F(ServerCallsTest, SendLetsNoDataPassToTheModuleWhichRefusesIt) {
    BeServingDevice();
    EXPECT_EQ(-1, SendResult("face", 0));
    EXPECT_EQ((Texts{"0 Enter\n", "4 payload dataLen is 0!\n", "4 SendDataToClient failed!\n"}), Log());
}

TEST_F(ServerCallsTest, SendLetsTheLongestBlockAndTheLongestNamePass) {
    InitServer();
    Register();
    EXPECT_EQ(-1, SendResult("face", 1024000));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n")) << mLog.Dump();
    EXPECT_EQ(-1, SendResult(std::string(40, 'n'), 4));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n")) << mLog.Dump();
}

TEST_F(ServerCallsTest, SendLowersALongTimeOutWithoutAWord) {
    BeServingDevice();
    EXPECT_EQ(0, SendResult("face", 4, 3000));
    const Texts within = Log();
    EXPECT_EQ(0, SendResult("face", 4, 5000));
    EXPECT_EQ(within, Log());
}

TEST_F(ServerCallsTest, DeInitServerTracesAndLogsItsSuccess) {
    InitServer();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "2 DeInit Lumora server success. \n", "0 Out\n"}),
              LogOf("LUM_DeInitServer"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(ServerCallsTest, DeInitServerWithoutAServerSucceedsAndSaysSo) {
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 g_lumora is nullptr, we can't deinit it ,but will return succ.\n"}),
              Log());
}

TEST_F(ServerCallsTest, SecondDeInitServerSucceedsAndSaysSo) {
    InitServer();
    EXPECT_EQ(0, LUM_DeInitServer());
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 g_lumora is nullptr, we can't deinit it ,but will return succ.\n"}),
              Log());
}

TEST_F(ServerCallsTest, FailedExitKeepsTheServer) {
    InitServer();
    mPlatform.exitResult = -1;
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_EQ((Texts{"mSmartHomeLink->exit() failed!\n", "CloseCoapService failed!!\n",
                     "DeInitLumoraModule failed!\n"}),
              mLog.Texts(4));
    Register();
}

TEST_F(ServerCallsTest, AfterDeInitEverythingButInitAsksForInit) {
    InitServer();
    ASSERT_EQ(0, LUM_DeInitServer());
    mLog.Clear();
    const LUM_DEVICE_INFO_S device = DeviceRecord();
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    EXPECT_EQ(-1, LUM_SendDataToClient("face", "data", 4, &mSent, 0));
    EXPECT_EQ((Texts{"4 please call LUM_ConnectAiDevice first.\n", "0 Enter\n",
                     "4 please call LUM_ConnectAiDevice first.\n"}),
              Log());
}

TEST_F(ServerCallsTest, NewServerKnowsNothingOfTheOneBefore) {
    InitServer("camera");
    Register({"face"});
    ASSERT_EQ(0, LUM_DeInitServer());
    InitServer("printer");
    EXPECT_EQ("", mPlatform.Get("ServiceInfo").reply);
    EXPECT_EQ("printer", std::string(mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource())));
}

TEST_F(ServerCallsTest, StopThatThrowsIsAFailureOfTheCall) {
    InitServer();
    mPlatform.onExit = [] { throw std::runtime_error("the platform is broken"); };
    mLog.Clear();
    EXPECT_EQ(-1, LUM_DeInitServer());
    EXPECT_THAT(mLog.Texts(4), testing::Contains("failed: the platform is broken\n"));
    mPlatform.onExit = [] {};
}

}  // namespace
}  // namespace lumora_test
