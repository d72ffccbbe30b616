// Caller texts and records that end where memory ends: nothing behind their limit is looked at.
#include <arpa/inet.h>

#include <cstring>

#include "tests/api/api_fixture.h"
#include "tests/api/page_end.h"

namespace lumora_test {
namespace {

const std::string FORTY(40, 'x');
const std::string FORTY_ONE(41, 'x');
const std::string FOUR_HUNDRED_ONE(401, 'x');

class TextLimitsTest : public ApiTest {
protected:
    // A record without one zero byte.
    static LUM_SUBSCRIBE_SERVICE_S UnterminatedSubscription() {
        LUM_SUBSCRIBE_SERVICE_S subscription;
        std::memset(&subscription, 0x11, sizeof(subscription));
        return subscription;
    }

    int SubscribeWith(const LUM_SUBSCRIBE_SERVICE_S& subscription) {
        mLog.Clear();
        mPlatform.ClearRequests();
        const auto* param = reinterpret_cast<const char*>(mPage.PutRecord(subscription));
        return LUM_SendCmd(1, 1, "subscribe", param);
    }

    PageEnd mPage;
    PageEnd mSecondPage;
};

TEST_F(TextLimitsTest, InitClientReadsFortyOneCharacters) {
    int clientID = 0;
    EXPECT_EQ(-1, LUM_InitClient(&clientID, mPage.Put(FORTY_ONE)));
    EXPECT_TRUE(mLog.Has(4, "devType's length exceeding the limit length: 40\n"));
    EXPECT_EQ(0, LUM_InitClient(&clientID, mPage.PutText(FORTY)));
    EXPECT_TRUE(mLog.Has(2, "Register dev ServiceType = " + FORTY + "\n"));
}

TEST_F(TextLimitsTest, GetAiDeviceListReadsFortyOneCharacters) {
    InitClient();
    LUM_DEVICES_INFO_S* found = mSecondPage.PutRecord(LUM_DEVICES_INFO_S());
    EXPECT_EQ(-1, LUM_GetAiDeviceList(mPage.Put(FORTY_ONE), found));
    EXPECT_TRUE(mLog.Has(4, "devType's length exceeding the limit length: 40\n"));
    EXPECT_EQ(-1, LUM_GetAiDeviceList(mPage.PutText(FORTY), found));
    EXPECT_EQ(Texts{FORTY}, mPlatform.Searches());
}

TEST_F(TextLimitsTest, GetAiDeviceListFillsExactlyTheRecord) {
    InitClient();
    const FakeDevice camera = DescribedDevice(ServiceInfo("camera"));
    mPlatform.devices = {camera, camera, camera, camera, camera};
    LUM_DEVICES_INFO_S* found = mPage.PutRecord(LUM_DEVICES_INFO_S());
    EXPECT_EQ(0, LUM_GetAiDeviceList("camera", found));
    EXPECT_EQ(4U, found->devNum);
}

TEST_F(TextLimitsTest, CreateAiDeviceReadsFortyOneCharacters) {
    InitClient();
    unsigned int handle = 0;
    EXPECT_EQ(-1, LUM_CreateAiDevice(1, mPage.Put(FORTY_ONE), &handle));
    EXPECT_TRUE(mLog.Has(4, "devType's length exceeding the limit length: 40\n"));
    EXPECT_EQ(-1, LUM_CreateAiDevice(1, mPage.PutText(FORTY), &handle));
    EXPECT_TRUE(mLog.Has(4, "No service type :" + FORTY + " found in net!\n"));
}

TEST_F(TextLimitsTest, SendCmdReadsFourHundredAndOneCharactersOfTheCommand) {
    BeConnectedClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, mPage.Put(FOUR_HUNDRED_ONE), ""));
    EXPECT_EQ(Texts{"4 cmd is illegal\n"}, Log());
    EXPECT_EQ(0, LUM_SendCmd(1, 1, mPage.PutText(std::string(400, 'x')), ""));
}

TEST_F(TextLimitsTest, SendCmdReadsFourHundredAndOneCharactersOfTheParameter) {
    BeConnectedClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, "c", mPage.Put(FOUR_HUNDRED_ONE)));
    EXPECT_EQ(Texts{"4 param is illegal\n"}, Log());
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "c", mPage.PutText(std::string(399, 'x'))));
}

TEST_F(TextLimitsTest, UnsubscribeTakesATextAndReadsItAsOne) {
    BeConnectedClient();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, "unsubscribe", mPage.Put(FOUR_HUNDRED_ONE)));
    EXPECT_EQ(0, LUM_SendCmd(1, 1, mPage.PutText("unsubscribe"), mSecondPage.PutText("face")));
}

TEST_F(TextLimitsTest, SubscriptionIsReadToItsEndAndNoFurther) {
    BeConnectedClient();
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    SetName(subscription.serviceName, "face");
    subscription.dataSource = 1;
    subscription.transport = 5;
    EXPECT_EQ(0, SubscribeWith(subscription));
    const Request expected = {
        "Post", "Command",
        R"({"ClientID":1,"cmd":"subscribe","subscribe":{"Service":"face","DataSource":1,"TrasType":5}})"};
    EXPECT_EQ(std::vector<Request>{expected}, mPlatform.Requests());
}

TEST_F(TextLimitsTest, SubscriptionWithoutAnyZeroByteIsRefusedForItsName) {
    BeConnectedClient();
    EXPECT_EQ(-1, SubscribeWith(UnterminatedSubscription()));
    EXPECT_EQ((Texts{"ERROR:subscribe serviceName length illegal.\n", "GetJsonCmd failed!\n",
                     "LUM_SendCmd failed!\n"}),
              mLog.Texts(4));
    EXPECT_EQ(std::vector<Request>{}, mPlatform.Requests());
}

TEST_F(TextLimitsTest, SubscriptionWithNumbersWithoutZeroBytesIsRefusedForTheNumbers) {
    BeConnectedClient();
    LUM_SUBSCRIBE_SERVICE_S subscription = UnterminatedSubscription();
    SetName(subscription.serviceName, std::string(39, 'n'));
    EXPECT_EQ(-1, SubscribeWith(subscription));
    EXPECT_TRUE(mLog.Has(4, "ERROR:dataSource illegal.\n")) << mLog.Dump();
    subscription.dataSource = 0;
    EXPECT_EQ(-1, SubscribeWith(subscription));
    EXPECT_TRUE(mLog.Has(4, "ERROR:transport illegal.\n")) << mLog.Dump();
}

TEST_F(TextLimitsTest, SubscriptionToANameThatFillsItsFieldIsSentWhole) {
    BeConnectedClient();
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    SetName(subscription.serviceName, FORTY);
    EXPECT_EQ(0, SubscribeWith(subscription)) << mLog.Dump();
    EXPECT_NE(std::string::npos, mPlatform.Requests().front().value.find("\"" + FORTY + "\""));
}

TEST_F(TextLimitsTest, SubscriptionMayStandAtAnyAddress) {
    BeConnectedClient();
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    SetName(subscription.serviceName, "face");
    std::string bytes(reinterpret_cast<const char*>(&subscription), sizeof(subscription));
    const char* odd = mPage.Put(bytes + "!");
    EXPECT_EQ(0, LUM_SendCmd(1, 1, "subscribe", odd));
}

TEST_F(TextLimitsTest, SendDataReadsExactlyTheBlock) {
    BeConnectedClient();
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendData(1, 1, mPage.Put("block"), 5, &sent, 0));
    EXPECT_EQ(ClientFrame(1, "block"), mDevice.Receive(11));
}

TEST_F(TextLimitsTest, VersionQueriesFillExactlyTheBuffer) {
    InitClient();
    FindCamera(1);
    char* text = mPage.Put(std::string(64, 'x'));
    EXPECT_EQ(0, LUM_GetClientVersion(1, text, 64));
    EXPECT_STREQ("1.1.1", text);
    EXPECT_EQ(0, LUM_GetServerVersion(1, 1, text, 64));
    EXPECT_STREQ("1.1.1", text);
}

// The message tells the length, so the text is measured up to its terminator.
TEST_F(TextLimitsTest, InitServerReadsUpToTheTerminator) {
    EXPECT_EQ(-1, LUM_InitServer(mPage.PutText(FOUR_HUNDRED_ONE)));
    EXPECT_TRUE(mLog.Has(4, "devType's length = 401 ,exceeding the limit length: 40\n"));
    EXPECT_EQ(0, LUM_InitServer(mPage.PutText(FORTY)));
}

TEST_F(TextLimitsTest, RegisterReadsExactlyTheRecord) {
    InitServer();
    const LUM_DEVICE_INFO_S device = DeviceRecord({"a", "b", "c", "d", "e", "f", "g", "h"});
    EXPECT_EQ(0, LUM_RegisterAiDevInfo(mPage.PutRecord(device))) << mLog.Dump();
}

TEST_F(TextLimitsTest, RegisterReadsNamesWithoutTerminatorsNoFurtherThanTheirFields) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    SetName(device.devServiceType, FORTY);
    SetName(device.serviceInfo[0].serviceName, FORTY);
    device.serviceInfo[0].outputLenBytes = 0x11111111;
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(mPage.PutRecord(device)));
    EXPECT_TRUE(mLog.Has(4, "devServiceType 's length illegal\n"));
    // With a zero byte behind them both are 40 characters long.
    device.serviceInfo[0].outputLenBytes = htonl(0x00111111);
    device.serviceInfo[0].transport = LUM_TRANSPORT_NONE;
    EXPECT_EQ(0, LUM_RegisterAiDevInfo(mPage.PutRecord(device))) << mLog.Dump();
    EXPECT_NE(std::string::npos, mPlatform.Get("ServiceInfo").reply.find(R"("Name":")" + FORTY + '"'));
}

TEST_F(TextLimitsTest, SendDataToClientReadsTheNameUpToItsTerminator) {
    BeServingDevice();
    unsigned int sent = 0;
    EXPECT_EQ(-1, LUM_SendDataToClient(mPage.PutText(FOUR_HUNDRED_ONE), "data", 4, &sent, 0));
    EXPECT_TRUE(mLog.Has(4, "serviceName's length = 401 illegal\n"));
    EXPECT_EQ(-1, LUM_SendDataToClient(mPage.PutText(FORTY), "data", 4, &sent, 0));
    EXPECT_TRUE(mLog.Has(4, "serviceName is illegal\n"));
}

TEST_F(TextLimitsTest, SendDataToClientReadsExactlyTheBlock) {
    BeServingDevice();
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendDataToClient(mSecondPage.PutText("face"), mPage.Put("block"), 5, &sent, 0));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "block"), mFromServer.Receive(17));
}

}  // namespace
}  // namespace lumora_test
