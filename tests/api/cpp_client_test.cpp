// lumora::Client: what it makes of the client side's functions.
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "platform/include/link_security.h"
#include "tests/api/cpp_fixture.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using lumora::Client;
using lumora::Errc;

const char* const SUBSCRIBE_FACE =
    R"({"ClientID":1,"cmd":"subscribe","subscribe":{"Service":"face","DataSource":0,"TrasType":2}})";

std::set<std::string> Threads() {
    std::set<std::string> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        threads.insert(task.path().string());
    }
    return threads;
}

// How often the thread has waited so far.
long SleepsOf(const std::string& thread) {
    std::ifstream status(thread + "/status");
    std::string word;
    long sleeps = -1;
    while (status >> word && word != "voluntary_ctxt_switches:") {
    }
    status >> sleeps;
    return sleeps;
}

class CppClientTest : public ApiTest {
protected:
    CppClientTest() { mPlatform.devices = {DescribedDevice(ServiceInfo("camera"))}; }

    // The device's half of the data channel is mDevice then.
    void Connect(Client& client) {
        mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
        client.Connect("camera");
        mDevice = mDeviceListener->Accept();
    }

    std::string LastValue() const { return mPlatform.Requests().back().value; }

    void KeepData(Client& client) {
        client.OnData([this](std::string_view service, lumora::Bytes data) {
            mArrivals.Add(std::string(service) + ": " + std::string(data.Text()));
        });
    }

    bool HaveArrived(const Texts& texts) const {
        return Eventually([&] { return mArrivals.All() == texts; });
    }

    Arrivals mArrivals;
};

TEST_F(CppClientTest, IsInTheNetworkAsLongAsItLives) {
    {
        const Client client("viewer");
        EXPECT_EQ(1, client.Id());
        EXPECT_EQ(1, mPlatform.CallCount("Run"));
    }
    EXPECT_EQ(1, mPlatform.CallCount("Exit"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(CppClientTest, FindsDevicesAndTheirServices) {
    Client client("viewer");
    const std::vector<lumora::DeviceInfo> found = client.Find("camera");
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ("camera", found[0].name);
    EXPECT_TRUE(found[0].Offers("face"));
    EXPECT_FALSE(found[0].Offers("fac"));
}

TEST_F(CppClientTest, FindGivesAnEmptyListWhenNoDeviceAnswers) {
    mPlatform.devices.clear();
    Client client("viewer");
    EXPECT_TRUE(client.Find("camera", ONCE).empty());
    EXPECT_EQ(Texts{"camera"}, mPlatform.Searches());
}

TEST_F(CppClientTest, FindSearchesUntilADeviceIsThere) {
    int asked = 0;
    mPlatform.devices[0].answer = [&](const Request&, std::string& reply) {
        reply = ServiceInfo("camera");
        return ++asked > 1 ? 0 : -1;
    };
    Client client("viewer");
    EXPECT_EQ(1U, client.Find("camera", std::chrono::hours(1)).size());
    EXPECT_EQ(2U, mPlatform.Searches().size());
}

TEST_F(CppClientTest, SubscribesByTheNameOfAService) {
    Client client("viewer");
    Connect(client);
    client.Subscribe("face");
    EXPECT_EQ(SUBSCRIBE_FACE, LastValue());
}

TEST_F(CppClientTest, SubscribesWithWhatIsWishedFor) {
    Client client("viewer");
    Connect(client);
    client.Subscribe("face", {1, lumora::Transport::RTP});
    EXPECT_EQ(
        R"({"ClientID":1,"cmd":"subscribe","subscribe":{"Service":"face","DataSource":1,"TrasType":3}})",
        LastValue());
}

TEST_F(CppClientTest, UnsubscribesByTheNameOfAService) {
    Client client("viewer");
    Connect(client);
    client.Unsubscribe("face");
    EXPECT_EQ(R"({"ClientID":1,"cmd":"unsubscribe","param":"face"})", LastValue());
}

TEST_F(CppClientTest, SendsCommandsWithAndWithoutParameter) {
    Client client("viewer");
    Connect(client);
    client.Command("SetMode", "night");
    EXPECT_EQ(R"({"ClientID":1,"cmd":"SetMode","param":"night"})", LastValue());
    client.Command("Reset");
    EXPECT_EQ(R"({"ClientID":1,"cmd":"Reset","param":""})", LastValue());
}

TEST_F(CppClientTest, SendsWhatIsAnArrayOfBytesInSomeForm) {
    Client client("viewer");
    Connect(client);
    const std::array<std::uint8_t, 2> array = {'a', 'b'};
    client.Send("text");
    client.Send(std::string("text"));
    client.Send(std::vector<char>{'t', 'e', 'x', 't'});
    client.Send({"text and more", 4});
    client.Send(array);
    const std::string text = ClientFrame(1, "text");
    const std::string all = text + text + text + text + ClientFrame(1, "ab");
    EXPECT_EQ(all, mDevice.Receive(all.size()));
}

TEST_F(CppClientTest, DataReachesItsHandler) {
    Client client("viewer");
    Connect(client);
    KeepData(client);
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"face: data"}));
}

TEST_F(CppClientTest, EachClientIsGivenItsOwnData) {
    Client first("viewer");
    Client second("viewer");
    Connect(first);
    second.Connect("camera");
    KeepData(second);
    first.OnData(
        [this](std::string_view, lumora::Bytes data) { mArrivals.Add("first " + std::string(data.Text())); });
    SendFromDevice(2, "data");
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"face: data", "first data"}));
}

TEST_F(CppClientTest, HandlerMayBeReplaced) {
    Client client("viewer");
    Connect(client);
    KeepData(client);
    client.OnData([this](std::string_view, lumora::Bytes) { mArrivals.Add("later"); });
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"later"}));
}

TEST_F(CppClientTest, TellsThatTheDeviceHasLeft) {
    Client client("viewer");
    Connect(client);
    client.OnDeviceLeft([this] { mArrivals.Add("left"); });
    RemoveCamera();
    EXPECT_EQ(Texts{"left"}, mArrivals.All());
    std::error_code error;
    EXPECT_FALSE(client.Send("data", error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
}

// The library forgets a device whose channel has ended.
TEST_F(CppClientTest, TellsThatTheConnectionIsLostWhenTheDeviceDies) {
    Client client("viewer");
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(client);
    KeepData(client);
    SendFromDevice(1, "data");
    ASSERT_TRUE(HaveArrived({"face: data"}));
    mFromServer.Close();
    mDevice.Close();
    EXPECT_TRUE(HaveArrived({"face: data", "lost"}));
    std::error_code error;
    EXPECT_FALSE(client.Send("data", error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
}

TEST_F(CppClientTest, TellsAtOnceThatTheChannelHasEnded) {
    Client client("viewer");
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(client);
    KeepData(client);
    SendFromDevice(1, "data");
    ASSERT_TRUE(HaveArrived({"face: data"}));
    const auto begin = std::chrono::steady_clock::now();
    mFromServer.Close();
    mDevice.Close();
    EXPECT_TRUE(HaveArrived({"face: data", "lost"}));
    EXPECT_GT(std::chrono::seconds(1), std::chrono::steady_clock::now() - begin);
}

TEST_F(CppClientTest, NoticesAChannelThatEndedBeforeItWasWatched) {
    Client client("viewer");
    Connect(client);
    KeepData(client);
    SendFromDevice(1, "data");
    ASSERT_TRUE(HaveArrived({"face: data"}));
    mFromServer.Close();
    mDevice.Close();
    std::error_code error;
    ASSERT_TRUE(Eventually([&] {
        client.DeviceVersion(error);
        return static_cast<bool>(error);
    }));
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    EXPECT_TRUE(HaveArrived({"face: data", "lost"}));
}

TEST_F(CppClientTest, SleepsWhileNothingHappensToItsConnection) {
    Client client("viewer");
    Connect(client);
    const std::set<std::string> before = Threads();
    client.OnConnectionLost([] {});
    std::set<std::string> watching = Threads();
    for (const std::string& thread : before) {
        watching.erase(thread);
    }
    ASSERT_EQ(1U, watching.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // it looks once when it starts
    const long sleeps = SleepsOf(*watching.begin());
    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_EQ(sleeps, SleepsOf(*watching.begin()));
}

TEST_F(CppClientTest, TellsThatTheConnectionIsLostWhenTheDeviceFallsSilent) {
    Client client("viewer");
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(client);
    mPlatform.devices[0].answer = [](const Request&, std::string&) { return -1; };
    client.Find("camera", ONCE);  // the search replaces the device that answered
    EXPECT_TRUE(HaveArrived({"lost"}));
}

TEST_F(CppClientTest, TellsOnceThatTheConnectionIsLost) {
    Client client("viewer");
    client.OnDeviceLeft([this] { mArrivals.Add("left"); });
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(client);
    RemoveCamera();
    EXPECT_TRUE(HaveArrived({"left", "lost"}));
    RemoveCamera();
    mDeviceListener.reset();
    Connect(client);
    client.Disconnect();
    EXPECT_EQ((Texts{"left", "lost"}), mArrivals.All());
}

TEST_F(CppClientTest, TellsThatTheConnectionIsLostWhenABlockCannotBeSent) {
    Client client("viewer");
    client.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(client);
    mDevice.SetReceiveBuffer(1);
    const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'd');
    std::error_code error;
    while (client.Send(block, error)) {
    }
    EXPECT_TRUE(HaveArrived({"lost"}));
}

TEST_F(CppClientTest, HandlerOfALostConnectionMayConnectAgain) {
    Client client("viewer");
    std::error_code error;
    client.OnConnectionLost([&] {
        client.Connect("camera", std::chrono::seconds(20), error);
        mArrivals.Add("again");
    });
    Connect(client);
    mDeviceListener.reset();
    mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    RemoveCamera();
    mDevice = mDeviceListener->Accept();
    EXPECT_TRUE(HaveArrived({"again"}));
    EXPECT_FALSE(error) << error.message();
    client.OnConnectionLost(nullptr);
}

TEST_F(CppClientTest, StaysConnectedAndSubscribed) {
    Client client("viewer");
    KeepData(client);
    client.StayConnected();
    client.OnReconnected([this] { mArrivals.Add("again"); });
    Connect(client);
    client.Subscribe("face", {1, lumora::Transport::RTP});
    const std::string subscription = LastValue();
    for (const Texts& expected :
         {Texts{"again", "face: data"}, Texts{"again", "face: data", "again", "face: data"}}) {
        mDeviceListener.reset();
        mPlatform.ClearRequests();
        mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
        RemoveCamera();
        mFromServer.Close();
        mDevice = mDeviceListener->Accept();
        ASSERT_TRUE(Eventually([&] { return mArrivals.All().size() + 1 == expected.size(); }));
        EXPECT_EQ(subscription, LastValue());
        SendFromDevice(1, "data");
        EXPECT_TRUE(HaveArrived(expected));
    }
}

TEST_F(CppClientTest, DoesNotConnectAgainOnceItHasDisconnected) {
    Client client("viewer");
    client.StayConnected();
    client.OnConnectionLost([&] {
        client.Disconnect();
        mArrivals.Add("lost");
    });
    Connect(client);
    mPlatform.ClearRequests();
    RemoveCamera();
    EXPECT_TRUE(HaveArrived({"lost"}));
    std::error_code error;
    EXPECT_FALSE(client.Send("data", error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
}

TEST_F(CppClientTest, TellsThatAnotherClientOfTheProcessHasTakenTheChannel) {
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera")),
                         DescribedDevice(ServiceInfo("camera", "gait"), "127.0.0.1", 5684)};
    Client first("viewer");
    first.OnConnectionLost([this] { mArrivals.Add("lost"); });
    Connect(first);
    Client second("viewer");
    const auto devices = second.Find("camera");
    mDeviceListener.reset();
    mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    second.Connect(devices.at(1));
    EXPECT_TRUE(HaveArrived({"lost"}));
}

class BrokenChannelTest : public CppClientTest {
protected:
    // Sends until the client has closed the channel: a connect has to leave and join the network again then.
    void BreakTheChannel() {
        Connect(mClient);
        mDevice.SetReceiveBuffer(1);
        const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'd');
        std::error_code error;
        while (mClient.Send(block, error)) {
        }
        mDevice.Close();
        mDeviceListener.reset();
        mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    }
    Client mClient{"viewer"};
};

TEST_F(BrokenChannelTest, ConnectWaitsForAThreadThatJoinsAgain) {
    BreakTheChannel();
    std::error_code error;
    std::thread second;
    // Runs while the first thread joins: the client is not in the network at that moment.
    mPlatform.onPlatformTable = [&](LinkPlatform&) {
        if (!second.joinable()) {
            second = std::thread([&] { mClient.Connect("camera", std::chrono::seconds(5), error); });
            std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it would have failed by then
        }
    };
    mClient.Connect("camera");
    ASSERT_TRUE(second.joinable());
    second.join();
    mPlatform.onPlatformTable = [](LinkPlatform&) {};
    EXPECT_FALSE(error) << error.message();
    mDevice = mDeviceListener->Accept();
}

// Both leave and join again, as the channel needs. The second one must not end a client that has been given
// the number since.
TEST_F(BrokenChannelTest, TwoThreadsMayConnectIt) {
    Client& client = mClient;
    BreakTheChannel();
    mPlatform.onExit = [] { std::this_thread::yield(); };
    std::thread other([&] { client.Connect("camera"); });
    client.Connect("camera");
    other.join();
    mDevice = mDeviceListener->Accept();
    client.Send("data");
    EXPECT_EQ(ClientFrame(client.Id(), "data"), mDevice.Receive(10));
    EXPECT_EQ(2, mPlatform.CallCount("Run"));
}

TEST_F(CppClientTest, ConnectFromAHandlerFailsAndChangesNothing) {
    Client client("viewer");
    Connect(client);
    std::error_code error;
    client.OnData([&](std::string_view, lumora::Bytes) {
        client.Disconnect();
        client.Connect("camera", ONCE, error);
        mArrivals.Add(error.message());
    });
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"the device cannot be connected"}));
    client.Send("data");
}

TEST_F(CppClientTest, SubscribesByAName) {
    Client client("viewer");
    Connect(client);
    mPlatform.ClearRequests();
    EXPECT_EQ(0, LUM_Subscribe(1, 1, "face"));
    EXPECT_EQ(SUBSCRIBE_FACE, LastValue());
    mPlatform.ClearRequests();
    EXPECT_EQ(-1, LUM_Subscribe(1, 1, std::string(40, 'n').c_str()));
    EXPECT_EQ(-1, LUM_Subscribe(1, 1, nullptr));
    EXPECT_TRUE(mPlatform.Requests().empty());
    EXPECT_EQ(0, LUM_Subscribe(1, 1, std::string(39, 'n').c_str()));
}

static_assert(std::is_same_v<decltype(std::declval<lumora::Bytes>().data()), const char*>,
              "what one recipient of a frame sees, another one must not have changed");

TEST_F(CppClientTest, ExceptionOutOfAHandlerEndsAtOnException) {
    Client client("viewer");
    Connect(client);
    client.OnException([this](const std::exception_ptr& thrown) { mArrivals.Add(TextOf(thrown)); });
    client.OnData([](std::string_view, lumora::Bytes data) { throw std::runtime_error(data.data()); });
    client.OnDeviceLeft([] { throw 7; });
    SendFromDevice(1, std::string("one\0", 4));
    SendFromDevice(1, std::string("two\0", 4));
    ASSERT_TRUE(HaveArrived({"one", "two"}));
    RemoveCamera();
    EXPECT_TRUE(HaveArrived({"one", "two", "something else"}));
}

TEST_F(CppClientTest, ExceptionWithoutAHandlerIsWritten) {
    Client client("viewer");
    Connect(client);
    client.OnDeviceLeft([] { throw std::runtime_error("so what"); });
    testing::internal::CaptureStderr();
    RemoveCamera();
    EXPECT_EQ("lumora: a handler threw: so what\n", testing::internal::GetCapturedStderr());
}

TEST_F(CppClientTest, CallFromAHandlerFails) {
    Client client("viewer");
    Connect(client);
    client.OnException([this](const std::exception_ptr& thrown) { mArrivals.Add(TextOf(thrown)); });
    client.OnData([&](std::string_view, lumora::Bytes) { client.Command("Reset"); });
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"lumora::Client::Command: the device refuses, or does not answer"}));
}

TEST_F(CppClientTest, ErrorIsThrownOrSet) {
    mPlatform.devices.clear();
    Client client("viewer");
    std::error_code error;
    EXPECT_FALSE(client.Connect("camera", ONCE, error));
    EXPECT_EQ(Errc::NO_DEVICE, error);
    try {
        client.Connect("camera", ONCE);
        FAIL() << "nothing was thrown";
    } catch (const lumora::Error& thrown) {
        EXPECT_EQ(Errc::NO_DEVICE, thrown.code());
        EXPECT_STREQ("lumora::Client::Connect: no device of this type answers", thrown.what());
    }
}

TEST_F(CppClientTest, SuccessClearsTheError) {
    Client client("viewer");
    Connect(client);
    auto error = make_error_code(Errc::REFUSED);
    EXPECT_TRUE(client.Send("data", error));
    EXPECT_FALSE(error) << error.message();
}

TEST_F(CppClientTest, EveryErrorHasItsWords) {
    for (int code = 1; code <= static_cast<int>(Errc::STOP_FAILED); ++code) {
        EXPECT_NE("unknown error", lumora::ErrorCategory().message(code)) << code;
    }
    EXPECT_EQ("unknown error", lumora::ErrorCategory().message(static_cast<int>(Errc::STOP_FAILED) + 1));
}

TEST_F(CppClientTest, DeviceThatRefusesTheChannelIsAnError) {
    mPlatform.devices[0].answer = [](const Request& request, std::string& reply) {
        reply = ServiceInfo("camera");
        return request.key == "ServiceInfo" ? 0 : -1;
    };
    Client client("viewer");
    std::error_code error;
    EXPECT_FALSE(client.Connect("camera", ONCE, error));
    EXPECT_EQ(Errc::CONNECT_FAILED, error);
}

TEST_F(CppClientTest, DeviceThatRefusesACommandIsAnError) {
    Client client("viewer");
    Connect(client);
    mPlatform.devices[0].answer = [](const Request&, std::string&) { return -1; };
    client.Find("camera", ONCE);  // forgets the device that answered
    std::error_code error;
    EXPECT_FALSE(client.Command("Reset", "", error));
    EXPECT_EQ(Errc::REFUSED, error);
}

TEST_F(CppClientTest, NothingIsAskedOfADeviceWithoutConnection) {
    Client client("viewer");
    std::error_code error;
    EXPECT_FALSE(client.Subscribe("face", error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
    EXPECT_FALSE(client.Send("data", error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
    EXPECT_EQ("", client.DeviceVersion(error));
    EXPECT_EQ(Errc::NOT_CONNECTED, error);
    EXPECT_TRUE(mPlatform.Requests().empty());
}

TEST_F(CppClientTest, NamesAreOneToThirtyNineCharacters) {
    Client client("viewer");
    std::error_code error;
    for (const std::string& name : {std::string(), std::string(40, 'n'), std::string("a\0b", 3)}) {
        EXPECT_FALSE(client.Connect(name, ONCE, error));
        EXPECT_EQ(Errc::BAD_NAME, error) << name;
        EXPECT_FALSE(client.Subscribe(name, error));
        EXPECT_EQ(Errc::BAD_NAME, error) << name;
    }
    EXPECT_FALSE(client.Connect(std::string(39, 'n'), ONCE, error));
    EXPECT_EQ(Errc::CONNECT_FAILED, error) << mLog.Dump();  // the fake finds a camera for every type
}

TEST_F(CppClientTest, CommandsHaveUpTo400Characters) {
    Client client("viewer");
    Connect(client);
    std::error_code error;
    EXPECT_TRUE(client.Command("c", std::string(399, 'p'), error));
    EXPECT_FALSE(client.Command("c", std::string(400, 'p'), error));
    EXPECT_EQ(Errc::BAD_COMMAND, error);
    EXPECT_FALSE(client.Command("", "p", error));
    EXPECT_EQ(Errc::BAD_COMMAND, error);
}

TEST_F(CppClientTest, SubscriptionIsNoCommand) {
    Client client("viewer");
    Connect(client);
    mPlatform.ClearRequests();
    std::error_code error;
    EXPECT_FALSE(client.Command("subscribe", "face", error));
    EXPECT_EQ(Errc::BAD_COMMAND, error);
    EXPECT_TRUE(mPlatform.Requests().empty());
}

TEST_F(CppClientTest, BlocksHaveUpToFiveMebibytes) {
    Client client("viewer");
    Connect(client);
    const std::string tooLong(LUM_MAX_CLIENT_DATA_LENGTH + 1, 'd');
    std::error_code error;
    EXPECT_FALSE(client.Send("", error));
    EXPECT_EQ(Errc::BAD_SIZE, error);
    EXPECT_FALSE(client.Send(tooLong, error));
    EXPECT_EQ(Errc::BAD_SIZE, error);
}

TEST_F(CppClientTest, BlockThatTheDeviceStopsReadingIsIncomplete) {
    Client client("viewer");
    Connect(client);
    mDevice.SetReceiveBuffer(1);
    const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'd');
    std::error_code error;
    while (client.Send(block, error)) {
    }
    EXPECT_EQ(Errc::INCOMPLETE, error);
    EXPECT_FALSE(client.Send(block, error));
    EXPECT_EQ(Errc::SEND_FAILED, error);
}

TEST_F(CppClientTest, ConnectBeginsAnewOnceABlockCouldNotBeSent) {
    Client client("viewer");
    KeepData(client);
    Connect(client);
    mDevice.SetReceiveBuffer(1);
    const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'd');
    std::error_code error;
    while (client.Send(block, error)) {
    }
    mDevice.Close();
    mDeviceListener.reset();
    Connect(client);
    EXPECT_EQ(1, client.Id());
    client.Send("data");
    EXPECT_EQ(ClientFrame(1, "data"), mDevice.Receive(10));
    SendFromDevice(1, "answer");
    EXPECT_TRUE(HaveArrived({"face: answer"}));
}

TEST_F(CppClientTest, ThereAreUpToTwentyClients) {
    std::vector<Client> clients;
    for (int id = 1; id <= LUM_MAX_CLIENTS; ++id) {
        clients.emplace_back("viewer");
        EXPECT_EQ(id, clients.back().Id());
    }
    std::error_code error;
    const Client oneMore("viewer", error);
    EXPECT_EQ(Errc::TOO_MANY_CLIENTS, error);
}

TEST_F(CppClientTest, ClientThatCouldNotJoinHoldsNothing) {
    mPlatform.runResult = -1;
    EXPECT_THROW(Client("viewer"), lumora::Error);
    std::error_code error;
    Client client("viewer", error);
    EXPECT_EQ(Errc::NOT_JOINED, error);
    client.OnData([](std::string_view, lumora::Bytes) {});
    EXPECT_FALSE(client.Connect("camera", ONCE, error));
    EXPECT_EQ(Errc::NOT_JOINED, error);
    mPlatform.runResult = 0;
    EXPECT_EQ(1, Client("viewer").Id());
}

TEST_F(CppClientTest, MovedClientTakesItsConnectionAndItsHandlersAlong) {
    Client first("viewer");
    Connect(first);
    KeepData(first);
    Client second = std::move(first);
    second.Subscribe("face");
    EXPECT_EQ(SUBSCRIBE_FACE, LastValue());
    SendFromDevice(1, "data");
    EXPECT_TRUE(HaveArrived({"face: data"}));
    std::error_code error;
    EXPECT_FALSE(first.Send("data", error));  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(Errc::NOT_JOINED, error);
}

TEST_F(CppClientTest, AssignedClientLeavesFirst) {
    Client client("viewer");
    client = Client("viewer");
    EXPECT_EQ(2, client.Id());
    EXPECT_EQ(1, Client("viewer").Id());
}

TEST_F(CppClientTest, SaysGoodbyeWhenItEnds) {
    {
        Client client("viewer");
        Connect(client);
    }
    EXPECT_EQ((Request{"Post", "Destroy", "1"}), mPlatform.Requests().back());
}

// As a device does whose last client says goodbye.
TEST_F(CppClientTest, ConnectsAgainOnceItHasDisconnected) {
    const auto answer = mPlatform.devices[0].answer;
    mPlatform.devices[0].answer = [&](const Request& request, std::string& reply) {
        if (request.key == "Destroy") {
            mFromServer.Close();
        }
        return answer(request, reply);
    };
    Client client("viewer");
    KeepData(client);
    for (const Texts& expected : {Texts{"face: data"}, Texts{"face: data", "face: data"}}) {
        Connect(client);
        SendFromDevice(1, "data");
        EXPECT_TRUE(HaveArrived(expected));
        client.Disconnect();
        EXPECT_EQ((Request{"Post", "Destroy", "1"}), mPlatform.Requests().back());
        mDeviceListener.reset();
    }
}

TEST_F(CppClientTest, ConnectingToTheConnectedDeviceChangesNothing) {
    Client client("viewer");
    Connect(client);
    mPlatform.ClearRequests();
    client.Connect("camera");
    EXPECT_EQ(Texts{"ServiceInfo"}, Texts{mPlatform.Requests().back().key});
    EXPECT_EQ(1U, mPlatform.Requests().size());
}

TEST_F(CppClientTest, ConnectsToTheDeviceOfItsChoice) {
    mPlatform.devices = {DescribedDevice(ServiceInfo("camera")),
                         DescribedDevice(ServiceInfo("camera", "gait"), "127.0.0.1", 5684)};
    Client client("viewer");
    const auto devices = client.Find("camera");
    ASSERT_EQ(2U, devices.size());
    EXPECT_EQ("camera1", devices[1].name);
    std::error_code error;
    EXPECT_FALSE(client.Connect({"camera7", {}}, error));
    EXPECT_EQ(Errc::CONNECT_FAILED, error);
    mDeviceListener = std::make_unique<RawListener>(DEVICE_PORT);
    client.Connect(devices[1]);
    EXPECT_EQ((Request{"Post", "Connect", "1"}), mPlatform.Requests().back());
}

TEST_F(CppClientTest, TellsBothVersions) {
    Client client("viewer");
    Connect(client);
    EXPECT_NE("", client.LibraryVersion());
    EXPECT_EQ("1.1.1", client.DeviceVersion());  // as the fake answers
}

// lumora.hpp repeats the platform's record, because applications need not have its header.
static_assert(sizeof(lumora::detail::PlatformRequester) == sizeof(LinkRequester));
static_assert(offsetof(lumora::detail::PlatformSecurity, GetChannelPeer) ==
              offsetof(LinkSecurity, GetChannelPeer));
static_assert(sizeof(lumora::detail::PlatformSecurity) >=
              offsetof(LinkSecurity, GetChannelPeer) + sizeof(void*));

TEST_F(CppClientTest, AChannelOfAPlatformWithoutKeysIsNotPrivate) {
    Client client("viewer");
    EXPECT_FALSE(client.Peer().isPrivate);
    Connect(client);
    EXPECT_FALSE(client.Peer().isPrivate);
    EXPECT_EQ(client.Peer().identity, "");
    EXPECT_FALSE(lumora::Device("camera").Peer().isPrivate);
}

}  // namespace
}  // namespace lumora_test
