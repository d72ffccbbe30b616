// What LUM_RegisterAiDevInfo and LUM_SendDataToClient let pass, log and hand out.
#include <cstring>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

class ServerResultsTest : public ApiTest {
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

TEST_F(ServerResultsTest, RegisterLogsTheNumberOfServices) {
    InitServer();
    mLog.Clear();
    Register({"face", "gait"});
    EXPECT_EQ(Texts{"2 Create lumora services succss. services number:2. \n"},
              LogOf("LUM_RegisterAiDevInfo"));
}

TEST_F(ServerResultsTest, RegisterTakesUpToEightServices) {
    InitServer();
    for (const unsigned int count : {1U, 5U, 6U, 7U, 8U}) {
        LUM_DEVICE_INFO_S device = DeviceRecord({"a", "b", "c", "d", "e", "f", "g", "h"});
        device.serviceNum = count;
        EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
    }
    EXPECT_NE(std::string::npos, mPlatform.Get("ServiceInfo").reply.find(R"("service7":{"Name":"h")"));
}

TEST_F(ServerResultsTest, RegisterTakesNamesThatFillTheirFields) {
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

TEST_F(ServerResultsTest, RegisterTakesAnEmptyDeviceType) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    SetName(device.devServiceType, "");
    EXPECT_EQ(0, RegisterResult(device)) << mLog.Dump();
}

TEST_F(ServerResultsTest, RegisterComparesTheTransportAsASignedNumber) {
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

TEST_F(ServerResultsTest, RegisterReportsADescriptionThatIsTooLong) {
    InitServer();
    const std::string wide(39, '\x01');  // six characters each in the document
    LUM_DEVICE_INFO_S device = DeviceRecord({wide, wide, wide, wide, wide});
    EXPECT_EQ(-1, RegisterResult(device));
    EXPECT_EQ(Texts{"4 RegisterLocalDeviceInfo failed!\n"}, LogOf("LUM_RegisterAiDevInfo"));
    EXPECT_TRUE(mLog.Has(4, "mLocalServiceInfo exceed the max length!!\n"));
}

TEST_F(ServerResultsTest, RegisterIgnoresEntriesBehindTheCount) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord({"face", "gait"});
    device.serviceNum = 1;
    SetName(device.serviceInfo[1].serviceName, "");
    SetTransport(device.serviceInfo[1], 99);
    EXPECT_EQ(0, LUM_RegisterAiDevInfo(&device)) << mLog.Dump();
}

TEST_F(ServerResultsTest, FailedRegistrationCheckKeepsTheEarlierRegistration) {
    InitServer();
    Register({"face"});
    const std::string before = mPlatform.Get("ServiceInfo").reply;
    ASSERT_NE("", before);
    LUM_DEVICE_INFO_S device = DeviceRecord({"gait", "pose"});
    SetTransport(device.serviceInfo[1], 6);
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    EXPECT_EQ(before, mPlatform.Get("ServiceInfo").reply);
}

TEST_F(ServerResultsTest, RegisterCopiesTheRecord) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord({"face"});
    ASSERT_EQ(0, RegisterResult(device));
    const std::string before = mPlatform.Get("ServiceInfo").reply;
    std::memset(static_cast<void*>(&device), 0x5a, sizeof(device));
    EXPECT_EQ(before, mPlatform.Get("ServiceInfo").reply);
    Subscribe(1, "face");  // calls OnEventNotify
}

TEST_F(ServerResultsTest, SendReportsThePayloadSent) {
    BeServingDevice();
    EXPECT_EQ(0, SendResult("face", 4));
    EXPECT_EQ(4U, mSent);
    EXPECT_EQ((Texts{"0 Enter\n", "0 Out\n"}), LogOf("LUM_SendDataToClient"));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "dddd"), mFromServer.Receive(16));
}

TEST_F(ServerResultsTest, SendFailsWithoutADataChannel) {
    InitServer();
    Register();
    EXPECT_EQ(-1, SendResult("face", 4));
    EXPECT_EQ((Texts{"0 Enter\n", "4 SendDataToClient failed!\n"}), LogOf("LUM_SendDataToClient"));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n"));
}

TEST_F(ServerResultsTest, SendLetsNoDataPassToTheModuleWhichRefusesIt) {
    BeServingDevice();
    EXPECT_EQ(-1, SendResult("face", 0));
    EXPECT_EQ((Texts{"0 Enter\n", "4 payload dataLen is 0!\n", "4 SendDataToClient failed!\n"}), Log());
}

TEST_F(ServerResultsTest, SendLetsTheLongestBlockAndTheLongestNamePass) {
    InitServer();
    Register();
    EXPECT_EQ(-1, SendResult("face", 1024000));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n")) << mLog.Dump();
    EXPECT_EQ(-1, SendResult(std::string(40, 'n'), 4));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n")) << mLog.Dump();
}

TEST_F(ServerResultsTest, SendLowersALongTimeOutWithoutAWord) {
    BeServingDevice();
    EXPECT_EQ(0, SendResult("face", 4, 3000));
    const Texts within = Log();
    EXPECT_EQ(0, SendResult("face", 4, 5000));
    EXPECT_EQ(within, Log());
}

}  // namespace
}  // namespace lumora_test
