#include "tests/server/server_fixture.h"

#include <algorithm>
#include <cstring>
#include <ostream>

namespace lumora_test {

using lumoraAiModule::LumoraServerModule;

namespace {

Application* g_application = nullptr;

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

std::string CommandHead(int clientID, const std::string& cmd) {
    return R"({"ClientID":)" + std::to_string(clientID) + R"(,"cmd":)" + Quoted(cmd);
}

}  // namespace

void PrintTo(const Notification& notification, std::ostream* out) {
    *out << "{client " << notification.clientID << ", event " << notification.event << ", "
         << notification.serviceName << ", source " << notification.dataSource << ", transport "
         << notification.transport << "}";
}

Notification Subscribed(int clientID, const std::string& serviceName, int dataSource, int transport) {
    return {clientID, 0, serviceName, dataSource, transport};
}

Notification Unsubscribed(int clientID, const std::string& serviceName) {
    return {clientID, 1, serviceName, 0, 0};
}

Application::Application() { g_application = this; }
Application::~Application() { g_application = nullptr; }

void SetName(char (&field)[LUM_NAME_SIZE], const std::string& text) {
    std::memset(field, 0, sizeof(field));
    std::memcpy(field, text.data(), std::min(text.size(), sizeof(field)));
}

LUM_DEVICE_INFO_S Application::Describe(const Texts& serviceNames, const std::string& type) {
    LUM_DEVICE_INFO_S info = {};
    SetName(info.devServiceType, type);
    for (const std::string& name : serviceNames) {
        LUM_SERVICE_INFO_S& service = info.serviceInfo[info.serviceNum++];
        SetName(service.serviceName, name);
        service.transport = LUM_TRANSPORT_TCP;
        service.outputLenBytes = 1024;
    }
    info.OnCommand = OnCommand;
    info.OnEventNotify = OnNotify;
    info.OnData = OnData;
    return info;
}

int Application::OnCommand(const char* cmd, const char* param) {
    {
        const std::lock_guard<std::mutex> lock(g_application->mMutex);
        g_application->mCommands.emplace_back(cmd, param);
    }
    g_application->onCommand();
    return -1;  // must be ignored
}

int Application::OnNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription) {
    {
        const std::lock_guard<std::mutex> lock(g_application->mMutex);
        g_application->mNotifications.push_back(
            {clientID, event, subscription.serviceName, subscription.dataSource, subscription.transport});
    }
    g_application->onNotify();
    return -1;
}

int Application::OnData(int clientID, const char* data, unsigned int length) {
    const Bytes payload(data, length);
    {
        const std::lock_guard<std::mutex> lock(g_application->mMutex);
        g_application->mReceived.emplace_back(clientID, payload);
    }
    g_application->onData(clientID, payload);
    return -1;
}

std::vector<Notification> Application::Notifications() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mNotifications;
}

std::vector<Command> Application::Commands() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mCommands;
}

std::vector<Data> Application::Received() const {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mReceived;
}

std::vector<Data> Application::Received(size_t count) const {
    Eventually([&] { return Received().size() >= count; });
    return Received();
}

ServerModuleTest::ServerModuleTest() : mModule(std::make_unique<LumoraServerModule>("camera", Sources())) {
    mLog.Clear();
}

ServerModuleTest::~ServerModuleTest() {
    ResetBoundedCalls();
    ResetSystemFaults();
    ResetAllocationFaults();
    mPlatform.onExit = [] {};
    mPlatform.exitResult = 0;
    if (mPlatform.Resource() != nullptr) {
        mPlatform.Put("StopTransport");  // for a module that runs no more and still has a transport
    }
    if (mModule != nullptr) {
        mModule->DeInitLumoraModule();
    }
    mModule.reset();
}

void ServerModuleTest::Start() { ASSERT_EQ(0, mModule->InitLumoraModule()) << mLog.Dump(); }

void ServerModuleTest::Register(const Texts& serviceNames) {
    const LUM_DEVICE_INFO_S info = Application::Describe(serviceNames);
    ASSERT_EQ(0, mModule->RegisterLocalDeviceInfo(&info)) << mLog.Dump();
}

void ServerModuleTest::StartWith(const Texts& serviceNames) {
    Start();
    Register(serviceNames);
    mLog.Clear();
}

int ServerModuleTest::Send(const std::string& serviceName, const Bytes& payload, unsigned int timeoutMs) {
    return mModule->SendDataToClient(serviceName, payload.data(), static_cast<unsigned int>(payload.size()),
                                     &mSent, timeoutMs);
}

int ServerModuleTest::Connect(int clientID) { return mPlatform.Post("Connect", std::to_string(clientID)); }
int ServerModuleTest::Destroy(int clientID) { return mPlatform.Post("Destroy", std::to_string(clientID)); }

int ServerModuleTest::Subscribe(int clientID, const std::string& serviceName, int dataSource, int transport) {
    return mPlatform.Post("Command", CommandHead(clientID, "subscribe") + R"(,"subscribe":{"Service":)" +
                                         Quoted(serviceName) + R"(,"DataSource":)" +
                                         std::to_string(dataSource) + R"(,"TrasType":)" +
                                         std::to_string(transport) + "}}");
}

int ServerModuleTest::Unsubscribe(int clientID, const std::string& serviceName) {
    return Cmd(clientID, "unsubscribe", serviceName);
}

int ServerModuleTest::Cmd(int clientID, const std::string& cmd, const std::string& param) {
    return mPlatform.Post("Command", CommandHead(clientID, cmd) + R"(,"param":)" + Quoted(param) + "}");
}

std::string ServerModuleTest::SetupString(int protocol, int port) {
    return R"({"p":)" + std::to_string(protocol) + R"(,"ep":{"addr":"10.9.8.7","port":)" +
           std::to_string(port) + "}}";
}

Answer ServerModuleTest::RequestSetup(const std::string& setupString, const std::string& requester) {
    return mPlatform.Get(".sys.mediaservice.setup", setupString, 1024, requester);
}

std::string ServerModuleTest::ServiceInfoText() {
    std::string reply = "untouched";
    EXPECT_EQ(0, mModule->OnCoapGet("ServiceInfo", reply));
    return reply;
}

void ServerModuleTest::OpenChannel() {
    mFromServer.Close();
    mToServer.Close();
    mClientListener = nullptr;
    mClientListener = std::make_unique<RawListener>(CLIENT_PORT);
    const Answer answer = RequestSetup();
    ASSERT_EQ(0, answer.result) << mLog.Dump();
    ASSERT_EQ("Succ", answer.reply) << mLog.Dump();
    mToServer = RawConnection::To(SERVER_PORT);
    mFromServer = mClientListener->Accept();
}

Bytes ServerModuleTest::ReceiveFrame(const Bytes& clientIDs, const std::string& serviceName,
                                     const Bytes& payload) {
    return mFromServer.Receive(ServerFrameBytes(clientIDs, serviceName, payload).size());
}

}  // namespace lumora_test
