// What threads of the hub leave for the service thread.
#include "hub/web/mailbox.h"

#include <gtest/gtest.h>

namespace lumora_hub::web {
namespace {

class MailboxTest : public testing::Test {
protected:
    MailboxTest() {
        mMailbox.Open([this] { ++mWoken; });
    }

    Mailbox mMailbox;
    int mWoken = 0;
};

TEST_F(MailboxTest, WakesOnceUntilTheMailIsTaken) {
    mMailbox.PutReady(5);
    mMailbox.PutReady(5);
    mMailbox.PutOutcome(6, Outcome::REFUSED);
    EXPECT_EQ(1, mWoken);
    const Mailbox::Mail mail = mMailbox.TakeAll();
    EXPECT_EQ(std::set<std::uint64_t>{5}, mail.ready);
    ASSERT_EQ(1U, mail.outcomes.size());
    EXPECT_EQ(Outcome::REFUSED, mail.outcomes[0].second);
    EXPECT_TRUE(mMailbox.TakeAll().ready.empty());
    mMailbox.PutReady(7);
    EXPECT_EQ(2, mWoken);
}

TEST_F(MailboxTest, KeepsTheLatestEventOfADevice) {
    DeviceEvent event;
    event.device.id = "a@1";
    for (const DeviceEvent::Kind kind : {DeviceEvent::Kind::APPEARED, DeviceEvent::Kind::LEFT}) {
        event.kind = kind;
        mMailbox.PutEvent(event);
    }
    const Mailbox::Mail mail = mMailbox.TakeAll();
    ASSERT_EQ(1U, mail.events.size());
    EXPECT_EQ(DeviceEvent::Kind::LEFT, mail.events.at("a@1").kind);
}

TEST_F(MailboxTest, DropsEverythingOnceItIsClosed) {
    mMailbox.PutReady(1);
    mMailbox.Close();
    mMailbox.PutReady(2);
    mMailbox.PutOutcome(3, Outcome::DONE);
    mMailbox.PutEvent({});
    EXPECT_EQ(1, mWoken);
    const Mailbox::Mail mail = mMailbox.TakeAll();
    EXPECT_TRUE(mail.ready.empty() && mail.outcomes.empty() && mail.events.empty());
}

}  // namespace
}  // namespace lumora_hub::web
