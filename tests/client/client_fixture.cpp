#include "tests/client/client_fixture.h"

#include <atomic>
#include <thread>
#include <utility>

#include "tests/support/eventually.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {

namespace {

std::mutex g_mutex;  // guards what the callbacks leave behind
std::vector<ReceivedEvent> g_events;
std::vector<std::string> g_clientEvents;
std::function<void()> g_duringNextEvent;
std::function<void(int)> g_duringClientEvents;

int Receive(const LUM_DEVICE_EVENT_S& event, const char* callback) {
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        action.swap(g_duringNextEvent);
    }
    if (action) {
        action();
    }
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_events.push_back({event, Bytes(event.data, event.dataLen), callback});
    return 0;
}

void ForgetCallbacks() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_events.clear();
    g_clientEvents.clear();
    g_duringNextEvent = nullptr;
    g_duringClientEvents = nullptr;
}

}  // namespace

std::vector<unsigned int> ClientModuleProbe::IdsInUse() {
    const lumora::MutexLock lock(LumoraClientModule::mInstanceMutex);
    return *LumoraClientModule::mClientInstance;
}

void ClientModuleProbe::EndSearch(LumoraClientModule& module, SearchResult result) {
    const lumora::MutexLock lock(module.mMutex);
    module.mDevices.Replace(result);
}

void ClientModuleProbe::SetTransport(LumoraClientModule& module, unsigned int handle,
                                     std::shared_ptr<LumoraTransManager> transport) {
    const lumora::MutexLock lock(module.mMutex);
    module.mTransportMap[handle] = std::move(transport);
}

bool ClientModuleProbe::IsLocked(LumoraClientModule& module) {
    bool locked = true;
    std::thread([&] {
        if (module.mMutex.Native().try_lock()) {
            module.mMutex.Native().unlock();
            locked = false;
        }
    }).join();
    return locked;
}

unsigned int ClientModuleProbe::ConnectedHandle(LumoraClientModule& module, int clientID) {
    return module.mClients.ConnectedHandle(clientID).value();
}

int FirstCallback(LUM_DEVICE_EVENT_S event) { return Receive(event, "first"); }
int SecondCallback(LUM_DEVICE_EVENT_S event) { return Receive(event, "second"); }

std::vector<ReceivedEvent> ReceivedEvents() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_events;
}

std::vector<Bytes> ReceivedPayloads() {
    std::vector<Bytes> payloads;
    for (const ReceivedEvent& received : ReceivedEvents()) {
        payloads.push_back(received.payload);
    }
    return payloads;
}

void DuringNextEvent(std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_duringNextEvent = std::move(action);
}

int RemovalCallback(int clientID, LUM_EVENT_E event) {
    std::function<void(int)> action;
    {
        const std::lock_guard<std::mutex> lock(g_mutex);
        g_clientEvents.push_back(std::to_string(clientID) + ":" + std::to_string(event));
        action = g_duringClientEvents;
    }
    if (action) {
        action(clientID);
    }
    return 0;
}

std::vector<std::string> ClientEvents() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_clientEvents;
}

void DuringClientEvents(std::function<void(int)> action) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_duringClientEvents = std::move(action);
}

ClientTest::ClientTest() {
    ForgetCallbacks();
    mFound = {};
}

void ClientTest::TearDown() {
    lumora_test::ResetBoundedCalls();
    lumora_test::ResetSystemFaults();
    lumora_test::ResetAllocationFaults();
    mLog.OnLine(nullptr);
    mPlatform.givesHandles = true;
    mPlatform.initResult = mPlatform.registerResult = mPlatform.runResult = mPlatform.exitResult = 0;
    mPlatform.onExit = [] {};
    EndEverything();
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), testing::IsEmpty());
    EXPECT_EQ(0, mPlatform.LiveProxies());
    EXPECT_EQ(0, mPlatform.LiveHandles());
    ForgetCallbacks();
}

void ClientTest::EndEverything() {
    for (const unsigned int id : ClientModuleProbe::IdsInUse()) {
        mModule->InitLumoraModule(static_cast<int>(id));  // an ID without a record cannot be released
        EXPECT_EQ(0, RemoveClient(static_cast<int>(id)));
    }
    mModule.reset();
    LumoraClientModule::DestoryInstance();
}

int ClientTest::TakeId(const std::string& devType) {
    int clientID = -1;
    mModule = LumoraClientModule::CreateInstance(&clientID, devType);
    EXPECT_NE(nullptr, mModule);
    return clientID;
}

int ClientTest::NewClient() {
    const int clientID = TakeId();
    EXPECT_EQ(0, mModule->InitLumoraModule(clientID));
    return clientID;
}

void ClientTest::NewClients(int count) {
    for (int i = 0; i < count; ++i) {
        NewClient();
    }
}

int ClientTest::RemoveClient(int clientID) { return mModule->DeInitLumoraModule(clientID, &mClientsLeft); }

int ClientTest::Search(const std::string& devType) {
    std::string type = devType;
    mFound = {};
    return mModule->GetNetDeviceList(type, &mFound);
}

std::vector<std::string> ClientTest::FoundTypes() const {
    std::vector<std::string> types;
    for (unsigned int i = 0; i < mFound.devNum; ++i) {
        types.push_back(mFound.devInfo[i].devServiceType);
    }
    return types;
}

unsigned int ClientTest::Handle(int clientID, std::string serviceType) {
    unsigned int handle = 0;
    EXPECT_EQ(0, mModule->CreateAiDevice(clientID, serviceType, &handle)) << mLog.Dump();
    return handle;
}

FakeDevice ClientTest::Device(const std::string& type, int port) {
    FakeDevice device;
    device.port = port;
    device.answer = [this, type](const Request& request, std::string& reply) {
        return AnswerAs(type, request, reply);
    };
    return device;
}

int ClientTest::AnswerAs(const std::string& type, const Request& request, std::string& reply) {
    {
        const std::lock_guard<std::mutex> lock(mAskedMutex);
        mAsked.push_back(type + " " + request.verb + " " + request.key + " " + request.value);
    }
    const auto action = mDuring.find(request.key);
    if (action != mDuring.end()) {
        action->second();
    }
    const auto text = mReplies.find(request.key);
    if (text != mReplies.end()) {
        reply = text->second;
    } else if (request.key == "ServiceInfo") {
        reply = ServiceInfo(type);
    }
    const auto result = mResults.find(request.key);
    return result != mResults.end() ? result->second : 0;
}

std::vector<std::string> ClientTest::Asked() {
    const std::lock_guard<std::mutex> lock(mAskedMutex);
    return mAsked;
}

void ClientTest::ForgetAsked() {
    const std::lock_guard<std::mutex> lock(mAskedMutex);
    mAsked.clear();
}

void ClientTest::ExpectOnlyError(const std::string& text) {
    EXPECT_THAT(mLog.Texts(4), testing::ElementsAre(text)) << mLog.Dump();
}

void ClientTest::WhenLogged(int level, const std::string& text, std::function<void()> action) {
    const auto done = std::make_shared<std::atomic<bool>>(false);
    mLog.OnLine([=](const lumora_test::LogLine& line) {
        if (line.level == level && line.text == text && !done->exchange(true)) {
            action();
        }
    });
}

ChannelTest::ChannelTest() {
    NewClient();
    AddDevice("camera", 5683);
    AddDevice("reader", 5684);
    mDuring[".sys.mediaservice.setup"] = [this] { mToClient = RawConnection::To(6667); };
    mReplies[".sys.mediaservice.setup"] = "Succ";
    EXPECT_EQ(0, Search());
    ForgetAsked();
    mLog.Clear();
}

void ChannelTest::Connect(int clientID, unsigned int handle) {
    ASSERT_EQ(0, TryToConnect(clientID, handle)) << mLog.Dump();
    mFromClient = mListener.Accept();
}

unsigned int ChannelTest::ConnectToCamera() {
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    return camera;
}

void ChannelTest::LoseTheCamera() {
    mPlatform.devices = {Device("reader", 5684)};
    EXPECT_EQ(0, Search());
    ForgetAsked();
    mLog.Clear();
}

void ChannelTest::RegisterEvents(int clientID, unsigned int handle) {
    ASSERT_EQ(0, mModule->RegisterAiDeviceEvent(clientID, handle, FirstCallback)) << mLog.Dump();
}

void ChannelTest::DeviceHangsUp(unsigned int handle) {
    mToClient.Close();
    ASSERT_TRUE(mLog.WaitFor(0, "handle [" + std::to_string(handle) + "] Enter\n")) << mLog.Dump();
    ASSERT_TRUE(mLog.WaitFor(2, "The client reveived thread exit.\n")) << mLog.Dump();
}

int ChannelTest::SendData(int clientID, unsigned int handle, const Bytes& payload) {
    SendDataInfo info(payload.data(), static_cast<unsigned int>(payload.size()), 1000);
    return mModule->SendData(clientID, handle, info, mSent);
}

// A command is refused by a client that is not connected to the handle, before the device is asked.
bool ChannelTest::IsConnected(int clientID, unsigned int handle) {
    return mModule->SendCmd(clientID, handle, "areYouThere", "") == 0;
}

}  // namespace lumoraAiModule
