// Events before any device has been connected to: the tests of this program must not connect to one.
#include <gmock/gmock.h>

#include "link/smart_home_link_hybird.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_securec.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakeNotifyCallback;
using testing::ElementsAre;
using testing::IsEmpty;

class FirstEventsTest : public testing::Test {
protected:
    ~FirstEventsTest() override {
        SmartHomeLinkHybird::WithdrawNotifyCallback(&mNotify);
        lumora_test::ResetBoundedCalls();
    }

    int Send(const char* address) {
        NotifyDeviceInfo info = {1, 9, address, 40001, "camera"};
        return RemoteDeviceNotifyCallback(&info);
    }
    void Register() {
        SmartHomeLinkHybird().RegisterDeviceDescriptor(std::make_shared<lumora_test::FakeDescriptor>(),
                                                       &mNotify);
    }

    CapturedLog mLog;
    lumora_test::FakePlatform mPlatform;
    FakeNotifyCallback mNotify;
};

TEST_F(FirstEventsTest, EventBeforeAnyRegistrationFails) {
    EXPECT_EQ(-1, Send("10.0.0.7"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("g_mNotifyCallback is nullptr, can't callback!\n"));
    EXPECT_EQ(1U, mLog.Texts(2).size());
}

TEST_F(FirstEventsTest, NoDevicesEventIsReportedBeforeAConnection) {
    Register();
    EXPECT_EQ(0, Send("10.0.0.7"));
    EXPECT_EQ(0, Send("0.0.0.0"));
    EXPECT_EQ(0, Send(""));
    EXPECT_THAT(mNotify.events, IsEmpty());
}

TEST_F(FirstEventsTest, ConnectedAddressIsZeroBeforeAConnection) {
    Register();
    mNotify.result = 5;
    EXPECT_EQ(5, Send("0"));
    EXPECT_EQ(1U, mNotify.events.size());
}

}  // namespace
}  // namespace lumora
