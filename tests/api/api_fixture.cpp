#include "tests/api/api_fixture.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"

namespace lumora_test {

namespace {

const char* const CAMERA_ADDRESS = "127.0.0.1";
constexpr int CAMERA_LINK_PORT = 5683;
constexpr unsigned int CAMERA_REMOVED = 2;
// A receive thread without a connection logs that every other millisecond.
const char* const ACCEPTING = "wait for connections\n";

std::mutex g_reactionsMutex;
Reactions& CurrentReactions() {
    static Reactions reactions;
    return reactions;
}

Reactions CopyOfReactions() {
    const std::lock_guard<std::mutex> lock(g_reactionsMutex);
    return CurrentReactions();
}

std::string AsText(const LogLine& line) { return std::to_string(line.level) + " " + line.text; }

}  // namespace

void React(const Reactions& reactions) {
    const std::lock_guard<std::mutex> lock(g_reactionsMutex);
    CurrentReactions() = reactions;
}

// The results are arbitrary: they are not used.
int OnClientEvent(int clientID, LUM_EVENT_E event) {
    CopyOfReactions().clientEvent(clientID, event);
    return -1;
}

int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    CopyOfReactions().deviceEvent(event);
    return -1;
}

int OnCommand(const char* cmd, const char* param) {
    CopyOfReactions().command(cmd, param);
    return -1;
}

int OnEventNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S) {
    CopyOfReactions().notify(clientID, event);
    return -1;
}

int OnData(int clientID, const char* data, unsigned int length) {
    CopyOfReactions().data(clientID, std::string(data, length));
    return -1;
}

void SetName(char (&field)[LUM_NAME_SIZE], const std::string& name) {
    std::memset(field, 0, sizeof(field));
    std::memcpy(field, name.data(), name.size());
}

void SetTransport(LUM_SERVICE_INFO_S& service, int transport) {
    std::memcpy(&service.transport, &transport, sizeof(transport));
}

LUM_DEVICE_INFO_S DeviceRecord(const Texts& serviceNames) {
    LUM_DEVICE_INFO_S device = {};
    device.serviceNum = static_cast<unsigned int>(serviceNames.size());
    SetName(device.devServiceType, "camera");
    LUM_SERVICE_INFO_S* service = device.serviceInfo;
    for (const std::string& name : serviceNames) {
        service->outputLenBytes = 1024;
        service->transport = LUM_TRANSPORT_TCP;
        SetName(service->serviceName, name);
        ++service;
    }
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnEventNotify;
    device.OnData = OnData;
    return device;
}

struct Signal::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool set = false;
};

Signal::Signal() : mState(std::make_shared<State>()) {}

void Signal::Set() {
    const std::lock_guard<std::mutex> lock(mState->mutex);
    mState->set = true;
    mState->changed.notify_all();
}

void Signal::Wait() const {
    std::unique_lock<std::mutex> lock(mState->mutex);
    if (!mState->changed.wait_for(lock, std::chrono::seconds(60), [this] { return mState->set; })) {
        throw std::runtime_error("a signal did not come");
    }
}

bool Signal::IsSet() const {
    const std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->set;
}

ApiTest::ApiTest() { React(Reactions()); }

void ApiTest::TearDown() {
    ResetAllocationFaults();
    ResetSystemFaults();
    ResetBoundedCalls();
    mLog.OnLine(nullptr);
    mPlatform.givesHandles = true;
    mPlatform.initResult = mPlatform.registerResult = mPlatform.runResult = mPlatform.exitResult = 0;
    mPlatform.onExit = [] {};
    EndClients();
    EndServer();
    EXPECT_EQ(0, mPlatform.LiveHandles());
    EXPECT_EQ(0, mPlatform.LiveProxies());
}

// A failed stop leaves an instance without clients: only another client can take it along.
void ApiTest::EndClients() {
    for (int clientID = 1; clientID <= LUM_MAX_CLIENTS; ++clientID) {
        LUM_DeInitClient(clientID);
    }
    const int last = InitClient();
    EXPECT_EQ(0, LUM_DeInitClient(last));
}

void ApiTest::EndServer() {
    if (LUM_DeInitServer() != 0) {
        InitServer();
        EXPECT_EQ(0, LUM_DeInitServer());
    }
}

int ApiTest::InitClient(const std::string& devType) {
    int clientID = 0;
    EXPECT_EQ(0, LUM_InitClient(&clientID, devType.c_str())) << mLog.Dump();
    return clientID;
}

unsigned int ApiTest::FindCamera(int clientID) {
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera"), CAMERA_ADDRESS, CAMERA_LINK_PORT)};
    LUM_DEVICES_INFO_S found;
    EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found)) << mLog.Dump();
    unsigned int handle = 0;
    EXPECT_EQ(0, LUM_CreateAiDevice(clientID, "camera", &handle)) << mLog.Dump();
    return handle;
}

void ApiTest::ConnectCamera(int clientID, unsigned int handle) {
    mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    ASSERT_EQ(0, LUM_ConnectAiDevice(clientID, handle)) << mLog.Dump();
    mDevice = mDeviceListener->Accept();
}

void ApiTest::BeConnectedClient() {
    ASSERT_EQ(1, InitClient());
    ASSERT_EQ(1U, FindCamera(1));
    ConnectCamera(1, 1);
}

void ApiTest::RemoveCamera() {
    mPlatform.SendEvent(CAMERA_REMOVED, 1, CAMERA_ADDRESS, CAMERA_LINK_PORT, "camera");
}

void ApiTest::SendFromDevice(int clientID, const std::string& payload) {
    if (mFromServer.Fd() < 0) {
        mFromServer = RawConnection::To(CLIENT_PORT);
    }
    mFromServer.Send(ServerFrameBytes(Bytes(1, static_cast<char>(clientID)), "face", payload));
}

void ApiTest::InitServer(const std::string& devType) {
    ASSERT_EQ(0, LUM_InitServer(devType.c_str())) << mLog.Dump();
}

void ApiTest::Register(const Texts& serviceNames) {
    const LUM_DEVICE_INFO_S device = DeviceRecord(serviceNames);
    ASSERT_EQ(0, LUM_RegisterAiDevInfo(&device)) << mLog.Dump();
}

void ApiTest::AskForChannel() {
    const Answer answer =
        mPlatform.Get(".sys.mediaservice.setup", R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666}})");
    EXPECT_EQ(0, answer.result) << mLog.Dump();
    EXPECT_EQ("Succ", answer.reply);
}

void ApiTest::OpenChannel() {
    if (mClientListener == nullptr) {
        mClientListener = std::make_unique<RawListener>(CLIENT_PORT);
    }
    AskForChannel();
    mFromServer = mClientListener->Accept();
    mToServer = RawConnection::To(DEVICE_PORT);
}

void ApiTest::Subscribe(int clientID, const std::string& serviceName) {
    const std::string document = R"({"ClientID":)" + std::to_string(clientID) +
                                 R"(,"cmd":"subscribe","subscribe":{"Service":")" + serviceName +
                                 R"(","DataSource":0,"TrasType":2}})";
    EXPECT_EQ(0, mPlatform.Post("Command", document)) << mLog.Dump();
}

void ApiTest::BeServingDevice() {
    InitServer();
    Register();
    Subscribe(3, "face");
    OpenChannel();
}

Texts ApiTest::Log() const {
    Texts texts;
    for (const LogLine& line : mLog.Lines()) {
        if (line.text != ACCEPTING) {
            texts.push_back(AsText(line));
        }
    }
    return texts;
}

Texts ApiTest::LogOf(const std::string& function) const {
    Texts texts;
    for (const LogLine& line : mLog.Lines()) {
        if (line.function == function) {
            texts.push_back(AsText(line));
        }
    }
    return texts;
}

}  // namespace lumora_test
