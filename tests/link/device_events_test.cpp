// Devices that come and go, from the platform to the module.
#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>

#include "link/descriptor_registry.h"
#include "link/smart_home_link_hybird.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakeDescriptor;
using lumora_test::FakeNotifyCallback;
using lumora_test::FakePlatform;
using testing::ElementsAre;
using testing::IsEmpty;
using Event = FakeNotifyCallback::Event;

class DeviceEventsTest : public testing::Test {
protected:
    DeviceEventsTest() : mLink(SmartHomeLink::Create(LINK_HYBIRD)) {
        Register(&mNotify);
        ConnectTo("10.0.0.7");
        mLog.Clear();
    }
    ~DeviceEventsTest() override {
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        lumora_test::ResetAllocationFaults();
        LinkDeviceDescriptorWrapper::Get()->Clear();
    }

    bool Register(FakeNotifyCallback* callback) {
        return mLink->RegisterDeviceDescriptor(std::make_shared<FakeDescriptor>(), callback);
    }
    void ConnectTo(std::string address) { mLink->SetConnectDevice(address, 40001); }
    int Added(const std::string& address) { return mPlatform.SendEvent(1, 9, address, 40001, "camera"); }
    int Removed(const std::string& address) { return mPlatform.SendEvent(2, 9, address, 40001, "camera"); }

    CapturedLog mLog;
    FakePlatform mPlatform;
    FakeNotifyCallback mNotify;
    const std::shared_ptr<SmartHomeLink> mLink;
};

TEST_F(DeviceEventsTest, ConnectedDeviceThatComesIsReported) {
    EXPECT_EQ(0, Added("10.0.0.7"));
    EXPECT_THAT(mNotify.events, ElementsAre(Event{"OnAddDevice", 9, "10.0.0.7", 40001, "camera"}));
}

TEST_F(DeviceEventsTest, ConnectedDeviceThatGoesIsReported) {
    EXPECT_EQ(0, Removed("10.0.0.7"));
    EXPECT_THAT(mNotify.events, ElementsAre(Event{"OnRemoveDevice", 9, "10.0.0.7", 40001, "camera"}));
}

TEST_F(DeviceEventsTest, EveryEventButOneIsARemoval) {
    for (const unsigned int event : {0U, 2U, 3U, 4294967295U}) {
        EXPECT_EQ(0, mPlatform.SendEvent(event, 1, "10.0.0.7", 1, "t"));
        EXPECT_EQ("OnRemoveDevice", mNotify.events.back().handler) << event;
    }
}

// A vendor's platform may be unfinished.
TEST_F(DeviceEventsTest, EventWithoutAnAddressOrATypeIsIgnoredWithAWarning) {
    NotifyDeviceInfo noAddress = {1, 9, nullptr, 40001, "camera"};
    NotifyDeviceInfo noType = {2, 9, "10.0.0.7", 40001, nullptr};
    for (NotifyDeviceInfo* info : {&noAddress, &noType}) {
        mLog.Clear();
        EXPECT_EQ(-1, RemoteDeviceNotifyCallback(info));
        EXPECT_EQ(-1, SmartHomeLinkHybird::NotifyCallback(info));
        EXPECT_THAT(mLog.Texts(3), ElementsAre("a device event without an address or a type is ignored\n",
                                               "a device event without an address or a type is ignored\n"));
        EXPECT_EQ(2U, mLog.Lines().size());
    }
    EXPECT_THAT(mNotify.events, IsEmpty());
}

TEST_F(DeviceEventsTest, ComingIsLogged) {
    mPlatform.SendEvent(1, 4294967295U, "10.0.0.7", 40001, "camera");
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("Remote Device Notify : add device id (4294967295), devType (camera), "
                            "addr (10.0.0.7), port (40001)\n"));
    EXPECT_THAT(mLog.Texts(1),
                ElementsAre("we receive devType: camera , addr: 10.0.0.7, id = -1, port = 40001\n"));
    EXPECT_EQ(2U, mLog.Lines().size());
}

TEST_F(DeviceEventsTest, GoingIsLogged) {
    Removed("10.0.0.7");
    EXPECT_THAT(mLog.Texts(2), ElementsAre("Remote Device Notify : remove device id (9), devType (camera), "
                                           "addr (10.0.0.7), port (40001)\n"));
    EXPECT_THAT(mLog.Texts(1),
                ElementsAre("we receive devType: camera , addr: 10.0.0.7, id = 9, port = 40001\n"));
}

TEST_F(DeviceEventsTest, OtherDevicesAreLoggedAndNotReported) {
    for (const char* address : {"10.0.0.8", "10.0.0.70", "10.0.0.", "", "0"}) {
        EXPECT_EQ(0, Added(address));
        EXPECT_EQ(0, Removed(address));
    }
    EXPECT_THAT(mNotify.events, IsEmpty());
    EXPECT_EQ(10U, mLog.Texts(2).size());
    EXPECT_THAT(mLog.Texts(1), IsEmpty());
}

TEST_F(DeviceEventsTest, PortTakesNoPartInTheComparison) {
    mPlatform.SendEvent(1, 1, "10.0.0.7", 1, "t");
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, OnlyTheDeviceConnectedLastIsReported) {
    ConnectTo("10.0.0.8");
    Added("10.0.0.7");
    EXPECT_THAT(mNotify.events, IsEmpty());
    Added("10.0.0.8");
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, ConnectedDeviceIsSharedByAllLinks) {
    std::string address = "10.0.0.9";
    SmartHomeLink::Create(LINK_HYBIRD)->SetConnectDevice(address, 1);
    Added("10.0.0.9");
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, ResultOfTheCallbackGoesToThePlatform) {
    for (const int result : {-1, 0, 7}) {
        mNotify.result = result;
        EXPECT_EQ(result, Added("10.0.0.7"));
        EXPECT_EQ(result, Removed("10.0.0.7"));
    }
}

TEST_F(DeviceEventsTest, NullEventIsIgnored) {
    EXPECT_EQ(0, mPlatform.SendNullEvent());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
    EXPECT_EQ(-1, SmartHomeLinkHybird::NotifyCallback(nullptr));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("devInfo is nullptr, on callback information!\n"));
    EXPECT_THAT(mNotify.events, IsEmpty());
}

TEST_F(DeviceEventsTest, WithoutACallbackEventsFail) {
    SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
    EXPECT_EQ(-1, Added("10.0.0.7"));
    EXPECT_EQ(-1, Removed("another"));
    const std::string missing = "g_mNotifyCallback is nullptr, can't callback!\n";
    EXPECT_THAT(mLog.Texts(1), ElementsAre(missing, missing));
    EXPECT_THAT(mNotify.events, IsEmpty());
}

TEST_F(DeviceEventsTest, RefusedRegistrationHasSetTheCallback) {
    FakeNotifyCallback other;
    mPlatform.registerResult = -1;
    EXPECT_FALSE(Register(&other));
    Added("10.0.0.7");
    EXPECT_EQ(1U, other.events.size());
    EXPECT_THAT(mNotify.events, IsEmpty());
    SmartHomeLinkHybird::WithdrawNotifyCallback(&other);
}

TEST_F(DeviceEventsTest, RegistrationWithoutMemoryLeavesTheCallback) {
    FakeNotifyCallback other;
    lumora_test::FailSystemCall(lumora_test::SystemCall::MALLOC, ENOMEM);
    EXPECT_FALSE(mLink->RegisterDeviceDescriptor(nullptr, &other));
    lumora_test::ResetSystemFaults();
    Added("10.0.0.7");
    EXPECT_THAT(other.events, IsEmpty());
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, CallbackThatRegistersLastGetsAllEvents) {
    FakeNotifyCallback other;
    EXPECT_TRUE(Register(&other));
    Added("10.0.0.7");
    EXPECT_EQ(1U, other.events.size());
    EXPECT_THAT(mNotify.events, IsEmpty());
    SmartHomeLinkHybird::WithdrawNotifyCallback(&other);
}

TEST_F(DeviceEventsTest, WithdrawalOfAnEarlierCallbackLeavesTheLatest) {
    FakeNotifyCallback other;
    SmartHomeLinkHybird::WithdrawNotifyCallback(&other);
    Added("10.0.0.7");
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, WithdrawnCallbackMayRegisterAgain) {
    SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
    Register(&mNotify);
    Added("10.0.0.7");
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, WhatACallbackThrowsIsAFailure) {
    mNotify.onEvent = [] { throw std::runtime_error("event"); };
    EXPECT_EQ(-1, Added("10.0.0.7"));
    mNotify.onEvent = [] { throw 7; };
    EXPECT_EQ(-1, Removed("10.0.0.7"));
    SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);  // and does not wait
}

TEST_F(DeviceEventsTest, LackOfMemoryIsAFailure) {
    const std::string address = "an address that does not fit into a short text";
    ConnectTo(address);
    NotifyDeviceInfo info = {1, 9, address.c_str(), 40001, "camera"};
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, RemoteDeviceNotifyCallback(&info));
    lumora_test::ResetAllocationFaults();
    EXPECT_THAT(mNotify.events, IsEmpty());
    EXPECT_EQ(0, RemoteDeviceNotifyCallback(&info));
}

TEST_F(DeviceEventsTest, CallbackMayConnectToAnotherDevice) {
    mNotify.onEvent = [this] { ConnectTo("10.0.0.8"); };
    EXPECT_EQ(0, Removed("10.0.0.7"));
    EXPECT_EQ(0, Removed("10.0.0.7"));
    EXPECT_EQ(1U, mNotify.events.size());
}

TEST_F(DeviceEventsTest, EventsArriveAfterTheLinkIsGone) {
    auto link = SmartHomeLink::Create(LINK_HYBIRD);
    link->RegisterDeviceDescriptor(std::make_shared<FakeDescriptor>(), &mNotify);
    link.reset();
    EXPECT_EQ(0, Added("10.0.0.7"));
    EXPECT_EQ(1U, mNotify.events.size());
}

}  // namespace
}  // namespace lumora
