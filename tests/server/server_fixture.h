// A server module over the fake platform, the application above it, and the client beside it.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/server_module.h"
#include "tests/server/fake_transports.h"
#include "tests/support/captured_log.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"
#include "tests/support/raw_peer.h"
#include "tests/support/system_faults.h"

namespace lumora_test {

constexpr int SERVER_PORT = 6666;
constexpr int CLIENT_PORT = 6667;

// What OnEventNotify was told.
struct Notification {
    int clientID;
    int event;
    std::string serviceName;
    int dataSource;
    int transport;

    bool operator==(const Notification& other) const {
        return clientID == other.clientID && event == other.event && serviceName == other.serviceName &&
               dataSource == other.dataSource && transport == other.transport;
    }
};
void PrintTo(const Notification& notification, std::ostream* out);
Notification Subscribed(int clientID, const std::string& serviceName, int dataSource = 0, int transport = 2);
Notification Unsubscribed(int clientID, const std::string& serviceName);

using Texts = std::vector<std::string>;
using Command = std::pair<std::string, std::string>;
using Data = std::pair<int, Bytes>;

// The application's callbacks and what they heard; one at a time.
class Application {
public:
    Application();
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // A record with these callbacks, and a service of each name.
    static LUM_DEVICE_INFO_S Describe(const Texts& serviceNames, const std::string& type = "camera");

    std::vector<Notification> Notifications() const;
    std::vector<Command> Commands() const;
    std::vector<Data> Received() const;
    // Waits for so many blocks of data.
    std::vector<Data> Received(size_t count) const;

    // Run inside the callbacks, after they have remembered their arguments.
    std::function<void()> onCommand = [] {};
    std::function<void()> onNotify = [] {};
    std::function<void(int clientID, const Bytes& payload)> onData = [](int, const Bytes&) {};

private:
    static int OnCommand(const char* cmd, const char* param);
    static int OnNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription);
    static int OnData(int clientID, const char* data, unsigned int length);

    mutable std::mutex mMutex;  // guards what was heard
    std::vector<Notification> mNotifications;
    std::vector<Command> mCommands;
    std::vector<Data> mReceived;
};

// Copies a text into a field of a record, without a terminator if it fills the field.
void SetName(char (&field)[LUM_NAME_SIZE], const std::string& text);

class ServerModuleTest : public testing::Test {
protected:
    ServerModuleTest();
    ~ServerModuleTest() override;

    // ---- The application ----
    void Start();
    void Register(const Texts& serviceNames);
    void StartWith(const Texts& serviceNames);
    // Sends and returns the result; mSent holds the count.
    int Send(const std::string& serviceName, const Bytes& payload, unsigned int timeoutMs = 1000);

    // ---- The client's requests, as they come out of the platform ----
    int Connect(int clientID);
    int Destroy(int clientID);
    int Subscribe(int clientID, const std::string& serviceName, int dataSource = 0, int transport = 2);
    int Unsubscribe(int clientID, const std::string& serviceName);
    int Cmd(int clientID, const std::string& cmd, const std::string& param);
    static std::string SetupString(int protocol = 2, int port = SERVER_PORT);
    Answer RequestSetup(const std::string& setupString = SetupString(),
                        const std::string& requester = "127.0.0.1");
    std::string ServiceInfoText();

    // ---- The client's data channel ----
    void OpenChannel();
    // The bytes that come next, which end with this payload.
    Bytes ReceiveFrame(const Bytes& clientIDs, const std::string& serviceName, const Bytes& payload);

    Texts Errors() const { return mLog.Texts(4); }

    CapturedLog mLog;
    FakePlatform mPlatform;
    Application mApplication;
    std::unique_ptr<lumoraAiModule::LumoraServerModule> mModule;
    std::unique_ptr<RawListener> mClientListener;
    RawConnection mToServer;
    RawConnection mFromServer;
    unsigned int mSent = 4711;
};

}  // namespace lumora_test
