// The client module over a platform in the process and, if a test needs them, devices that a raw peer
// plays.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/client_module.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"
#include "tests/support/joined_frame.h"
#include "tests/support/raw_peer.h"

namespace lumoraAiModule {

using lumora_test::Bounded;
using lumora_test::Bytes;
using lumora_test::CapturedLog;
using lumora_test::FailBoundedCall;
using lumora_test::FakeDevice;
using lumora_test::FakePlatform;
using lumora_test::Joined;
using lumora_test::RawConnection;
using lumora_test::RawListener;
using lumora_test::Request;
using lumora_test::ServiceInfo;

constexpr unsigned int NO_HANDLE = 4711;  // a handle that was not given out
constexpr int NO_CLIENT = 17;             // an ID that was not given out

// What a device is asked for before it hears of the first client.
inline const std::string SETUP_KEY = ".sys.mediaservice.setup";
inline const std::string SETUP = " Get " + SETUP_KEY + R"( {"p":2,"ep":{"addr":"127.0.0.1","port":6666}})";

// What lies behind the module's operations and cannot be reached through them.
struct ClientModuleProbe {
    static std::vector<unsigned int> IdsInUse();
    // As if a search had ended with this result.
    static void EndSearch(LumoraClientModule& module, SearchResult result);
    // Puts a transport in the place of the handle's.
    static void SetTransport(LumoraClientModule& module, unsigned int handle,
                             std::shared_ptr<LumoraTransManager> transport);
    // Whether some thread, the caller included, holds the module's lock.
    static bool IsLocked(LumoraClientModule& module);
    static unsigned int ConnectedHandle(LumoraClientModule& module, int clientID);
};

// A transport that does as it is told.
class ScriptedTransport : public LumoraTransManager {
public:
    int DestoryTransports() override {
        ++destroyed;
        return destroyResult;
    }
    int SendData(const void* data, unsigned int length, unsigned int* written,
                 unsigned int timeout) override {
        frame.assign(static_cast<const char*>(data), length);
        usedTimeout = timeout;
        *written = reportedWritten;
        return sendResult;
    }

    int SendFrame(const FrameParts& parts, unsigned int* written, unsigned int timeout) override {
        const Bytes whole = Joined(parts);
        return SendData(whole.data(), parts.Length(), written, timeout);
    }

    int destroyResult = 0;
    int destroyed = 0;
    int sendResult = 0;
    unsigned int reportedWritten = 0;
    Bytes frame;
    unsigned int usedTimeout = 0;
};

// Device events, with their payloads, in the order in which the callbacks below were called.
struct ReceivedEvent {
    LUM_DEVICE_EVENT_S event;
    Bytes payload;
    std::string callback;  // "first" or "second"
};
int FirstCallback(LUM_DEVICE_EVENT_S event);
int SecondCallback(LUM_DEVICE_EVENT_S event);
std::vector<ReceivedEvent> ReceivedEvents();
// The payloads alone.
std::vector<Bytes> ReceivedPayloads();
// Runs inside the next device event callback.
void DuringNextEvent(std::function<void()> action);

// Client events, "client ID:event", in the order in which the callback was called.
int RemovalCallback(int clientID, LUM_EVENT_E event);
std::vector<std::string> ClientEvents();
// Runs inside every client event callback.
void DuringClientEvents(std::function<void(int clientID)> action);

class ClientTest : public testing::Test {
protected:
    ClientTest();
    // Nothing of a test survives it: no client ID, no instance, no proxy, no platform handle.
    void TearDown() override;

    // An ID alone, without a record.
    int TakeId(const std::string& devType = "phone");
    int NewClient();
    void NewClients(int count);
    int RemoveClient(int clientID);
    // Removes all clients and destroys the instance.
    void EndEverything();
    unsigned int mClientsLeft = 99;  // as the last RemoveClient reported

    // What the search reports, and its result in between.
    int Search(const std::string& devType = "camera");
    std::vector<std::string> FoundTypes() const;
    unsigned int Handle(int clientID, std::string serviceType);

    // A device of this type at 127.0.0.1:port which describes itself and accepts everything.
    FakeDevice Device(const std::string& type, int port = 5683);
    void AddDevice(const std::string& type, int port = 5683) {
        mPlatform.devices.push_back(Device(type, port));
    }
    // What the devices were asked, "type verb key value", in order; "" for the value when there is none.
    std::vector<std::string> Asked();
    void ForgetAsked();

    // How devices deviate from accepting everything, by the request's key.
    std::map<std::string, int> mResults;
    std::map<std::string, std::string> mReplies;
    std::map<std::string, std::function<void()>> mDuring;

    void ExpectOnlyError(const std::string& text);
    // Runs the action on the thread that logs the text first, before that thread goes on.
    void WhenLogged(int level, const std::string& text, std::function<void()> action);

    CapturedLog mLog;
    FakePlatform mPlatform;
    std::shared_ptr<LumoraClientModule> mModule;
    LUM_DEVICES_INFO_S mFound;

private:
    int AnswerAs(const std::string& type, const Request& request, std::string& reply);

    std::mutex mAskedMutex;
    std::vector<std::string> mAsked;
};

// Devices "camera" (127.0.0.1:5683) and "reader" (127.0.0.1:5684), found, with the device's ends of the data
// channel.
class ChannelTest : public ClientTest {
protected:
    ChannelTest();

    unsigned int Camera(int clientID = 1) { return Handle(clientID, "camera"); }
    unsigned int Reader(int clientID = 1) { return Handle(clientID, "reader"); }
    // Connects, and takes up the connection that the client makes.
    void Connect(int clientID, unsigned int handle);
    // The first client does so; the log and the requests begin anew.
    unsigned int ConnectToCamera();
    // Makes the search find the reader only: the camera's handle stays.
    void LoseTheCamera();
    int TryToConnect(int clientID, unsigned int handle) { return mModule->ConnectAiDevice(clientID, handle); }
    void RegisterEvents(int clientID, unsigned int handle);
    // The device closes its sending half; returns when the client knows.
    void DeviceHangsUp(unsigned int handle);
    int SendData(int clientID, unsigned int handle, const Bytes& payload);
    bool IsConnected(int clientID, unsigned int handle);

    unsigned int mSent = 99;  // as the last SendData reported
    RawListener mListener{6666};
    RawConnection mToClient;    // to 6667, made while the device answers the setup request
    RawConnection mFromClient;  // on 6666
};

}  // namespace lumoraAiModule
