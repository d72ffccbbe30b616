// lumora::Device: what it makes of the server side's functions.
#include <optional>

#include "tests/api/cpp_fixture.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using lumora::Device;
using lumora::Errc;
using lumora::Subscription;

class CppDeviceTest : public ApiTest {
protected:
    static std::string AsText(const Subscription& subscription) {
        return std::to_string(subscription.client) + " " + std::string(subscription.service) + " " +
               std::to_string(subscription.source) + " " +
               std::to_string(static_cast<int>(subscription.transport));
    }

    bool HaveArrived(const Texts& texts) const {
        return Eventually([&] { return mArrivals.All() == texts; });
    }

    int Command(const std::string& name, const std::string& parameter) {
        return mPlatform.Post("Command",
                              R"({"ClientID":3,"cmd":")" + name + R"(","param":")" + parameter + R"("})");
    }

    Arrivals mArrivals;
};

TEST_F(CppDeviceTest, IsInTheNetworkFromStartToEnd) {
    {
        Device device("camera");
        device.Offer("face");
        EXPECT_EQ(0, mPlatform.LiveHandles());
        device.Start();
        EXPECT_EQ(1, mPlatform.LiveHandles());
    }
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(CppDeviceTest, DescribesItsServices) {
    Device device("camera");
    device.Offer("face").Offer("gait", 7, lumora::Transport::RTP);
    device.Start();
    EXPECT_EQ(R"({"DevServiceType":"camera","ServiceNum":2,)"
              R"("service0":{"Name":"face","transport":2,"output-len-bytes":1024000},)"
              R"("service1":{"Name":"gait","transport":3,"output-len-bytes":7}})",
              mPlatform.Get("ServiceInfo").reply);
}

TEST_F(CppDeviceTest, StartedAgainItHasTheServicesThatWereAdded) {
    Device device("camera");
    device.Offer("face");
    device.Start();
    device.Offer("gait");
    device.Start();
    EXPECT_THAT(mPlatform.Get("ServiceInfo").reply, testing::HasSubstr(R"("service1":{"Name":"gait")"));
}

TEST_F(CppDeviceTest, CommandsReachTheirHandler) {
    Device device("camera");
    device.Offer("face");
    device.OnCommand([this](std::string_view name, std::string_view parameter) {
        mArrivals.Add(std::string(name) + " " + std::string(parameter));
    });
    device.Start();
    EXPECT_EQ(0, Command("SetMode", "night"));
    EXPECT_EQ(Texts{"SetMode night"}, mArrivals.All());
}

TEST_F(CppDeviceTest, SubscriptionsAndTheirEndsReachTheirHandlers) {
    Device device("camera");
    device.Offer("face");
    device.OnSubscribe([this](const Subscription& begun) { mArrivals.Add("+" + AsText(begun)); });
    device.OnUnsubscribe([this](const Subscription& ended) { mArrivals.Add("-" + AsText(ended)); });
    device.Start();
    Subscribe(3, "face");
    EXPECT_EQ(0, Command("unsubscribe", "face"));
    EXPECT_EQ((Texts{"+3 face 0 2", "-3 face 0 0"}), mArrivals.All());
}

TEST_F(CppDeviceTest, MayAnswerDataWhileItIsToldOfIt) {
    Device device("camera");
    device.Offer("face");
    device.OnData([&](int client, lumora::Bytes data) {
        device.Send("face", data);
        mArrivals.Add(std::to_string(client) + " " + std::string(data.Text()));
    });
    device.Start();
    Subscribe(3, "face");
    OpenChannel();
    mToServer.Send(ClientFrame(3, "data"));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "data"), mFromServer.Receive(16));
    EXPECT_TRUE(HaveArrived({"3 data"}));
}

TEST_F(CppDeviceTest, WithoutHandlersItAcceptsEverything) {
    Device device("camera");
    device.Offer("face");
    device.Start();
    Subscribe(3, "face");
    EXPECT_EQ(0, Command("SetMode", "night"));
    EXPECT_EQ(0, Command("unsubscribe", "face"));
}

TEST_F(CppDeviceTest, ExceptionsOutOfHandlersEndAtOnException) {
    Device device("camera");
    device.Offer("face");
    device.OnException([this](const std::exception_ptr& thrown) { mArrivals.Add(TextOf(thrown)); });
    device.OnCommand([](std::string_view, std::string_view) { throw std::runtime_error("command"); });
    device.OnSubscribe([](const Subscription&) { throw std::runtime_error("subscribe"); });
    device.OnUnsubscribe([](const Subscription&) { throw std::runtime_error("unsubscribe"); });
    device.OnData([](int, lumora::Bytes) { throw std::runtime_error("data"); });
    device.Start();
    EXPECT_EQ(0, Command("SetMode", "night"));
    Subscribe(3, "face");
    EXPECT_EQ(0, Command("unsubscribe", "face"));
    OpenChannel();
    mToServer.Send(ClientFrame(3, "data"));
    EXPECT_TRUE(HaveArrived({"command", "subscribe", "unsubscribe", "data"}));
}

TEST_F(CppDeviceTest, ProcessIsOneDevice) {
    std::optional<Device> first("camera");
    first->Offer("face");
    first->Start();
    Device second("printer");
    second.Offer("paper");
    std::error_code error;
    EXPECT_FALSE(second.Start(error));
    EXPECT_EQ(Errc::DEVICE_EXISTS, error);
    EXPECT_FALSE(second.Send("face", "data", error));
    EXPECT_EQ(Errc::NOT_JOINED, error);
    EXPECT_THAT(mPlatform.Get("ServiceInfo").reply, testing::HasSubstr("camera"));
    first.reset();
    second.Start();
    EXPECT_THAT(mPlatform.Get("ServiceInfo").reply, testing::HasSubstr("printer"));
}

TEST_F(CppDeviceTest, FailedStartMayBeRepeated) {
    Device device("camera");
    device.Offer("face");
    mPlatform.runResult = -1;
    try {
        device.Start();
        FAIL() << "nothing was thrown";
    } catch (const lumora::Error& thrown) {
        EXPECT_EQ(Errc::NOT_JOINED, thrown.code());
        EXPECT_STREQ("lumora::Device::Start: not in the network", thrown.what());
    }
    mPlatform.runResult = 0;
    device.Start();
    EXPECT_EQ(1, mPlatform.LiveHandles());
}

TEST_F(CppDeviceTest, FailedStartDoesNotLeaveItsTypeToTheNextDevice) {
    std::error_code error;
    {
        Device camera("camera");
        camera.Offer("face");
        mPlatform.runResult = -1;
        EXPECT_FALSE(camera.Start(error));
    }
    mPlatform.runResult = 0;
    Device printer("printer");
    printer.Offer("paper").Start();
    EXPECT_STREQ("printer", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
    EXPECT_THAT(mPlatform.Get("ServiceInfo").reply, testing::HasSubstr("printer"));
}

TEST_F(CppDeviceTest, FailedStopDoesNotLeaveItsTypeToTheNextDevice) {
    std::error_code error;
    {
        Device camera("camera");
        camera.Offer("face").Start();
        mPlatform.exitResult = -1;
        EXPECT_FALSE(camera.Stop(error));
        EXPECT_EQ(Errc::STOP_FAILED, error);
    }
    mPlatform.exitResult = 0;
    Device printer("printer");
    printer.Offer("paper").Start();
    EXPECT_STREQ("printer", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
}

TEST_F(CppDeviceTest, FailedSecondStartLeavesTheRunningDeviceAsItWas) {
    Device device("camera");
    device.Offer("face");
    device.Start();
    Subscribe(3, "face");
    const std::string described = mPlatform.Get("ServiceInfo").reply;
    for (char last = '1'; last <= '5'; ++last) {
        device.Offer(std::string(38, '\x01') + last);  // six characters each in the document
    }
    std::error_code error;
    EXPECT_FALSE(device.Start(error));
    EXPECT_EQ(Errc::BAD_SERVICES, error);
    EXPECT_EQ(described, mPlatform.Get("ServiceInfo").reply);
    EXPECT_EQ(std::vector<int>{3}, device.Subscribers("face"));
    OpenChannel();
    device.Send("face", "data");
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "data"), mFromServer.Receive(16));
}

TEST_F(CppDeviceTest, DescriptionMayHaveExactlyAsManyCharactersAsTheLibraryTakes) {
    const std::string name = "\"\\\b\f\n\r\t\x01\x1f\x7f z";
    for (unsigned int bytes : {0U, 9U, 1024000U, 4294967295U}) {
        Device device(name);
        device.Offer(name, bytes).Offer("face", bytes, lumora::Transport::NONE);
        device.Start();
        LUM_DEVICE_INFO_S record = DeviceRecord({name, "face"});
        SetName(record.devServiceType, name);
        record.serviceInfo[0].outputLenBytes = record.serviceInfo[1].outputLenBytes = bytes;
        EXPECT_EQ(mPlatform.Get("ServiceInfo").reply.size(), lumora::detail::DescriptionLength(record));
    }
}

TEST_F(CppDeviceTest, TellsWhoIsSubscribed) {
    Device device("camera");
    device.Offer("face").Offer("gait");
    device.OnSubscribe([&](const Subscription& begun) {
        mArrivals.Add(std::to_string(device.Subscribers(begun.service).size()));
    });
    device.Start();
    EXPECT_EQ(std::vector<int>(), device.Subscribers("face"));
    Subscribe(3, "face");
    Subscribe(3, "face");
    Subscribe(4, "face");
    EXPECT_THAT(device.Subscribers("face"), testing::UnorderedElementsAre(3, 4));
    EXPECT_EQ(std::vector<int>(), device.Subscribers("gait"));
    EXPECT_EQ("2", mArrivals.All().back());
    EXPECT_EQ(0, Command("unsubscribe", "face"));
    EXPECT_EQ(std::vector<int>{4}, device.Subscribers("face"));
    device.Stop();
    EXPECT_EQ(std::vector<int>(), device.Subscribers("face"));
}

// One thread's Start must not come between the end of the server and the end of the other thread's Stop.
TEST_F(CppDeviceTest, TwoThreadsMayStartAndStopIt) {
    Device device("camera");
    device.Offer("face");
    device.OnCommand([this](std::string_view name, std::string_view) { mArrivals.Add(std::string(name)); });
    device.Start();
    std::thread starting;
    mPlatform.onExit = [&] {
        starting = std::thread([&] { device.Start(); });
        // Long enough for a thread that nothing holds back to have started the device.
        Eventually([&] { return mPlatform.CallCount("Run") > 1; }, std::chrono::milliseconds(50));
    };
    device.Stop();
    starting.join();
    mPlatform.onExit = [] {};
    EXPECT_EQ(1, mPlatform.LiveHandles());
    EXPECT_EQ(0, Command("SetMode", "night"));
    EXPECT_EQ(Texts{"SetMode"}, mArrivals.All());
}

TEST_F(CppDeviceTest, SendThatWritesNothingHasFailed) {
    std::error_code error;
    EXPECT_FALSE(lumora::detail::SendOutcome(0, 0, 4, error));
    EXPECT_EQ(Errc::SEND_FAILED, error);
    EXPECT_FALSE(lumora::detail::SendOutcome(0, 3, 4, error));
    EXPECT_EQ(Errc::INCOMPLETE, error);
    EXPECT_TRUE(lumora::detail::SendOutcome(0, 4, 4, error));
}

TEST_F(CppDeviceTest, BlockForAClientThatHasClosedItsConnectionIsAnError) {
    Device device("camera");
    device.Offer("face").Start();
    Subscribe(3, "face");
    OpenChannel();
    mFromServer.Close();
    std::error_code error;
    EXPECT_TRUE(Eventually([&] { return !device.Send("face", "data", error); }));
    EXPECT_EQ(Errc::SEND_FAILED, error);
}

TEST_F(CppDeviceTest, HasOneToEightServicesWithNames) {
    std::error_code error;
    Device device("camera");
    EXPECT_FALSE(device.Start(error));
    EXPECT_EQ(Errc::BAD_SERVICES, error);
    for (int i = 0; i < 9; ++i) {
        device.Offer("face" + std::to_string(i));
    }
    EXPECT_FALSE(device.Start(error));
    EXPECT_EQ(Errc::BAD_SERVICES, error);
    Device badService("camera");
    badService.Offer(std::string(40, 'n'));
    EXPECT_FALSE(badService.Start(error));
    EXPECT_EQ(Errc::BAD_NAME, error);
    Device badType("");
    badType.Offer("face");
    EXPECT_FALSE(badType.Start(error));
    EXPECT_EQ(Errc::BAD_NAME, error);
}

TEST_F(CppDeviceTest, DescriptionThatIsTooLongIsAnError) {
    Device device("camera");
    for (char last = '1'; last <= '5'; ++last) {
        device.Offer(std::string(38, '\x01') + last);  // six characters each in the document
    }
    std::error_code error;
    EXPECT_FALSE(device.Start(error));
    EXPECT_EQ(Errc::BAD_SERVICES, error);
    EXPECT_EQ(0, mPlatform.LiveHandles());
}

TEST_F(CppDeviceTest, SendSaysWhatKeepsItFromSending) {
    Device device("camera");
    device.Offer("face");
    std::error_code error;
    EXPECT_FALSE(device.Send("face", "data", error));
    EXPECT_EQ(Errc::NOT_JOINED, error);
    device.Start();
    EXPECT_FALSE(device.Send("face", "data", error));
    EXPECT_EQ(Errc::SEND_FAILED, error);
    EXPECT_FALSE(device.Send("", "data", error));
    EXPECT_EQ(Errc::BAD_NAME, error);
    EXPECT_FALSE(device.Send("face", "", error));
    EXPECT_EQ(Errc::BAD_SIZE, error);
    EXPECT_FALSE(device.Send("face", std::string(LUM_MAX_SERVER_DATA_LENGTH + 1, 'd'), error));
    EXPECT_EQ(Errc::BAD_SIZE, error);
    OpenChannel();
    EXPECT_TRUE(device.Send("face", "data", error));
    EXPECT_FALSE(error);
    EXPECT_FALSE(device.Send("gait", "data", error));
    EXPECT_EQ(Errc::SEND_FAILED, error);
}

TEST_F(CppDeviceTest, CannotStopItselfFromAHandler) {
    Device device("camera");
    device.Offer("face");
    std::error_code error;
    device.OnCommand([&](std::string_view, std::string_view) { device.Stop(error); });
    device.Start();
    EXPECT_EQ(0, Command("Stop", ""));
    EXPECT_EQ(Errc::STOP_FAILED, error);
    device.Stop();
    device.Stop();
    EXPECT_EQ(0, mPlatform.LiveHandles());
    device.Start();
    EXPECT_EQ(1, mPlatform.LiveHandles());
}

TEST_F(CppDeviceTest, NothingHandlesWhatComesAfterTheEnd) {
    AppResource* resource = nullptr;
    {
        Device device("camera");
        device.Offer("face");
        device.OnCommand([this](std::string_view, std::string_view) { mArrivals.Add("command"); });
        device.Start();
        resource = mPlatform.Resource();
    }
    EXPECT_NE(nullptr, resource);
    EXPECT_EQ(0, lumora::detail::OnCommand("SetMode", "night"));
    EXPECT_EQ(0, lumora::detail::OnData(3, "data", 4));
    EXPECT_EQ(Texts{}, mArrivals.All());
}

}  // namespace
}  // namespace lumora_test
