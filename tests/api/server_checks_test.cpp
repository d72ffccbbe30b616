// The checks of the server side's functions: order, messages, and nothing else done or logged.
#include "tests/api/check_order.h"

namespace lumora_test {
namespace {

const char* const CALL_CONNECT = "please call LUM_ConnectAiDevice first.\n";
const std::string LONG_NAME(41, 'n');
// Behind a name of 40 characters it is the 41st, whichever of its bytes comes first on this host.
constexpr int ILLEGAL_IN_EACH_BYTE = 0x06060606;

class ServerChecksTest : public CheckTest {
protected:
    void Prepare(bool initialised) override {
        if (initialised == mInitialised) {
            return;
        }
        mInitialised = initialised;
        if (initialised) {
            InitServer();
        } else {
            ASSERT_EQ(0, LUM_DeInitServer());
        }
    }

private:
    bool mInitialised = false;
};

struct InitServerCall {
    bool initialised = false;
    const char* devType = "camera";
    int operator()() const { return LUM_InitServer(devType); }
    bool Untouched() const { return true; }
};

TEST_F(ServerChecksTest, InitServerChecksTheTypesPointerAndLength) {
    using Call = InitServerCall;
    static const std::string veryLong(5000, 't');
    ExpectChecksInOrder<Call>(
        {"0 Enter\n"}, {{Argument::TEXT, "devType is nullptr.\n", [](Call& call) { call.devType = nullptr; }},
                        {Argument::TEXT, "devType is empty\n", [](Call& call) { call.devType = ""; }},
                        {Argument::TEXT, "devType's length = 41 ,exceeding the limit length: 40\n",
                         [](Call& call) { call.devType = LONG_NAME.c_str(); }},
                        {Argument::TEXT, "devType's length = 5000 ,exceeding the limit length: 40\n",
                         [](Call& call) { call.devType = veryLong.c_str(); }}});
}

struct RegisterCall {
    bool initialised = true;
    LUM_DEVICE_INFO_S record = DeviceRecord({"face", "gait"});
    bool given = true;
    int operator()() const { return LUM_RegisterAiDevInfo(given ? &record : nullptr); }
    bool Untouched() const { return true; }
};

TEST_F(ServerChecksTest, RegisterChecksRecordStateCountTypeCallbacksThenServices) {
    using Call = RegisterCall;
    ExpectChecksInOrder<Call>(
        {},
        {{Argument::RECORD, "devInfo is nullptr.\n", [](Call& call) { call.given = false; }},
         {Argument::STATE, CALL_CONNECT, [](Call& call) { call.initialised = false; }},
         {Argument::LENGTH, "devInfo->serviceNum must in range of 1-5, 0 is illegal.\n",
          [](Call& call) { call.record.serviceNum = 0; }},
         {Argument::LENGTH, "devInfo->serviceNum must in range of 1-5, 9 is illegal.\n",
          [](Call& call) { call.record.serviceNum = 9; }},
         {Argument::LENGTH, "devInfo->serviceNum must in range of 1-5, -1 is illegal.\n",
          [](Call& call) { call.record.serviceNum = 0xffffffffU; }},
         // The 41st character of the type is the first byte of what follows it in the record.
         {Argument::TEXT, "devServiceType 's length illegal\n",
          [](Call& call) {
              SetName(call.record.devServiceType, std::string(40, 't'));
              call.record.serviceInfo[0].outputLenBytes = 0x01010101;
          }},
         {Argument::CALLBACK, "OnCommand is nullptr.\n", [](Call& call) { call.record.OnCommand = nullptr; }},
         {Argument::DATA, "OnData is nullptr.\n", [](Call& call) { call.record.OnData = nullptr; }},
         {Argument::OUTPUT, "OnEventNotify is nullptr.\n",
          [](Call& call) { call.record.OnEventNotify = nullptr; }},
         {Argument::SECOND_TEXT, "service name is empty\n",
          [](Call& call) { SetName(call.record.serviceInfo[0].serviceName, ""); }},
         {Argument::SECOND_TEXT, "service name 's length illegal\n",
          [](Call& call) {
              SetName(call.record.serviceInfo[0].serviceName, std::string(40, 'n'));
              SetTransport(call.record.serviceInfo[0], ILLEGAL_IN_EACH_BYTE);
          }},
         {Argument::SECOND_TEXT, "transport :6 is illegal\n",
          [](Call& call) { SetTransport(call.record.serviceInfo[0], 6); }},
         {Argument::TIMEOUT, "service name is empty\n",
          [](Call& call) { SetName(call.record.serviceInfo[1].serviceName, ""); }},
         {Argument::TIMEOUT, "transport :7 is illegal\n",
          [](Call& call) { SetTransport(call.record.serviceInfo[1], 7); }}});
}

TEST_F(ServerChecksTest, RegisterChecksTheNameOfAServiceBeforeItsTransport) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord();
    SetTransport(device.serviceInfo[0], ILLEGAL_IN_EACH_BYTE);
    SetName(device.serviceInfo[0].serviceName, "");
    mLog.Clear();
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    SetName(device.serviceInfo[0].serviceName, std::string(40, 'n'));
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    EXPECT_EQ((Texts{"4 service name is empty\n", "4 service name 's length illegal\n"}), Log());
}

TEST_F(ServerChecksTest, RegisterIgnoresEntriesBehindTheCount) {
    InitServer();
    LUM_DEVICE_INFO_S device = DeviceRecord({"face", "gait"});
    device.serviceNum = 1;
    SetName(device.serviceInfo[1].serviceName, "");
    SetTransport(device.serviceInfo[1], 99);
    EXPECT_EQ(0, LUM_RegisterAiDevInfo(&device)) << mLog.Dump();
}

TEST_F(ServerChecksTest, FailedRegistrationCheckKeepsTheEarlierRegistration) {
    InitServer();
    Register({"face"});
    const std::string before = mPlatform.Get("ServiceInfo").reply;
    ASSERT_NE("", before);
    LUM_DEVICE_INFO_S device = DeviceRecord({"gait", "pose"});
    SetTransport(device.serviceInfo[1], 6);
    EXPECT_EQ(-1, LUM_RegisterAiDevInfo(&device));
    EXPECT_EQ(before, mPlatform.Get("ServiceInfo").reply);
}

struct SendDataToClientCall {
    bool initialised = true;
    const char* serviceName = "face";
    const void* data = "data";
    unsigned int dataLen = 4;
    unsigned int sent = 77;
    unsigned int* sendLength = &sent;
    int operator()() const { return LUM_SendDataToClient(serviceName, data, dataLen, sendLength, 100); }
    bool Untouched() const { return sent == 77; }
};

TEST_F(ServerChecksTest, SendDataToClientChecksStatePointersLengthThenTheName) {
    using Call = SendDataToClientCall;
    ExpectChecksInOrder<Call>(
        {"0 Enter\n"},
        {{Argument::STATE, CALL_CONNECT, [](Call& call) { call.initialised = false; }},
         {Argument::TEXT, "input serviceName is nullptr.\n", [](Call& call) { call.serviceName = nullptr; }},
         {Argument::DATA, "input data buffer is nullptr.\n", [](Call& call) { call.data = nullptr; }},
         {Argument::OUTPUT, "sendLength is nullptr.\n", [](Call& call) { call.sendLength = nullptr; }},
         {Argument::LENGTH, "user data length = 1024001 exceed the max send length = 1024000.\n",
          [](Call& call) { call.dataLen = 1024001; }},
         {Argument::LENGTH, "user data length = -1 exceed the max send length = 1024000.\n",
          [](Call& call) { call.dataLen = 0xffffffffU; }},
         {Argument::TEXT, "service name is empty\n", [](Call& call) { call.serviceName = ""; }},
         {Argument::TEXT, "serviceName's length = 41 illegal\n",
          [](Call& call) { call.serviceName = LONG_NAME.c_str(); }}});
}

TEST_F(ServerChecksTest, DeInitServerWithoutAServerSucceedsAndSaysSo) {
    EXPECT_EQ(0, LUM_DeInitServer());
    EXPECT_EQ((Texts{"0 Enter\n", "4 g_lumora is nullptr, we can't deinit it ,but will return succ.\n"}),
              Log());
}

}  // namespace
}  // namespace lumora_test
