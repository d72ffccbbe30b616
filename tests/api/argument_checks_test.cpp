// The checks that each function makes of its arguments: their order, their messages, and nothing else done or
// logged.
#include <cstring>
#include <functional>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

// What a call may write to. It holds a pattern before.
struct Output {
    int clientID;
    unsigned int number;
    LUM_DEVICES_INFO_S devices;
    char text[64];
};

// What functions are called with. The defaults pass all checks.
struct Arguments {
    Arguments() { std::memset(static_cast<void*>(&output), PATTERN, sizeof(output)); }
    Arguments(const Arguments&) = delete;  // its pointers would lead into the original
    Arguments& operator=(const Arguments&) = delete;

    bool OutputIsUntouched() const {
        const auto* bytes = reinterpret_cast<const char*>(&output);
        return std::string(bytes, sizeof(output)) == std::string(sizeof(output), PATTERN);
    }

    static constexpr char PATTERN = 0x5a;

    bool initialised = true;
    int clientID = 1;
    const char* devType = "camera";
    const char* cmd = "SetMode";
    const char* param = "night";
    const char* serviceName = "face";
    const void* data = "data";
    unsigned int length = 4;
    unsigned int timeoutMs = 100;
    LUM_EVENT_CALLBACK onEvent = OnClientEvent;
    LUM_DEVICE_EVENT_CALLBACK onDeviceEvent = OnDeviceEvent;
    LUM_DEVICE_INFO_S record = DeviceRecord({"face", "gait"});
    const LUM_DEVICE_INFO_S* devInfo = &record;

    Output output;
    int* newClientID = &output.clientID;
    unsigned int* number = &output.number;  // a handle, or how much was sent
    LUM_DEVICES_INFO_S* devices = &output.devices;
    char* buffer = output.text;
    unsigned int bufferLength = sizeof(output.text);
};

// What a call is wrong in. Two faults of one argument exclude each other.
enum class Of { STATE, CLIENT_ID, TEXT, SECOND_TEXT, DATA, LENGTH, OUTPUT, TIMEOUT, CALLBACK, RECORD };

struct Fault {
    Of argument;
    std::string message;
    std::function<void(Arguments&)> apply;
};

// Which module a function works on. The functions that make one find none.
enum class Module { NONE, CLIENT, SERVER };

struct Function {
    const char* name;
    Module module;
    Texts entry;  // what it logs before its checks
    int (*call)(const Arguments&);
    std::vector<Fault> faults;  // in the order of the checks
};

std::ostream& operator<<(std::ostream& out, const Function& function) { return out << function.name; }

const Texts SILENT;
const Texts ENTER = {"0 Enter\n"};

const std::string LONG_NAME(41, 'n');
const std::string VERY_LONG_NAME(5000, 'n');
const std::string LONG_TEXT(401, 'c');
const std::string HALF_TEXT(200, 'c');
const std::string LARGER_HALF_TEXT(201, 'p');
// A transport that follows a name of 40 characters. Its first byte reads as the 41st character, in either
// byte order.
constexpr int ILLEGAL_IN_EACH_BYTE = 0x06060606;

// ---- Faults that several functions look for ----

Fault NotInitialised(const char* message) {
    return {Of::STATE, message, [](Arguments& with) { with.initialised = false; }};
}

const Fault CALL_INIT = NotInitialised("please call LUM_InitModule first.\n");
const Fault CALL_CONNECT = NotInitialised("please call LUM_ConnectAiDevice first.\n");
const Fault NEGATIVE_ID = {Of::CLIENT_ID, "clientID is illegal\n",
                           [](Arguments& with) { with.clientID = -1; }};
const Fault LARGE_ID = {Of::CLIENT_ID, "clientID is illegal\n", [](Arguments& with) { with.clientID = 21; }};

Fault NoType(const char* message) {
    return {Of::TEXT, message, [](Arguments& with) { with.devType = nullptr; }};
}
const Fault EMPTY_TYPE = {Of::TEXT, "devType is empty\n", [](Arguments& with) { with.devType = ""; }};
const Fault LONG_TYPE = {Of::TEXT, "devType's length exceeding the limit length: 40\n",
                         [](Arguments& with) { with.devType = LONG_NAME.c_str(); }};
const Fault NO_DATA = {Of::DATA, "input data buffer is nullptr.\n",
                       [](Arguments& with) { with.data = nullptr; }};
const Fault NO_SENT_LENGTH = {Of::OUTPUT, "sendLength is nullptr.\n",
                              [](Arguments& with) { with.number = nullptr; }};

Fault Length(unsigned int length, const char* message) {
    return {Of::LENGTH, message, [length](Arguments& with) { with.length = length; }};
}
Fault TimeOut(unsigned int timeoutMs) {
    return {Of::TIMEOUT, "timeoutMs is illegal.\n",
            [timeoutMs](Arguments& with) { with.timeoutMs = timeoutMs; }};
}
Fault ServiceCount(unsigned int count, const char* message) {
    return {Of::LENGTH, message, [count](Arguments& with) { with.record.serviceNum = count; }};
}
Fault InService(unsigned int index, const char* message, void (*apply)(LUM_SERVICE_INFO_S&)) {
    return {index == 0 ? Of::SECOND_TEXT : Of::TIMEOUT, message,
            [index, apply](Arguments& with) { apply(with.record.serviceInfo[index]); }};
}

// Only negative IDs are refused here. All others are looked up.
const std::vector<Fault> VERSION_FAULTS = {
    {Of::CLIENT_ID, "clientID is illegal.\n", [](Arguments& with) { with.clientID = -1; }},
    CALL_CONNECT,
    {Of::OUTPUT, "input data buffer is nullptr.\n", [](Arguments& with) { with.buffer = nullptr; }},
    {Of::LENGTH, "buffLen is too short.\n", [](Arguments& with) { with.bufferLength = 63; }},
    {Of::LENGTH, "buffLen is too short.\n", [](Arguments& with) { with.bufferLength = 0; }}};

// ---- The functions ----

const Function FUNCTIONS[] = {
    {"InitClient",
     Module::NONE,
     ENTER,
     [](const Arguments& with) { return LUM_InitClient(with.newClientID, with.devType); },
     {{Of::OUTPUT, "invalid input paramers !\n", [](Arguments& with) { with.newClientID = nullptr; }},
      NoType("invalid input paramers !\n"),
      EMPTY_TYPE,
      LONG_TYPE}},

    {"DeInitClient",
     Module::CLIENT,
     ENTER,
     [](const Arguments& with) { return LUM_DeInitClient(with.clientID); },
     {NotInitialised("lumora is null, please call InitClient first.\n"), NEGATIVE_ID, LARGE_ID}},

    {"RegisterEvent",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_RegisterEvent(with.clientID, with.onEvent); },
     {{Of::CALLBACK, "callback is null!\n", [](Arguments& with) { with.onEvent = nullptr; }},
      NotInitialised("lumora is null, please call LUM_InitModule first.\n"),
      NEGATIVE_ID,
      LARGE_ID}},

    {"GetAiDeviceList",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_GetAiDeviceList(with.devType, with.devices); },
     {CALL_INIT,
      NoType("devType is null!\n"),
      {Of::OUTPUT, "devsInfo is null!\n", [](Arguments& with) { with.devices = nullptr; }},
      EMPTY_TYPE,
      LONG_TYPE}},

    {"CreateAiDevice",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_CreateAiDevice(with.clientID, with.devType, with.number); },
     {CALL_INIT,
      NoType("devType is null!\n"),
      {Of::OUTPUT, "handle is null!\n", [](Arguments& with) { with.number = nullptr; }},
      EMPTY_TYPE,
      LONG_TYPE,
      NEGATIVE_ID,
      LARGE_ID}},

    {"RegisterAiDeviceEvent",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_RegisterAiDeviceEvent(with.clientID, 1, with.onDeviceEvent); },
     {CALL_INIT,
      {Of::CALLBACK, "callback is nullptr.\n", [](Arguments& with) { with.onDeviceEvent = nullptr; }},
      NEGATIVE_ID,
      LARGE_ID}},

    {"ConnectAiDevice",
     Module::CLIENT,
     ENTER,
     [](const Arguments& with) { return LUM_ConnectAiDevice(with.clientID, 1); },
     {CALL_INIT, NEGATIVE_ID, LARGE_ID}},

    {"DisconnectAiDevice",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_DisconnectAiDevice(with.clientID, 1); },
     {CALL_INIT, NEGATIVE_ID, LARGE_ID}},

    {"DestoryAiDevice",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_DestoryAiDevice(with.clientID, 1); },
     {NEGATIVE_ID, LARGE_ID, CALL_CONNECT}},

    {"SendCmd",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_SendCmd(with.clientID, 1, with.cmd, with.param); },
     {NEGATIVE_ID,
      LARGE_ID,
      CALL_CONNECT,
      {Of::TEXT, "cmd can't be nullptr.\n", [](Arguments& with) { with.cmd = nullptr; }},
      {Of::SECOND_TEXT, "param can't be nullptr.\n", [](Arguments& with) { with.param = nullptr; }},
      {Of::TEXT, "cmd is illegal\n", [](Arguments& with) { with.cmd = ""; }},
      {Of::TEXT, "cmd is illegal\n", [](Arguments& with) { with.cmd = LONG_TEXT.c_str(); }},
      {Of::SECOND_TEXT, "param is illegal\n", [](Arguments& with) { with.param = LONG_TEXT.c_str(); }}}},

    // Apart from the others: it is a fault of both texts.
    {"SendCmdWithLongTexts",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) { return LUM_SendCmd(with.clientID, 1, with.cmd, with.param); },
     {LARGE_ID,
      CALL_CONNECT,
      {Of::TEXT, "Total length of param and cmd exceeding the limit length: 400\n",
       [](Arguments& with) {
           with.cmd = HALF_TEXT.c_str();
           with.param = LARGER_HALF_TEXT.c_str();
       }}}},

    {"SendData",
     Module::CLIENT,
     SILENT,
     [](const Arguments& with) {
         return LUM_SendData(with.clientID, 1, with.data, with.length, with.number, with.timeoutMs);
     },
     {NEGATIVE_ID, LARGE_ID, CALL_CONNECT, NO_DATA, NO_SENT_LENGTH, Length(0, "payload length is 0.\n"),
      Length(5242881, "data length = 5242881 is exceed the max length : 5242880.\n"),
      Length(0xffffffffU, "data length = -1 is exceed the max length : 5242880.\n"), TimeOut(2001),
      TimeOut(0xffffffffU)}},

    {"GetClientVersion", Module::CLIENT, SILENT,
     [](const Arguments& with) {
         return LUM_GetClientVersion(with.clientID, with.buffer, with.bufferLength);
     },
     VERSION_FAULTS},

    {"GetServerVersion", Module::CLIENT, SILENT,
     [](const Arguments& with) {
         return LUM_GetServerVersion(with.clientID, 1, with.buffer, with.bufferLength);
     },
     VERSION_FAULTS},

    {"InitServer",
     Module::NONE,
     ENTER,
     [](const Arguments& with) { return LUM_InitServer(with.devType); },
     {NoType("devType is nullptr.\n"),
      EMPTY_TYPE,
      {Of::TEXT, "devType's length = 41 ,exceeding the limit length: 40\n",
       [](Arguments& with) { with.devType = LONG_NAME.c_str(); }},
      {Of::TEXT, "devType's length = 5000 ,exceeding the limit length: 40\n",
       [](Arguments& with) { with.devType = VERY_LONG_NAME.c_str(); }}}},

    {"RegisterAiDevInfo",
     Module::SERVER,
     SILENT,
     [](const Arguments& with) { return LUM_RegisterAiDevInfo(with.devInfo); },
     {{Of::RECORD, "devInfo is nullptr.\n", [](Arguments& with) { with.devInfo = nullptr; }},
      CALL_CONNECT,
      ServiceCount(0, "devInfo->serviceNum must in range of 1-5, 0 is illegal.\n"),
      ServiceCount(9, "devInfo->serviceNum must in range of 1-5, 9 is illegal.\n"),
      ServiceCount(0xffffffffU, "devInfo->serviceNum must in range of 1-5, -1 is illegal.\n"),
      // The 41st character of the type is the first byte of what follows it in the record.
      {Of::TEXT, "devServiceType 's length illegal\n",
       [](Arguments& with) {
           SetName(with.record.devServiceType, std::string(40, 't'));
           with.record.serviceInfo[0].outputLenBytes = 0x01010101;
       }},
      {Of::CALLBACK, "OnCommand is nullptr.\n", [](Arguments& with) { with.record.OnCommand = nullptr; }},
      {Of::DATA, "OnData is nullptr.\n", [](Arguments& with) { with.record.OnData = nullptr; }},
      {Of::OUTPUT, "OnEventNotify is nullptr.\n",
       [](Arguments& with) { with.record.OnEventNotify = nullptr; }},
      InService(0, "service name is empty\n",
                [](LUM_SERVICE_INFO_S& service) { SetName(service.serviceName, ""); }),
      InService(0, "service name 's length illegal\n",
                [](LUM_SERVICE_INFO_S& service) {
                    SetName(service.serviceName, std::string(40, 'n'));
                    SetTransport(service, ILLEGAL_IN_EACH_BYTE);
                }),
      InService(0, "transport :6 is illegal\n",
                [](LUM_SERVICE_INFO_S& service) { SetTransport(service, 6); }),
      InService(1, "service name is empty\n",
                [](LUM_SERVICE_INFO_S& service) { SetName(service.serviceName, ""); }),
      InService(1, "transport :7 is illegal\n",
                [](LUM_SERVICE_INFO_S& service) { SetTransport(service, 7); })}},

    // Apart from the others: name and transport of one service.
    {"RegisterAiDevInfoWithOneService",
     Module::SERVER,
     SILENT,
     [](const Arguments& with) { return LUM_RegisterAiDevInfo(with.devInfo); },
     {{Of::TEXT, "service name is empty\n",
       [](Arguments& with) { SetName(with.record.serviceInfo[0].serviceName, ""); }},
      {Of::TEXT, "service name 's length illegal\n",
       [](Arguments& with) {
           SetName(with.record.serviceInfo[0].serviceName, std::string(40, 'n'));
           SetTransport(with.record.serviceInfo[0], ILLEGAL_IN_EACH_BYTE);
       }},
      {Of::RECORD, "transport :101058054 is illegal\n",
       [](Arguments& with) { SetTransport(with.record.serviceInfo[0], ILLEGAL_IN_EACH_BYTE); }}}},

    {"SendDataToClient",
     Module::SERVER,
     ENTER,
     [](const Arguments& with) {
         return LUM_SendDataToClient(with.serviceName, with.data, with.length, with.number, with.timeoutMs);
     },
     {CALL_CONNECT,
      {Of::TEXT, "input serviceName is nullptr.\n", [](Arguments& with) { with.serviceName = nullptr; }},
      NO_DATA,
      NO_SENT_LENGTH,
      Length(1024001, "user data length = 1024001 exceed the max send length = 1024000.\n"),
      Length(0xffffffffU, "user data length = -1 exceed the max send length = 1024000.\n"),
      {Of::TEXT, "service name is empty\n", [](Arguments& with) { with.serviceName = ""; }},
      {Of::TEXT, "serviceName's length = 41 illegal\n",
       [](Arguments& with) { with.serviceName = LONG_NAME.c_str(); }}}},
};

class ArgumentChecksTest : public ApiTest, public testing::WithParamInterface<Function> {
protected:
    // A call with both faults is refused for the logged one, and for that alone.
    void ExpectRefusal(const Fault& logged, const Fault& other) {
        const Function& function = GetParam();
        Arguments with;
        logged.apply(with);
        other.apply(with);
        Prepare(with.initialised);
        mLog.Clear();
        EXPECT_EQ(-1, function.call(with)) << logged.message << other.message;
        Texts expected = function.entry;
        expected.push_back("4 " + logged.message);
        EXPECT_EQ(expected, Log()) << "with " << other.message;
        EXPECT_TRUE(with.OutputIsUntouched()) << logged.message;
    }

private:
    // The module is there, or is not, as the call wants it.
    void Prepare(bool initialised) {
        const Module module = GetParam().module;
        if (initialised == mInitialised || module == Module::NONE) {
            return;
        }
        mInitialised = initialised;
        if (!initialised) {
            ASSERT_EQ(0, module == Module::CLIENT ? LUM_DeInitClient(1) : LUM_DeInitServer());
        } else if (module == Module::CLIENT) {
            InitClient();
        } else {
            InitServer();
        }
    }

    bool mInitialised = false;
};

TEST_P(ArgumentChecksTest, EachFaultIsRefusedWithItsMessage) {
    for (const Fault& fault : GetParam().faults) {
        ExpectRefusal(fault, fault);
    }
}

TEST_P(ArgumentChecksTest, OfTwoFaultsTheFirstInOrderIsLogged) {
    const std::vector<Fault>& faults = GetParam().faults;
    for (auto first = faults.begin(); first != faults.end(); ++first) {
        for (auto second = first + 1; second != faults.end(); ++second) {
            if (first->argument != second->argument) {
                ExpectRefusal(*first, *second);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, ArgumentChecksTest, testing::ValuesIn(FUNCTIONS),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace lumora_test
