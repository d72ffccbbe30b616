// An application of the exported functions, over the fakes.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lumora.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/raw_peer.h"

namespace lumora_test {

using Texts = std::vector<std::string>;

constexpr int DEVICE_PORT = 6666;
constexpr int CLIENT_PORT = 6667;

// What the application does in its callbacks; each replaces the one before. They are called as copies, so
// they may be set while callbacks run.
struct Reactions {
    std::function<void(int clientID, LUM_EVENT_E event)> clientEvent = [](int, LUM_EVENT_E) {};
    std::function<void(const LUM_DEVICE_EVENT_S& event)> deviceEvent = [](const LUM_DEVICE_EVENT_S&) {};
    std::function<void(const std::string& cmd, const std::string& param)> command = [](const std::string&,
                                                                                       const std::string&) {};
    std::function<void(int clientID, int event)> notify = [](int, int) {};
    std::function<void(int clientID, const std::string& data)> data = [](int, const std::string&) {};
};
void React(const Reactions& reactions);

// The callbacks as the library is given them.
int OnClientEvent(int clientID, LUM_EVENT_E event);
int OnDeviceEvent(LUM_DEVICE_EVENT_S event);
int OnCommand(const char* cmd, const char* param);
int OnEventNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription);
int OnData(int clientID, const char* data, unsigned int length);

// A device with one service per name, all callbacks set.
LUM_DEVICE_INFO_S DeviceRecord(const Texts& serviceNames = {"face"});
// Fills a name field; 40 characters leave it without a terminator.
void SetName(char (&field)[LUM_NAME_SIZE], const std::string& name);
// As an application in C may: with any number.
void SetTransport(LUM_SERVICE_INFO_S& service, int transport);

// Lets the test go on only with what a thread does, and a thread with what the test does. Stays set.
class Signal {
public:
    Signal();
    void Set();
    // Throws std::runtime_error if it is not set within many seconds.
    void Wait() const;
    bool IsSet() const;

private:
    struct State;
    std::shared_ptr<State> mState;
};

class ApiTest : public testing::Test {
protected:
    ApiTest();
    // Ends both sides and checks that nothing is left of them.
    void TearDown() override;
    void EndClients();
    void EndServer();

    // ---- Client side ----

    int InitClient(const std::string& devType = "viewer");
    // Searches for cameras, of which the network has one, and gives its handle.
    unsigned int FindCamera(int clientID);
    // The device's half of the data channel is mDevice then.
    void ConnectCamera(int clientID, unsigned int handle);
    // A client that is connected to a camera: ID 1, handle 1.
    void BeConnectedClient();
    // The camera leaves the network.
    void RemoveCamera();
    // Sends the connected client a data event.
    void SendFromDevice(int clientID, const std::string& payload);

    // ---- Server side ----

    void InitServer(const std::string& devType = "camera");
    void Register(const Texts& serviceNames = {"face"});
    // A client opens the data channel: its halves are mToServer and mFromServer then.
    void OpenChannel();
    void AskForChannel();
    void Subscribe(int clientID, const std::string& serviceName);
    // A device with a data channel and client 3 subscribed to "face".
    void BeServingDevice();

    // ---- Log ----

    // Every line as "level text", in order, but for those of a receive thread that waits to be connected to.
    Texts Log() const;
    // Those of one function.
    Texts LogOf(const std::string& function) const;

    CapturedLog mLog;
    FakePlatform mPlatform;
    std::unique_ptr<RawListener> mDeviceListener;
    std::unique_ptr<RawListener> mClientListener;
    RawConnection mDevice;
    RawConnection mToServer;
    RawConnection mFromServer;
};

}  // namespace lumora_test
