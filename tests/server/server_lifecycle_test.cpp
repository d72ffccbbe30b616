#include <atomic>
#include <thread>

#include "link/smart_home_link_hybird.h"
#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using lumoraAiModule::LumoraServerModule;
using testing::ElementsAre;
using testing::IsEmpty;

class ServerLifecycleTest : public ServerModuleTest {
protected:
    std::string Descriptor() const {
        AppResource* resource = mPlatform.Resource();
        const char* text = resource->DoGetDescriptor(resource);
        return text != nullptr ? text : "(none)";
    }

    // Lets the n-th allocation of each start fail, until a start logs this error.
    bool StartRunsOutOfMemoryAt(const std::string& error) {
        for (int n = 1; n < 200; ++n) {
            mLog.Clear();
            FailAllocation(n);
            int ret = -1;
            try {
                ret = mModule->InitLumoraModule();
            } catch (const std::bad_alloc&) {
            }
            ResetAllocationFaults();
            if (mLog.Has(4, error)) {
                EXPECT_EQ(-1, ret);
                return true;
            }
            if (ret == 0) {
                EXPECT_EQ(0, mModule->DeInitLumoraModule());
            }
        }
        return false;
    }
};

// ---- The one instance ----

class ServerInstanceTest : public testing::Test {
protected:
    ~ServerInstanceTest() override {
        ResetAllocationFaults();
        LumoraServerModule::DestoryInstance();
    }

    CapturedLog mLog;
    FakePlatform mPlatform;
};

TEST_F(ServerInstanceTest, IsMadeOnceAndKept) {
    LumoraServerModule* const first = LumoraServerModule::CreateInstance("camera");
    ASSERT_NE(nullptr, first);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n", "Out\n", "Out\n"));
    mLog.Clear();
    EXPECT_EQ(first, LumoraServerModule::CreateInstance("reader"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerInstanceTest, KeepsTheTypeItWasMadeWith) {
    LumoraServerModule* const module = LumoraServerModule::CreateInstance("camera");
    LumoraServerModule::CreateInstance("reader");
    ASSERT_EQ(0, module->InitLumoraModule());
    EXPECT_STREQ("camera", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
    EXPECT_EQ(0, module->DeInitLumoraModule());
}

TEST_F(ServerInstanceTest, IsNullWhenMemoryRanOut) {
    const std::string type = "a type of more characters than a string holds in place";
    FailAllocation();
    EXPECT_EQ(nullptr, LumoraServerModule::CreateInstance(type));
    FailAllocation(2);
    EXPECT_EQ(nullptr, LumoraServerModule::CreateInstance(type));
    EXPECT_NE(nullptr, LumoraServerModule::CreateInstance(type));
}

TEST_F(ServerInstanceTest, DestroyingNoneIsASuccessWithAMessage) {
    EXPECT_EQ(0, LumoraServerModule::DestoryInstance());
    EXPECT_THAT(mLog.Texts(4), ElementsAre("No Lumora instance created, you could not Destroy\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerInstanceTest, DestroyingItGivesUpTheLinkAndAllowsANewOne) {
    ASSERT_EQ(0, LumoraServerModule::CreateInstance("camera")->InitLumoraModule());
    mLog.Clear();
    EXPECT_EQ(0, LumoraServerModule::DestoryInstance());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_EQ(0, mPlatform.LiveHandles());
    ASSERT_EQ(0, LumoraServerModule::CreateInstance("reader")->InitLumoraModule());
    EXPECT_STREQ("reader", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
}

// ---- Start ----

TEST_F(ServerLifecycleTest, StartRegistersTheDescriptorAndThenRuns) {
    EXPECT_EQ(0, mModule->InitLumoraModule());
    EXPECT_THAT(mPlatform.Calls(), ElementsAre("GetLinkPlatform", "Init", "RegisterResource", "Run"));
    EXPECT_EQ("camera", Descriptor());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n", "Out\n", "Enter\n", "Out\n", "Out\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerLifecycleTest, SecondStartSaysSoAndChangesNothing) {
    Start();
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule());
    EXPECT_THAT(Errors(), ElementsAre("Lumora Module has been initiliazed!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    EXPECT_EQ(1, mPlatform.CallCount("Run"));
}

TEST_F(ServerLifecycleTest, StartFailsWithThePlatform) {
    const struct {
        std::function<void(bool fails)> step;
        Texts errors;
        int runs;
    } cases[] = {
        {[this](bool fails) { mPlatform.givesHandles = !fails; },
         {"create SmarthomeLink failure!\n", "InitializeCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.initResult = fails ? -1 : 0; },
         {"create SmarthomeLink failure!\n", "InitializeCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.registerResult = fails ? -1 : 0; },
         {"mSmartHomeLink registerDeviceDescriptor failed!\n", "StartCoapService failed!\n"},
         0},
        {[this](bool fails) { mPlatform.runResult = fails ? -1 : 0; },
         {"mSmartHomeLink running failed!!\n", "StartCoapService failed!\n"},
         1},
    };
    for (const auto& failing : cases) {
        mLog.Clear();
        failing.step(true);
        EXPECT_EQ(-1, mModule->InitLumoraModule());
        failing.step(false);
        EXPECT_EQ(failing.errors, Errors());
        EXPECT_EQ(failing.runs, mPlatform.CallCount("Run"));
        EXPECT_EQ(0, mPlatform.LiveHandles());
    }
}

TEST_F(ServerLifecycleTest, StartFailsWhenTheDescriptorCannotBeMade) {
    ASSERT_TRUE(StartRunsOutOfMemoryAt("create mDevDescriptor failure!\n"));
    EXPECT_THAT(Errors(), ElementsAre("create mDevDescriptor failure!\n", "InitializeCoapService failed!\n"));
}

TEST_F(ServerLifecycleTest, StartFailsWhenTheFactoryCannotBeMade) {
    ASSERT_TRUE(StartRunsOutOfMemoryAt("create TransManagerFactory failure!\n"));
    EXPECT_THAT(Errors(),
                ElementsAre("create TransManagerFactory failure!\n", "InitializeCoapService failed!\n"));
    EXPECT_EQ(1, mPlatform.LiveHandles());  // what was made stays
}

TEST_F(ServerLifecycleTest, FailedStartCanBeRepeated) {
    mPlatform.givesHandles = false;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    mPlatform.givesHandles = true;
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    mPlatform.runResult = 0;
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule());
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
}

TEST_F(ServerLifecycleTest, RequestAfterAFailedStartIsAnsweredWithoutALink) {
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    mLog.Clear();
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_THAT(Errors(), ElementsAre("ParseTransportsProtocol failed!\n"));
}

// ---- Stop ----

TEST_F(ServerLifecycleTest, StoppingAModuleThatNeverStartedFails) {
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    EXPECT_THAT(Errors(), ElementsAre("mSmartHomeLink is not running, you can't close it!\n",
                                      "CloseCoapService failed!!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n"));
}

TEST_F(ServerLifecycleTest, StopLeavesTheNetwork) {
    Start();
    mLog.Clear();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    EXPECT_EQ(1, mPlatform.CallCount("Exit"));
    EXPECT_EQ(1, mLog.Count(2, "Clear coap resourse success.\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Enter\n", "Out\n", "Out\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerLifecycleTest, SecondStopFails) {
    Start();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    EXPECT_EQ(1, mPlatform.CallCount("Exit"));
}

TEST_F(ServerLifecycleTest, StopDropsServicesAndKeepsTheRest) {
    StartWith({"face"});
    Connect(3);
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mLog.Clear();
    EXPECT_EQ(-1, Subscribe(3, "face"));  // its callbacks are known, the service is not
    EXPECT_THAT(Errors(),
                ElementsAre("Device can't support face service\n", "Process Subscribe face failed\n"));
    EXPECT_EQ(ServiceInfo("camera"), ServiceInfoText());
    EXPECT_EQ(0, Destroy(3));
}

TEST_F(ServerLifecycleTest, StopEndsTheDataChannel) {
    StartWith({"face"});
    OpenChannel();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    EXPECT_TRUE(mToServer.SeesEnd());
    EXPECT_TRUE(mFromServer.SeesEnd());
    mLog.Clear();
    EXPECT_EQ(-1, Send("face", "x"));
    EXPECT_THAT(Errors(), ElementsAre("no transport created , please connect first!\n"));
}

TEST_F(ServerLifecycleTest, FailedExitFailsTheStopAndLeavesTheModuleNotRunning) {
    StartWith({"face"});
    mPlatform.exitResult = -1;
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    EXPECT_THAT(Errors(), ElementsAre("mSmartHomeLink->exit() failed!\n", "CloseCoapService failed!!\n"));
    EXPECT_FALSE(mLog.Has(2, "Clear coap resourse success.\n"));
    EXPECT_EQ(0, Subscribe(3, "face"));  // the services are still there
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    EXPECT_TRUE(mLog.Has(4, "mSmartHomeLink is not running, you can't close it!\n"));
}

TEST_F(ServerLifecycleTest, ModuleStartsAgainAfterAFailedExit) {
    Start();
    mPlatform.exitResult = -1;
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());
    mPlatform.exitResult = 0;
    mLog.Clear();
    EXPECT_EQ(0, mModule->InitLumoraModule());
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(1, mPlatform.LiveHandles());
}

TEST_F(ServerLifecycleTest, FailureOfTheTransportIsTheResultOfTheStop) {
    FakeTransports transports;
    StartWith({"face"});
    ASSERT_EQ("Succ", RequestSetup().reply);
    transports.next->stopResult = -7;
    mLog.Clear();
    EXPECT_EQ(-7, mModule->DeInitLumoraModule());
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n"));
    EXPECT_EQ(1, mLog.Count(2, "Clear coap resourse success.\n"));
    EXPECT_EQ(-1, mModule->DeInitLumoraModule());  // not running, although the transport is still there
    EXPECT_EQ(2, transports.next.use_count());
    transports.next->stopResult = 0;
}

TEST_F(ServerLifecycleTest, StopWaitsForARequestInProgressWithoutBlockingIt) {
    Start();
    mPlatform.onExit = [this] {
        std::thread request([this] { EXPECT_EQ("free", mPlatform.Get("TransStatus").reply); });
        request.join();
    };
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
}

TEST_F(ServerLifecycleTest, StartAfterAStopMakesANewLink) {
    Start();
    AppResource* const first = mPlatform.Resource();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    EXPECT_EQ(1, mPlatform.LiveHandles());  // the stopped link is kept
    EXPECT_EQ(0, mModule->InitLumoraModule());
    EXPECT_EQ(2, mPlatform.CallCount("GetLinkPlatform"));
    EXPECT_EQ(1, mPlatform.LiveHandles());
    EXPECT_NE(nullptr, first);
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
}

TEST_F(ServerLifecycleTest, RegisteredTypeDescribesTheDeviceFromTheNextStartOn) {
    Start();
    const LUM_DEVICE_INFO_S info = Application::Describe({"face"}, "reader");
    EXPECT_EQ(0, mModule->RegisterLocalDeviceInfo(&info));
    EXPECT_EQ("camera", Descriptor());
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    Start();
    EXPECT_EQ("reader", Descriptor());
}

TEST_F(ServerLifecycleTest, SetupWithoutALinkAfterAFailedRestartIsSurvived) {
    StartWith({"face"});
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mPlatform.givesHandles = false;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    FakeTransports transports;
    EXPECT_EQ("Succ", RequestSetup().reply);
}

// ---- Destruction ----

TEST_F(ServerLifecycleTest, LateRequestsAreRefused) {
    StartWith({"face"});
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mModule.reset();
    mLog.Clear();
    EXPECT_EQ(-1, mPlatform.Get("ServiceInfo").result);
    EXPECT_EQ(-1, Subscribe(3, "face"));
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ(3, mLog.Count(1, "please register mCoapCallback\n"));
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
}

TEST_F(ServerLifecycleTest, LateEventsAreRefused) {
    Start();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mModule.reset();
    mLog.Clear();
    EXPECT_EQ(-1, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "camera"));
    EXPECT_TRUE(mLog.Has(1, "g_mNotifyCallback is nullptr, can't callback!\n")) << mLog.Dump();
}

TEST_F(ServerLifecycleTest, RequestsAfterAFailedStartAreRefusedOnceTheModuleIsGone) {
    mPlatform.runResult = -1;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    mModule.reset();
    EXPECT_EQ(-1, mPlatform.Get("TransStatus").result);
    EXPECT_EQ(-1, mPlatform.SendEvent(2, 7, "0", 5683, "camera"));
}

TEST_F(ServerLifecycleTest, RequestsAreRefusedOnceAModuleThatFailedToRestartIsGone) {
    Start();
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mPlatform.registerResult = -1;
    EXPECT_EQ(-1, mModule->InitLumoraModule());
    mModule.reset();
    EXPECT_EQ(-1, mPlatform.Get("TransStatus").result);
}

TEST_F(ServerLifecycleTest, DestructionWaitsForARequestInProgress) {
    StartWith({"face"});
    std::atomic<bool> inside{false};
    std::atomic<bool> leaving{false};
    std::atomic<bool> released{false};
    mApplication.onCommand = [&] {
        inside = true;
        Eventually([&] { return released.load(); });
        leaving = true;
    };
    std::thread request([this] { EXPECT_EQ(0, Cmd(3, "SetMode", "night")); });
    EXPECT_TRUE(Eventually([&] { return inside.load(); }));
    std::atomic<bool> destroying{false};
    std::thread destroyer([&] {
        destroying = true;
        mModule.reset();
        EXPECT_TRUE(leaving);
    });
    EXPECT_TRUE(Eventually([&] { return destroying.load(); }));
    released = true;
    request.join();
    destroyer.join();
}

TEST_F(ServerLifecycleTest, ModuleOfTheOtherSideThatRegisteredLastKeepsReceivingEvents) {
    struct Other : lumoraAiModule::LumoraNotifyCallback {
        int OnAddDevice(unsigned int, const std::string&, int, const std::string&) override { return 11; }
        int OnRemoveDevice(unsigned int, const std::string&, int, const std::string&) override { return 12; }
    } other;
    Start();
    lumora::SmartHomeLinkHybird link;
    ASSERT_TRUE(link.Initialize());
    std::string type = "reader";
    ASSERT_TRUE(
        link.RegisterDeviceDescriptor(std::make_shared<lumoraAiModule::LumoraAiDescriptor>(type), &other));
    std::string address = "127.0.0.1";
    link.SetConnectDevice(address, 5683);
    EXPECT_EQ(0, mModule->DeInitLumoraModule());
    mModule.reset();
    EXPECT_EQ(12, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "reader"));
    lumora::SmartHomeLinkHybird::WithdrawNotifyCallback(&other);
}

}  // namespace
}  // namespace lumora_test
