// The checks of the client side's functions: order, messages, and nothing else done or logged.
#include <cstring>

#include "tests/api/check_order.h"

namespace lumora_test {
namespace {

const char* const CLIENT_ID_MESSAGE = "clientID is illegal\n";
const char* const TYPE_EMPTY = "devType is empty\n";
const char* const TYPE_TOO_LONG = "devType's length exceeding the limit length: 40\n";
const char* const CALL_INIT = "please call LUM_InitModule first.\n";
const char* const CALL_CONNECT = "please call LUM_ConnectAiDevice first.\n";
const std::string LONG_TYPE(41, 't');
const std::string LONG_TEXT(401, 'c');

class ClientChecksTest : public CheckTest {
protected:
    void Prepare(bool initialised) override {
        if (initialised == mInitialised) {
            return;
        }
        mInitialised = initialised;
        if (initialised) {
            InitClient();
        } else {
            ASSERT_EQ(0, LUM_DeInitClient(1));
        }
    }

private:
    bool mInitialised = false;
};

template <typename Call>
Fault<Call> NotInitialised(const char* message) {
    return {Argument::STATE, message, [](Call& call) { call.initialised = false; }};
}

template <typename Call>
void AddClientIdFaults(std::vector<Fault<Call>>& faults, std::size_t position) {
    const auto at = faults.begin() + static_cast<std::ptrdiff_t>(position);
    faults.insert(at, {{Argument::CLIENT_ID, CLIENT_ID_MESSAGE, [](Call& call) { call.clientID = -1; }},
                       {Argument::CLIENT_ID, CLIENT_ID_MESSAGE, [](Call& call) { call.clientID = 21; }}});
}

struct InitClientCall {
    bool initialised = false;
    int id = -77;
    int* clientID = &id;
    const char* devType = "viewer";
    int operator()() const { return LUM_InitClient(clientID, devType); }
    bool Untouched() const { return id == -77; }
};

TEST_F(ClientChecksTest, InitClientChecksPointersThenTheTypesLength) {
    using Call = InitClientCall;
    const char* const pointers = "invalid input paramers !\n";
    ExpectChecksInOrder<Call>(
        {"0 Enter\n"},
        {{Argument::OUTPUT, pointers, [](Call& call) { call.clientID = nullptr; }},
         {Argument::TEXT, pointers, [](Call& call) { call.devType = nullptr; }},
         {Argument::TEXT, TYPE_EMPTY, [](Call& call) { call.devType = ""; }},
         {Argument::TEXT, TYPE_TOO_LONG, [](Call& call) { call.devType = LONG_TYPE.c_str(); }}});
}

struct DeInitClientCall {
    bool initialised = true;
    int clientID = 1;
    int operator()() const { return LUM_DeInitClient(clientID); }
    bool Untouched() const { return true; }
};

TEST_F(ClientChecksTest, DeInitClientChecksTheStateThenTheClientId) {
    std::vector<Fault<DeInitClientCall>> faults = {
        NotInitialised<DeInitClientCall>("lumora is null, please call InitClient first.\n")};
    AddClientIdFaults(faults, 1);
    ExpectChecksInOrder<DeInitClientCall>({"0 Enter\n"}, faults);
}

struct RegisterEventCall {
    bool initialised = true;
    int clientID = 1;
    LUM_EVENT_CALLBACK callback = OnClientEvent;
    int operator()() const { return LUM_RegisterEvent(clientID, callback); }
    bool Untouched() const { return true; }
};

TEST_F(ClientChecksTest, RegisterEventChecksTheCallbackBeforeTheState) {
    using Call = RegisterEventCall;
    std::vector<Fault<Call>> faults = {
        {Argument::CALLBACK, "callback is null!\n", [](Call& call) { call.callback = nullptr; }},
        NotInitialised<Call>("lumora is null, please call LUM_InitModule first.\n")};
    AddClientIdFaults(faults, 2);
    ExpectChecksInOrder<Call>({}, faults);
}

struct GetAiDeviceListCall {
    bool initialised = true;
    const char* devType = "camera";
    LUM_DEVICES_INFO_S record;
    LUM_DEVICES_INFO_S* devsInfo = &record;
    GetAiDeviceListCall() { std::memset(static_cast<void*>(&record), 0x5a, sizeof(record)); }
    int operator()() { return LUM_GetAiDeviceList(devType, devsInfo); }
    bool Untouched() const {
        const auto* bytes = reinterpret_cast<const char*>(&record);
        return std::string(bytes, sizeof(record)) == std::string(sizeof(record), 0x5a);
    }
};

TEST_F(ClientChecksTest, GetAiDeviceListChecksTheStateThenPointersThenTheTypesLength) {
    using Call = GetAiDeviceListCall;
    // The record must be the call's own: a copy of the call would point into its original.
    ExpectChecksInOrder<Call>(
        {}, {NotInitialised<Call>(CALL_INIT),
             {Argument::TEXT, "devType is null!\n", [](Call& call) { call.devType = nullptr; }},
             {Argument::OUTPUT, "devsInfo is null!\n", [](Call& call) { call.devsInfo = nullptr; }},
             {Argument::TEXT, TYPE_EMPTY, [](Call& call) { call.devType = ""; }},
             {Argument::TEXT, TYPE_TOO_LONG, [](Call& call) { call.devType = LONG_TYPE.c_str(); }}});
}

struct CreateAiDeviceCall {
    bool initialised = true;
    int clientID = 1;
    const char* devType = "camera";
    unsigned int number = 77;
    unsigned int* handle = &number;
    int operator()() const { return LUM_CreateAiDevice(clientID, devType, handle); }
    bool Untouched() const { return number == 77; }
};

TEST_F(ClientChecksTest, CreateAiDeviceChecksTheClientIdLast) {
    using Call = CreateAiDeviceCall;
    std::vector<Fault<Call>> faults = {
        NotInitialised<Call>(CALL_INIT),
        {Argument::TEXT, "devType is null!\n", [](Call& call) { call.devType = nullptr; }},
        {Argument::OUTPUT, "handle is null!\n", [](Call& call) { call.handle = nullptr; }},
        {Argument::TEXT, TYPE_EMPTY, [](Call& call) { call.devType = ""; }},
        {Argument::TEXT, TYPE_TOO_LONG, [](Call& call) { call.devType = LONG_TYPE.c_str(); }}};
    AddClientIdFaults(faults, 5);
    ExpectChecksInOrder<Call>({}, faults);
}

struct RegisterAiDeviceEventCall {
    bool initialised = true;
    int clientID = 1;
    LUM_DEVICE_EVENT_CALLBACK callback = OnDeviceEvent;
    int operator()() const { return LUM_RegisterAiDeviceEvent(clientID, 1, callback); }
    bool Untouched() const { return true; }
};

TEST_F(ClientChecksTest, RegisterAiDeviceEventChecksTheStateBeforeTheCallback) {
    using Call = RegisterAiDeviceEventCall;
    std::vector<Fault<Call>> faults = {
        NotInitialised<Call>(CALL_INIT),
        {Argument::CALLBACK, "callback is nullptr.\n", [](Call& call) { call.callback = nullptr; }}};
    AddClientIdFaults(faults, 2);
    ExpectChecksInOrder<Call>({}, faults);
}

template <int (*FUNCTION)(int, unsigned int)>
struct HandleCall {
    bool initialised = true;
    int clientID = 1;
    int operator()() const { return FUNCTION(clientID, 1); }
    bool Untouched() const { return true; }
};

TEST_F(ClientChecksTest, ConnectAiDeviceChecksTheStateThenTheClientId) {
    using Call = HandleCall<LUM_ConnectAiDevice>;
    std::vector<Fault<Call>> faults = {NotInitialised<Call>(CALL_INIT)};
    AddClientIdFaults(faults, 1);
    ExpectChecksInOrder<Call>({"0 Enter\n"}, faults);
}

TEST_F(ClientChecksTest, DisconnectAiDeviceChecksTheStateThenTheClientId) {
    using Call = HandleCall<LUM_DisconnectAiDevice>;
    std::vector<Fault<Call>> faults = {NotInitialised<Call>(CALL_INIT)};
    AddClientIdFaults(faults, 1);
    ExpectChecksInOrder<Call>({}, faults);
}

TEST_F(ClientChecksTest, DestoryAiDeviceChecksTheClientIdBeforeTheState) {
    using Call = HandleCall<LUM_DestoryAiDevice>;
    std::vector<Fault<Call>> faults = {NotInitialised<Call>(CALL_CONNECT)};
    AddClientIdFaults(faults, 0);
    ExpectChecksInOrder<Call>({}, faults);
}

struct SendCmdCall {
    bool initialised = true;
    int clientID = 1;
    const char* cmd = "SetMode";
    const char* param = "night";
    int operator()() const { return LUM_SendCmd(clientID, 1, cmd, param); }
    bool Untouched() const { return true; }
};

TEST_F(ClientChecksTest, SendCmdChecksPointersThenLengthsThenTheirSum) {
    using Call = SendCmdCall;
    static const std::string half(201, 'p');
    static const std::string otherHalf(200, 'c');
    std::vector<Fault<Call>> faults = {
        NotInitialised<Call>(CALL_CONNECT),
        {Argument::TEXT, "cmd can't be nullptr.\n", [](Call& call) { call.cmd = nullptr; }},
        {Argument::SECOND_TEXT, "param can't be nullptr.\n", [](Call& call) { call.param = nullptr; }},
        {Argument::TEXT, "cmd is illegal\n", [](Call& call) { call.cmd = ""; }},
        {Argument::TEXT, "cmd is illegal\n", [](Call& call) { call.cmd = LONG_TEXT.c_str(); }},
        {Argument::SECOND_TEXT, "param is illegal\n", [](Call& call) { call.param = LONG_TEXT.c_str(); }}};
    AddClientIdFaults(faults, 0);
    ExpectChecksInOrder<Call>({}, faults);
    ExpectChecksInOrder<Call>(
        {},
        {{Argument::CLIENT_ID, CLIENT_ID_MESSAGE, [](Call& call) { call.clientID = 21; }},
         NotInitialised<Call>(CALL_CONNECT),
         {Argument::TEXT, "Total length of param and cmd exceeding the limit length: 400\n", [](Call& call) {
              call.cmd = otherHalf.c_str();
              call.param = half.c_str();
          }}});
}

TEST_F(ClientChecksTest, SendCmdReportsTheCommandFirstWhenBothTextsAreMissing) {
    InitClient();
    mLog.Clear();
    EXPECT_EQ(-1, LUM_SendCmd(1, 1, nullptr, nullptr));
    EXPECT_EQ(Texts{"4 cmd can't be nullptr.\n"}, Log());
}

struct SendDataCall {
    bool initialised = true;
    int clientID = 1;
    const void* data = "data";
    unsigned int length = 4;
    unsigned int sent = 77;
    unsigned int* sendLength = &sent;
    unsigned int timeoutMs = 100;
    int operator()() const { return LUM_SendData(clientID, 1, data, length, sendLength, timeoutMs); }
    bool Untouched() const { return sent == 77; }
};

TEST_F(ClientChecksTest, SendDataChecksPointersThenTheLengthThenTheTimeOut) {
    using Call = SendDataCall;
    std::vector<Fault<Call>> faults = {
        NotInitialised<Call>(CALL_CONNECT),
        {Argument::DATA, "input data buffer is nullptr.\n", [](Call& call) { call.data = nullptr; }},
        {Argument::OUTPUT, "sendLength is nullptr.\n", [](Call& call) { call.sendLength = nullptr; }},
        {Argument::LENGTH, "payload length is 0.\n", [](Call& call) { call.length = 0; }},
        {Argument::LENGTH, "data length = 5242881 is exceed the max length : 5242880.\n",
         [](Call& call) { call.length = 5242881; }},
        {Argument::LENGTH, "data length = -1 is exceed the max length : 5242880.\n",
         [](Call& call) { call.length = 0xffffffffU; }},
        {Argument::TIMEOUT, "timeoutMs is illegal.\n", [](Call& call) { call.timeoutMs = 2001; }},
        {Argument::TIMEOUT, "timeoutMs is illegal.\n", [](Call& call) { call.timeoutMs = 0xffffffffU; }}};
    AddClientIdFaults(faults, 0);
    ExpectChecksInOrder<Call>({}, faults);
}

template <bool OF_SERVER>
struct VersionCall {
    bool initialised = true;
    int clientID = 1;
    char text[64];
    char* buff = text;
    unsigned int buffLen = sizeof(text);
    VersionCall() { std::memset(text, 0x5a, sizeof(text)); }
    int operator()() const {
        return OF_SERVER ? LUM_GetServerVersion(clientID, 1, buff, buffLen)
                         : LUM_GetClientVersion(clientID, buff, buffLen);
    }
    bool Untouched() const { return std::string(text, sizeof(text)) == std::string(sizeof(text), 0x5a); }
};

template <typename Call>
std::vector<Fault<Call>> VersionFaults() {
    return {{Argument::CLIENT_ID, "clientID is illegal.\n", [](Call& call) { call.clientID = -1; }},
            NotInitialised<Call>(CALL_CONNECT),
            {Argument::OUTPUT, "input data buffer is nullptr.\n", [](Call& call) { call.buff = nullptr; }},
            {Argument::LENGTH, "buffLen is too short.\n", [](Call& call) { call.buffLen = 63; }},
            {Argument::LENGTH, "buffLen is too short.\n", [](Call& call) { call.buffLen = 0; }}};
}

TEST_F(ClientChecksTest, GetClientVersionRefusesNegativeIdsThenChecksStateAndBuffer) {
    ExpectChecksInOrder<VersionCall<false>>({}, VersionFaults<VersionCall<false>>());
}

TEST_F(ClientChecksTest, GetServerVersionRefusesNegativeIdsThenChecksStateAndBuffer) {
    ExpectChecksInOrder<VersionCall<true>>({}, VersionFaults<VersionCall<true>>());
}

}  // namespace
}  // namespace lumora_test
