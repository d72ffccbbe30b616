// The platform's threads beside the application's. Most of what can go wrong here only ThreadSanitizer sees.
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "link/descriptor_registry.h"
#include "link/lumora_ai_descriptor.h"
#include "link/smart_home_link_hybird.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"

namespace lumora {
namespace {

using lumora_test::Eventually;
using lumora_test::FakePlatform;

constexpr int ROUNDS = 300;

// Counts events, on any thread.
class CountingNotifyCallback : public lumoraAiModule::LumoraNotifyCallback {
public:
    int OnAddDevice(unsigned int, const std::string&, int, const std::string&) override { return Count(); }
    int OnRemoveDevice(unsigned int, const std::string&, int, const std::string&) override { return Count(); }
    std::atomic<int> events{0};
    std::function<void()> onEvent = [] {};

private:
    int Count() {
        ++events;
        onEvent();
        return 0;
    }
};

// Counts requests, on any thread.
class CountingCoapCallback : public lumoraAiModule::LumoraCoapCallback {
public:
    int OnCoapGet(const std::string&, std::string& value) override {
        value = "reply";
        return Count();
    }
    int OnCoapPut(const std::string&, const std::string&) override { return Count(); }
    int OnCoapPost(const std::string&, const std::string&) override { return Count(); }
    int OnCoapDelete(const std::string&, const std::string&) override { return Count(); }
    int OnSetupMediaService(const LinkDeviceDescriptor::Port&, std::string&) override { return Count(); }
    std::atomic<int> requests{0};
    std::function<void()> onRequest = [] {};

private:
    int Count() {
        ++requests;
        onRequest();
        return 0;
    }
};

// A thread that does the same until it is told to stop.
class Repeating {
public:
    explicit Repeating(std::function<void()> work)
        : mThread([this, work] {
              while (!mStop) {
                  work();
                  mDone = true;
              }
          }) {}
    ~Repeating() {
        Eventually([this] { return mDone.load(); });
        mStop = true;
        mThread.join();
    }
    Repeating(const Repeating&) = delete;
    Repeating& operator=(const Repeating&) = delete;

private:
    std::atomic<bool> mStop{false};
    std::atomic<bool> mDone{false};
    std::thread mThread;
};

class LinkConcurrencyTest : public testing::Test {
protected:
    LinkConcurrencyTest() : mLink(SmartHomeLink::Create(LINK_HYBIRD)) {
        ConnectTo("10.0.0.7");
        mLog.reset();  // the log of so many rounds is not read
    }
    ~LinkConcurrencyTest() override {
        lumora_test::ResetBoundedCalls();
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        LinkDeviceDescriptorWrapper::Get()->Clear();
    }

    void Register(const std::shared_ptr<LinkDeviceDescriptor>& descriptor) {
        ASSERT_TRUE(mLink->RegisterDeviceDescriptor(descriptor, &mNotify));
    }
    std::shared_ptr<lumoraAiModule::LumoraAiDescriptor> Serve(CountingCoapCallback& callback) {
        std::string text = "camera";
        auto descriptor = std::make_shared<lumoraAiModule::LumoraAiDescriptor>(&callback, text);
        Register(descriptor);
        return descriptor;
    }
    void ConnectTo(std::string address) { mLink->SetConnectDevice(address, 1); }
    static int SendEvent() {
        NotifyDeviceInfo info = {1, 9, "10.0.0.7", 40001, "camera"};
        return RemoteDeviceNotifyCallback(&info);
    }

    std::unique_ptr<lumora_test::CapturedLog> mLog = std::make_unique<lumora_test::CapturedLog>();
    FakePlatform mPlatform;
    CountingNotifyCallback mNotify;
    const std::shared_ptr<SmartHomeLink> mLink;
};

TEST_F(LinkConcurrencyTest, EventsArriveWhileTheConnectedDeviceChanges) {
    CountingCoapCallback callback;
    Serve(callback);
    {
        const Repeating events([] { EXPECT_EQ(0, SendEvent()); });
        for (int i = 0; i < ROUNDS; ++i) {
            ConnectTo("an address that is long enough to live in memory of its own");
            ConnectTo("10.0.0.7");
        }
    }
    SendEvent();
    EXPECT_GT(mNotify.events, 0);
}

TEST_F(LinkConcurrencyTest, EventsArriveWhileTheCallbackChanges) {
    CountingCoapCallback callback;
    const Repeating events([] { SendEvent(); });
    for (int i = 0; i < ROUNDS; ++i) {
        Serve(callback);
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        const int before = mNotify.events;
        std::this_thread::yield();
        ASSERT_EQ(before, mNotify.events);  // no callback runs after a withdrawal
    }
}

TEST_F(LinkConcurrencyTest, RequestsArriveWhileTheRegistrationChanges) {
    CountingCoapCallback callback;
    auto descriptor = Serve(callback);
    const std::shared_ptr<AppResource> handlers = [&] {
        std::shared_ptr<LinkDeviceDescriptor> base = descriptor;
        return LinkDeviceDescriptorWrapper::Get()->RegisterDeviceDescriptor(base);
    }();
    std::atomic<AppResource*> current{handlers.get()};
    const Repeating requests([&] {
        const RemoteEndpoint requester = {};
        char buffer[64] = "";
        const int result = handlers->DoGET(current, &requester, "k", buffer, sizeof(buffer));
        EXPECT_STREQ(result == 0 ? "reply" : "", buffer);
    });
    const Repeating descriptions([&] { handlers->DoGetDescriptor(nullptr); });
    for (int i = 0; i < ROUNDS; ++i) {
        descriptor = Serve(callback);
        current = mPlatform.Resource();
        if (i % 10 == 0) {
            LinkDeviceDescriptorWrapper::Get()->Clear();
        }
    }
}

TEST_F(LinkConcurrencyTest, RegistrationsOfTwoLinksMeet) {
    const auto other = SmartHomeLink::Create(LINK_HYBIRD);
    const auto descriptor = std::make_shared<lumora_test::FakeDescriptor>();
    {
        const Repeating registrations([&] { other->RegisterDeviceDescriptor(descriptor, &mNotify); });
        for (int i = 0; i < ROUNDS; ++i) {
            Register(descriptor);
        }
    }
    // The registry serves the one that came last, and it alone.
    Register(descriptor);
    EXPECT_EQ(descriptor, LinkDeviceDescriptorWrapper::Get()->Find(mPlatform.Resource()));
}

TEST_F(LinkConcurrencyTest, LinksAreMadeBesideEachOther) {
    const Repeating links([] { EXPECT_NE(nullptr, SmartHomeLink::Create(LINK_HYBIRD)); });
    for (int i = 0; i < ROUNDS; ++i) {
        EXPECT_NE(nullptr, SmartHomeLink::Create(LINK_HYBIRD));
    }
}

TEST_F(LinkConcurrencyTest, ModuleMayDieRightAfterItsWithdrawal) {
    const auto descriptor = std::make_shared<lumora_test::FakeDescriptor>();
    Register(descriptor);
    const Repeating events([] { SendEvent(); });
    for (int i = 0; i < ROUNDS; ++i) {  // a sanitizer sees an event to a dead one
        const auto module = std::make_unique<CountingNotifyCallback>();
        mLink->RegisterDeviceDescriptor(descriptor, module.get());
        std::this_thread::yield();
        SmartHomeLinkHybird::WithdrawNotifyCallback(module.get());
    }
}

TEST_F(LinkConcurrencyTest, WithdrawalFromTheDescriptorWaitsForARequestInProgress) {
    CountingCoapCallback callback;
    const auto descriptor = Serve(callback);
    std::promise<void> entered;
    std::promise<void> letGo;
    std::atomic<bool> left{false};
    callback.onRequest = [&] {
        if (callback.requests == 1) {
            entered.set_value();
            letGo.get_future().wait();
            left = true;
        }
    };
    std::thread request([&] { EXPECT_EQ(0, mPlatform.Post("Command", "{}")); });
    entered.get_future().wait();
    bool requestHadEnded = false;
    std::thread withdrawal([&] {
        descriptor->WithdrawCallback(&callback);
        requestHadEnded = left;
    });
    EXPECT_TRUE(Eventually([&] { return mPlatform.Delete("k") == -1; }));  // late requests are refused
    letGo.set_value();
    withdrawal.join();
    request.join();
    EXPECT_TRUE(requestHadEnded);
}

TEST_F(LinkConcurrencyTest, WithdrawalFromTheLinkWaitsForAnEventInProgress) {
    CountingCoapCallback callback;
    Serve(callback);
    std::promise<void> entered;
    std::promise<void> letGo;
    std::atomic<bool> left{false};
    mNotify.onEvent = [&] {
        if (mNotify.events == 1) {
            entered.set_value();
            letGo.get_future().wait();
            left = true;
        }
    };
    std::thread event([] { EXPECT_EQ(0, SendEvent()); });
    entered.get_future().wait();
    bool eventHadEnded = false;
    std::thread withdrawal([&] {
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        eventHadEnded = left;
    });
    EXPECT_TRUE(Eventually([] { return SendEvent() == -1; }));  // late events are refused
    letGo.set_value();
    withdrawal.join();
    event.join();
    EXPECT_TRUE(eventHadEnded);
}

TEST_F(LinkConcurrencyTest, RequestInProgressKeepsItsDescriptorAlive) {
    CountingCoapCallback callback;
    auto descriptor = Serve(callback);
    const std::weak_ptr<LinkDeviceDescriptor> alive = descriptor;
    descriptor.reset();
    std::promise<void> entered;
    std::promise<void> letGo;
    callback.onRequest = [&] {
        entered.set_value();
        letGo.get_future().wait();
    };
    std::thread request([&] { EXPECT_EQ("reply", mPlatform.Get("k").reply); });
    entered.get_future().wait();
    LinkDeviceDescriptorWrapper::Get()->Clear();  // does not wait
    EXPECT_FALSE(alive.expired());
    letGo.set_value();
    request.join();
    EXPECT_TRUE(alive.expired());
}

TEST_F(LinkConcurrencyTest, RequestsOfOneDescriptorRunBesideEachOther) {
    CountingCoapCallback callback;
    Serve(callback);
    std::promise<void> bothInside;
    std::shared_future<void> inside = bothInside.get_future().share();
    callback.onRequest = [&] {
        if (callback.requests == 2) {
            bothInside.set_value();
        }
        inside.wait();
    };
    std::thread first([&] { mPlatform.Post("k"); });
    std::thread second([&] {
        Eventually([&] { return callback.requests == 1; });
        mPlatform.Delete("k");
    });
    first.join();
    second.join();
    EXPECT_EQ(2, callback.requests);
}

}  // namespace
}  // namespace lumora
