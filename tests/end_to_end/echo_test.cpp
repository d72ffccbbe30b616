// The small examples in C and in C++, and a client that outlives devices, as processes over our link
// platform.
#include <gmock/gmock.h>
#include <signal.h>

#include <string>

#include "process.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using testing::HasSubstr;

class EchoDevice : public Process {
public:
    explicit EchoDevice(const char* program = DEVICE_PROGRAM) : Process({program}) { WaitForLine("ready"); }

    int End() {
        Signal(SIGTERM);
        return WaitForEnd();
    }
};

class CppEchoDevice : public EchoDevice {
public:
    CppEchoDevice() : EchoDevice(CPP_DEVICE_PROGRAM) {}
};

void ExpectEcho(const std::string& text, const std::string& program = CLIENT_PROGRAM) {
    Process client({program, text});
    EXPECT_EQ(0, client.WaitForEnd());
    EXPECT_EQ("echo: " + text + "\n", client.Output());
}

class LastingClient : public Process {
public:
    LastingClient() : Process({LASTING_CLIENT_PROGRAM}) {}

    bool Do(const std::string& command) {
        WriteLine(command);
        return WaitForLine(command + " ") == command + " done";
    }

    // A removal that comes late ends a connection to the next device of this type: it has to be waited for.
    void WaitForRemoval() { WaitForLog("Received request to remove device"); }

    void ExpectEcho(const std::string& text) {
        WriteLine(text);
        EXPECT_EQ("echo: " + text, WaitForLine("echo: "));
    }

    int End() {
        CloseInput();
        return WaitForEnd();
    }
};

TEST(EchoTest, ClientGetsBackWhatItSent) {
    EchoDevice device;
    ExpectEcho("hello");
    device.WaitForLine("client 1 subscribed to echo");
    // "client 1 left echo" may come first: it is told on another thread.
    device.WaitForLine("client 1 sent 5 bytes, 5 went back");
    EXPECT_EQ(0, device.End());
}

TEST(EchoTest, ClientInCppUsesDeviceInC) {
    EchoDevice device;
    ExpectEcho("from C++", CPP_CLIENT_PROGRAM);
    EXPECT_EQ(0, device.End());
}

TEST(EchoTest, DeviceInCppServesClientsInBoth) {
    CppEchoDevice device;
    ExpectEcho("from C", CLIENT_PROGRAM);
    ExpectEcho("from C++", CPP_CLIENT_PROGRAM);
    device.WaitForLine("client 1 subscribed to echo");
    EXPECT_EQ(0, device.End());
}

// As a service, or behind "&" in a script: there is nothing to read.
TEST(EchoTest, DevicesWithoutInputGoOnUntilTheyAreEnded) {
    for (const char* program : {DEVICE_PROGRAM, CPP_DEVICE_PROGRAM}) {
        EchoDevice device(program);
        device.CloseInput();
        ExpectEcho("still there");
        EXPECT_EQ(0, device.End());
    }
}

TEST(EchoTest, DevicesWithClosedInputGoOnUntilTheyAreEnded) {
    for (const std::string program : {DEVICE_PROGRAM, CPP_DEVICE_PROGRAM}) {
        Process device({"/bin/sh", "-c", "exec \"$0\" <&-", program});
        device.WaitForLine("ready");
        ExpectEcho("still there");
        device.Signal(SIGTERM);
        EXPECT_EQ(0, device.WaitForEnd());
    }
}

TEST(EchoTest, ClientWithoutDeviceFails) {
    for (const std::string program : {CLIENT_PROGRAM, CPP_CLIENT_PROGRAM}) {
        Process client({program});
        EXPECT_EQ(1, client.WaitForEnd());
        EXPECT_THAT(client.Errors(), HasSubstr("is an echo device running in this network?"));
    }
}

TEST(EchoTest, RestartedClientWorksAgain) {
    EchoDevice device;
    ExpectEcho("first");
    ExpectEcho("second");
    ExpectEcho("third");
    EXPECT_EQ(0, device.End());
}

TEST(EchoTest, RestartedDeviceWorksAgain) {
    for (const std::string text : {"first", "second", "third"}) {
        EchoDevice device;
        ExpectEcho(text);
        EXPECT_EQ(0, device.End());
    }
}

TEST(EchoTest, DeviceThatReplacesKilledOneWorks) {
    {
        EchoDevice killed;
        ExpectEcho("before");
        killed.Signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, killed.WaitForEnd());
    }
    EchoDevice device;
    ExpectEcho("after");
    EXPECT_EQ(0, device.End());
}

TEST(EchoTest, DeviceEndsWhileClientIsConnected) {
    EchoDevice device;
    LastingClient client;
    ASSERT_TRUE(client.Do("connect"));
    EXPECT_EQ(0, device.End());
    EXPECT_EQ(0, client.End());
}

TEST(EchoTest, ConnectedClientReturnsToDeviceThatWasRestarted) {
    LastingClient client;
    for (const std::string text : {"first", "second", "third"}) {
        EchoDevice device;
        ASSERT_TRUE(client.Do("connect"));
        client.ExpectEcho(text);
        EXPECT_EQ(0, device.End());
        client.WaitForRemoval();
    }
    EXPECT_EQ(0, client.End());
}

TEST(EchoTest, ConnectedClientReturnsAfterDeviceWasKilled) {
    LastingClient client;
    for (const std::string text : {"first", "second", "third"}) {
        EchoDevice device;
        ASSERT_TRUE(client.Do("connect"));
        client.ExpectEcho(text);
        device.Signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, device.WaitForEnd());
        client.WaitForRemoval();
    }
    EXPECT_EQ(0, client.End());
}

TEST(EchoTest, CallsFailOnceDeviceWasKilled) {
    LastingClient client;
    EchoDevice device;
    ASSERT_TRUE(client.Do("connect"));
    EXPECT_TRUE(client.Do("version"));
    device.Signal(SIGKILL);
    EXPECT_EQ(128 + SIGKILL, device.WaitForEnd());
    EXPECT_FALSE(client.Do("version"));
    // What is written before the end of the connection has been seen still goes out.
    EXPECT_TRUE(Eventually([&] { return !client.Do("text"); }));
    EXPECT_EQ(0, client.End());
}

TEST(EchoTest, DeviceForgetsKilledClientAndServesTheNext) {
    EchoDevice device;
    {
        LastingClient client;
        ASSERT_TRUE(client.Do("connect"));
        client.Signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, client.WaitForEnd());
    }
    device.WaitForLine("client 1 left echo");
    ExpectEcho("next");
    EXPECT_EQ(0, device.End());
}

}  // namespace
}  // namespace lumora_test
