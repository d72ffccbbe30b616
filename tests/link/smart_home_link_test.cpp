#include <gmock/gmock.h>

#include <cerrno>
#include <utility>

#include "link/descriptor_registry.h"
#include "link/smart_home_link_hybird.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakeDescriptor;
using lumora_test::FakeNotifyCallback;
using lumora_test::FakePlatform;
using testing::ElementsAre;
using testing::IsEmpty;

class SmartHomeLinkTest : public testing::Test {
protected:
    ~SmartHomeLinkTest() override {
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        lumora_test::ResetBoundedCalls();
        lumora_test::ResetAllocationFaults();
        LinkDeviceDescriptorWrapper::Get()->Clear();
    }

    std::shared_ptr<SmartHomeLink> Create() { return SmartHomeLink::Create(LINK_HYBIRD); }
    bool Register(SmartHomeLink& link) { return link.RegisterDeviceDescriptor(mDescriptor, &mNotify); }
    // What a search of this link finds, behind what is already in the list.
    bool Find(SmartHomeLink& link) {
        std::string devType = "camera";
        return link.FindDevice(devType, mFound);
    }
    std::vector<int> FoundPorts() {
        std::vector<int> ports;
        for (const auto& device : mFound) {
            ports.push_back(device->Port());
        }
        return ports;
    }
    void PutDevicesOnTheNetwork(int count) {
        mPlatform.devices.resize(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            mPlatform.devices[static_cast<std::size_t>(i)].port = i + 1;
        }
    }

    CapturedLog mLog;
    FakePlatform mPlatform;
    FakeNotifyCallback mNotify;
    const std::shared_ptr<FakeDescriptor> mDescriptor = std::make_shared<FakeDescriptor>("camera");
    std::list<std::shared_ptr<LinkDevice>> mFound;
};

TEST_F(SmartHomeLinkTest, RouterAndClientAreNotImplemented) {
    const std::pair<int, const char*> modes[] = {{0, "SmartHomeLinkRouter is null\n"},
                                                 {1, "SmartHomeLinkClient is null\n"}};
    for (const auto& [mode, text] : modes) {
        mLog.Clear();
        EXPECT_EQ(nullptr, SmartHomeLink::Create(static_cast<LinkMode>(mode)));
        EXPECT_THAT(mLog.Texts(1), ElementsAre("=====NOT IMPLEMENT=====", text));
        EXPECT_EQ(2U, mLog.Lines().size());
    }
    EXPECT_THAT(mPlatform.Calls(), IsEmpty());
}

TEST_F(SmartHomeLinkTest, OtherModesMakeNothingSilently) {
    for (const int mode : {3, 4, -1, 2147483647}) {
        EXPECT_EQ(nullptr, SmartHomeLink::Create(static_cast<LinkMode>(mode)));
    }
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

template <typename Placeholder>
void ExpectNothingIsImplemented(CapturedLog& log) {
    Placeholder link;
    std::string text = "camera";
    std::list<std::shared_ptr<LinkDevice>> devices(1);
    EXPECT_FALSE(link.Initialize());
    EXPECT_FALSE(link.RegisterDeviceDescriptor(nullptr, nullptr));
    EXPECT_FALSE(link.FindDevice(text, devices));
    EXPECT_FALSE(link.Dbg(1));
    EXPECT_FALSE(link.Run());
    EXPECT_FALSE(link.Exit());
    EXPECT_FALSE(link.SetConnectDevice(text, 1));
    EXPECT_EQ(1U, devices.size());
    EXPECT_EQ(7, log.Count(1, "=====NOT IMPLEMENT=====")) << log.Dump();
    EXPECT_EQ(7U, log.Lines().size());
}

TEST_F(SmartHomeLinkTest, EveryOperationOfAClientFails) {
    ExpectNothingIsImplemented<SmartHomeLinkClient>(mLog);
}
TEST_F(SmartHomeLinkTest, EveryOperationOfARouterFails) {
    ExpectNothingIsImplemented<SmartHomeLinkRouter>(mLog);
}

TEST_F(SmartHomeLinkTest, HybridIsMadeInitialised) {
    EXPECT_NE(nullptr, Create());
    EXPECT_THAT(mPlatform.Calls(), ElementsAre("GetLinkPlatform", "Init", "FreeLinkPlatform"));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(SmartHomeLinkTest, WithoutAPlatformThereIsNoLink) {
    mPlatform.givesHandles = false;
    EXPECT_EQ(nullptr, Create());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("LinkPlatform_get failure\n", "SmartHomeLinkHybird is null\n"));
    EXPECT_THAT(mPlatform.Calls(), ElementsAre("GetLinkPlatform"));
}

TEST_F(SmartHomeLinkTest, PlatformThatCannotBeInitialisedIsFreed) {
    for (const int result : {-1, 1}) {
        mLog.Clear();
        mPlatform.initResult = result;
        EXPECT_EQ(nullptr, Create());
        EXPECT_THAT(mLog.Texts(1), ElementsAre("SmartHomeLinkHybird is null\n"));
        EXPECT_EQ(0, mPlatform.LiveHandles());
    }
}

// Leaves each operation out in turn, and says which are missed.
template <typename Table, typename... Operations>
std::vector<std::function<void(Table&)>> EachLeftOut(Operations Table::*... operations) {
    return {[operations](Table& table) { table.*operations = nullptr; }...};
}

TEST_F(SmartHomeLinkTest, PlatformThatLeavesAnOperationOutIsRefusedAndFreed) {
    const std::vector<std::string> names = {"Init", "RegisterResource", "Run", "Exit", "FindResource"};
    const auto faults =
        EachLeftOut<LinkPlatform>(&LinkPlatform::Init, &LinkPlatform::RegisterResource, &LinkPlatform::Run,
                                  &LinkPlatform::Exit, &LinkPlatform::FindResource);
    for (std::size_t i = 0; i < names.size(); ++i) {
        mLog.Clear();
        mPlatform.onPlatformTable = faults[i];
        EXPECT_EQ(nullptr, Create()) << names[i];
        EXPECT_THAT(mLog.Texts(4),
                    ElementsAre("liblumora.so does not fit this library: its LinkPlatform has no " +
                                names[i] + ".\n"));
        EXPECT_EQ(0, mPlatform.LiveHandles()) << names[i];
    }
    EXPECT_EQ(0, mPlatform.CallCount("Init"));
}

TEST_F(SmartHomeLinkTest, PlatformNeedsNoDebugLevel) {
    mPlatform.onPlatformTable = [](LinkPlatform& table) { table.SetDebugLevel = nullptr; };
    const auto link = Create();
    ASSERT_NE(nullptr, link);
    EXPECT_TRUE(link->Dbg(3));
}

TEST_F(SmartHomeLinkTest, DeviceWhoseTableLeavesAnOperationOutIsNotListed) {
    PutDevicesOnTheNetwork(3);
    const auto link = Create();
    const std::vector<std::string> names = {"Get", "Put", "Post", "GetAddress", "GetPort"};
    const auto faults =
        EachLeftOut<AppResourceProxy>(&AppResourceProxy::Get, &AppResourceProxy::Put, &AppResourceProxy::Post,
                                      &AppResourceProxy::GetAddress, &AppResourceProxy::GetPort);
    for (std::size_t i = 0; i < names.size(); ++i) {
        mLog.Clear();
        mPlatform.onProxyTable = [&](AppResourceProxy& table, int index) {
            if (index == 1) {
                faults[i](table);
            }
        };
        EXPECT_TRUE(Find(*link));
        EXPECT_THAT(FoundPorts(), ElementsAre(1, 3)) << names[i];
        EXPECT_THAT(mLog.Texts(4),
                    ElementsAre("liblumora.so does not fit this library: its AppResourceProxy has no " +
                                names[i] + ".\n"));
        mFound.clear();
        EXPECT_EQ(0, mPlatform.LiveProxies()) << names[i];
    }
}

TEST_F(SmartHomeLinkTest, DeviceNeedsNoDelete) {
    PutDevicesOnTheNetwork(1);
    mPlatform.onProxyTable = [](AppResourceProxy& table, int) { table.Delete = nullptr; };
    const auto link = Create();
    ASSERT_TRUE(Find(*link));
    std::string unused;
    EXPECT_EQ(-1, mFound.front()->Delete("k", "v", unused));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("liblumora.so cannot send this request.\n"));
    EXPECT_EQ(0, mFound.front()->Post("k", "v", unused));
}

TEST_F(SmartHomeLinkTest, TwoLinksHaveTwoHandles) {
    auto first = Create();
    auto second = Create();
    EXPECT_NE(first, second);
    EXPECT_EQ(2, mPlatform.LiveHandles());
    first.reset();
    EXPECT_EQ(1, mPlatform.LiveHandles());
    second.reset();
    EXPECT_EQ(0, mPlatform.LiveHandles());
    EXPECT_EQ(2, mPlatform.CallCount("FreeLinkPlatform"));
    EXPECT_EQ(0, mPlatform.CallCount("Exit"));  // left to the owner
}

TEST_F(SmartHomeLinkTest, RegistrationReachesThePlatform) {
    const auto link = Create();
    EXPECT_TRUE(Register(*link));
    ASSERT_NE(nullptr, mPlatform.Resource());
    EXPECT_EQ(mDescriptor, LinkDeviceDescriptorWrapper::Get()->Find(mPlatform.Resource()));
    EXPECT_EQ(0, mPlatform.Post("Command", "{}"));
    EXPECT_EQ(1U, mDescriptor->calls.size());
}

TEST_F(SmartHomeLinkTest, RegistrationThatThePlatformRefusesFails) {
    const auto link = Create();
    for (const int result : {-1, 1}) {
        mPlatform.registerResult = result;
        EXPECT_FALSE(Register(*link));
    }
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(SmartHomeLinkTest, RegistrationWithoutMemoryFailsBeforeThePlatform) {
    const auto link = Create();
    lumora_test::FailSystemCall(lumora_test::SystemCall::MALLOC, ENOMEM);
    EXPECT_FALSE(Register(*link));
    EXPECT_THAT(mLog.Texts(1),
                ElementsAre("malloc Doorbell failure\n", "Register device descriptor failure\n"));
    EXPECT_EQ(0, mPlatform.CallCount("RegisterResource"));
}

TEST_F(SmartHomeLinkTest, RecordThatCannotBeClearedFailsTheRegistration) {
    const auto link = Create();
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMSET);
    EXPECT_FALSE(Register(*link));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memset_s failed\n", "Register device descriptor failure\n"));
}

TEST_F(SmartHomeLinkTest, LinkThatRegistersLastGetsAllRequests) {
    const auto first = Create();
    const auto second = Create();
    Register(*first);
    AppResource* const firstRecord = mPlatform.Resource();
    const auto later = std::make_shared<FakeDescriptor>("later");
    EXPECT_TRUE(second->RegisterDeviceDescriptor(later, &mNotify));
    EXPECT_EQ(nullptr, LinkDeviceDescriptorWrapper::Get()->Find(firstRecord));
    EXPECT_EQ(0, mPlatform.Post("k"));
    EXPECT_EQ(1U, later->calls.size());
}

TEST_F(SmartHomeLinkTest, WithdrawnRecordNeverServesLaterRegistrations) {
    const auto first = Create();
    Register(*first);
    AppResource* const firstRecord = mPlatform.Resource();  // known to the first handle as long as that lives
    for (int i = 0; i < 1000; ++i) {
        const auto second = Create();
        Register(*second);
        ASSERT_NE(firstRecord, mPlatform.Resource());
        ASSERT_EQ(nullptr, LinkDeviceDescriptorWrapper::Get()->Find(firstRecord));
    }
}

TEST_F(SmartHomeLinkTest, SearchAppendsTheDevicesInTheirOrder) {
    PutDevicesOnTheNetwork(3);
    const auto link = Create();
    EXPECT_TRUE(Find(*link));
    EXPECT_THAT(FoundPorts(), ElementsAre(1, 2, 3));
    EXPECT_THAT(mPlatform.Searches(), ElementsAre("camera"));
    mFound.clear();
    EXPECT_EQ(3, mPlatform.FreedProxies());
}

TEST_F(SmartHomeLinkTest, SearchThatFindsNoneFails) {
    const auto link = Create();
    EXPECT_FALSE(Find(*link));
    EXPECT_THAT(mFound, IsEmpty());
}

TEST_F(SmartHomeLinkTest, SearchPassesItsTextUnchanged) {
    const auto link = Create();
    for (std::string text : {"", "a type with blanks", "\"\\%s"}) {
        link->FindDevice(text, mFound);
        EXPECT_EQ(text, mPlatform.Searches().back());
    }
}

TEST_F(SmartHomeLinkTest, SearchKeepsWhatIsAlreadyInTheList) {
    PutDevicesOnTheNetwork(2);
    const auto link = Create();
    Find(*link);
    EXPECT_TRUE(Find(*link));
    EXPECT_THAT(FoundPorts(), ElementsAre(1, 2, 1, 2));
    mPlatform.devices.clear();
    EXPECT_TRUE(Find(*link));  // the list is not empty
    EXPECT_EQ(4U, mFound.size());
}

TEST_F(SmartHomeLinkTest, DevicesOutliveTheLinkThatFoundThem) {
    PutDevicesOnTheNetwork(1);
    auto link = Create();
    Find(*link);
    link.reset();
    std::string unused;
    EXPECT_EQ(0, mFound.front()->Post("k", "v", unused));
}

TEST_F(SmartHomeLinkTest, SearchThatRunsOutOfMemoryFreesWhatHasNoHandle) {
    PutDevicesOnTheNetwork(3);
    const auto link = Create();
    for (int allocation = 1; allocation <= 6; ++allocation) {  // a handle and an element for each device
        lumora_test::FailAllocation(allocation);
        EXPECT_THROW(Find(*link), std::bad_alloc) << allocation;
        lumora_test::ResetAllocationFaults();
        EXPECT_EQ(static_cast<int>(mFound.size()), mPlatform.LiveProxies()) << allocation;
        mFound.clear();
        EXPECT_EQ(0, mPlatform.LiveProxies()) << allocation;
    }
    EXPECT_TRUE(Find(*link));
}

TEST_F(SmartHomeLinkTest, DebugLevelReachesThePlatform) {
    const auto link = Create();
    EXPECT_TRUE(link->Dbg(3));
    EXPECT_TRUE(link->Dbg(-1));
    EXPECT_EQ(1, mPlatform.CallCount("SetDebugLevel 3"));
    EXPECT_EQ(1, mPlatform.CallCount("SetDebugLevel -1"));
}

TEST_F(SmartHomeLinkTest, RunAndExitTellWhetherThePlatformSucceeded) {
    const auto link = Create();
    EXPECT_TRUE(link->Run());
    EXPECT_TRUE(link->Run());  // keeps no state of its own
    EXPECT_TRUE(link->Exit());
    EXPECT_TRUE(link->Exit());
    for (const int result : {-1, 1}) {
        mPlatform.runResult = mPlatform.exitResult = result;
        EXPECT_FALSE(link->Run());
        EXPECT_FALSE(link->Exit());
    }
    EXPECT_EQ(4, mPlatform.CallCount("Run"));
    EXPECT_EQ(4, mPlatform.CallCount("Exit"));
    EXPECT_EQ(4, mLog.Count(1, "Stop SmartHomeLinkHybird\n"));
    EXPECT_EQ(4U, mLog.Lines().size());
}

TEST_F(SmartHomeLinkTest, LinkWithoutAHandleSucceedsAndDoesNothing) {
    {
        SmartHomeLinkHybird link;
        EXPECT_TRUE(link.Run());
        EXPECT_TRUE(link.Exit());
        EXPECT_TRUE(link.Dbg(1));
        EXPECT_TRUE(Register(link));
        EXPECT_FALSE(Find(link));
        mFound.resize(1);
        EXPECT_TRUE(Find(link));
    }
    EXPECT_THAT(mPlatform.Calls(), IsEmpty());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("Stop SmartHomeLinkHybird\n"));
}

TEST_F(SmartHomeLinkTest, SetConnectDeviceLogsItsDeviceAndMeansNothingByItsResult) {
    const auto link = Create();
    std::string address = "192.168.7.9";
    EXPECT_FALSE(link->SetConnectDevice(address, 40001));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("Set connect addr = 192.168.7.9, port = 40001\n"));
}

}  // namespace
}  // namespace lumora
