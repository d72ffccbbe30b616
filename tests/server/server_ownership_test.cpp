// Requests of several nodes, over a platform library that tells by keys which node asks.
#include "tests/server/server_fixture.h"
#include "tests/support/fake_security.h"

namespace lumora_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr int OWNER_PORT = 5683;  // as RequestSetup has it

class FakeOwnTransport : public FakeTransport {
public:
    bool IsRunning() const override { return running; }
    bool running = true;
};

class ServerOwnershipTest : public ServerModuleTest {
protected:
    ServerOwnershipTest() {
        mTransports.next = mTransport;
        StartWith({"face"});
        mSecurity.requesterNode = 1;
        EXPECT_EQ("Succ", RequestSetup().reply);
        EXPECT_EQ(0, Connect(3));
        EXPECT_EQ(0, Subscribe(3, "face"));
    }

    // Everything by which a client could lose its place.
    void ExpectRefusals() {
        EXPECT_EQ(-1, Unsubscribe(3, "face"));
        EXPECT_EQ(-1, Subscribe(4, "face"));
        EXPECT_EQ(-1, Destroy(3));
        EXPECT_EQ(-1, Connect(4));
        EXPECT_EQ(-1, mModule->OnCoapPut("StopTransport", ""));
        EXPECT_EQ(-1, RequestSetup().result);
    }

    FakeSecurity mSecurity;
    FakeTransports mTransports;
    std::shared_ptr<FakeOwnTransport> mTransport = std::make_shared<FakeOwnTransport>();
};

TEST_F(ServerOwnershipTest, AnotherNodeTouchesNoClientOfTheOwner) {
    for (const int node : {2, 0}) {
        mSecurity.requesterNode = static_cast<unsigned char>(node);
        ExpectRefusals();
    }
    EXPECT_EQ(0, mTransport->stops);
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face")));
    EXPECT_THAT(Errors(), Contains(HasSubstr("The data channel belongs to a node with the key "
                                             "\"key-of-the-owner\"; another one's request is refused.")));
}

TEST_F(ServerOwnershipTest, TheOwnerMayDoAllOfIt) {
    EXPECT_EQ(0, Unsubscribe(3, "face"));
    EXPECT_EQ(0, Connect(4));
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(0, Destroy(4));
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(2, mTransport->stops);
}

TEST_F(ServerOwnershipTest, AnotherNodeMayAskAndCommand) {
    mSecurity.requesterNode = 2;
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("SetMode", "night")));
    std::string reply;
    EXPECT_EQ(0, mModule->OnCoapGet("TransStatus", reply));
}

TEST_F(ServerOwnershipTest, AChannelThatHasEndedIsFree) {
    mTransport->running = false;
    mSecurity.requesterNode = 2;
    EXPECT_EQ("Succ", RequestSetup().reply);
    mTransport->running = true;
    EXPECT_EQ(0, Connect(3));
    mSecurity.requesterNode = 1;
    ExpectRefusals();
}

TEST_F(ServerOwnershipTest, WhatWasStoppedIsFree) {
    EXPECT_EQ(0, Destroy(3));
    mSecurity.requesterNode = 2;
    EXPECT_EQ("Succ", RequestSetup().reply);
}

TEST_F(ServerOwnershipTest, AChannelOfANodeWithoutProofBelongsToNone) {
    EXPECT_EQ(0, Destroy(3));
    mSecurity.requesterNode = 0;
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(0, Connect(3));
    mSecurity.requesterNode = 2;
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(0, Destroy(3));
}

TEST_F(ServerOwnershipTest, OnlyTheOwnersRemovalEndsItsChannel) {
    EXPECT_EQ(0, mModule->OnRemoveDevice(9, "127.0.0.1", OWNER_PORT + 1, ""));
    EXPECT_EQ(0, mTransport->stops) << "another node on that host";
    EXPECT_EQ(0, mModule->OnRemoveDevice(8, "127.0.0.1", OWNER_PORT, ""));
    EXPECT_EQ(1, mTransport->stops);
}

}  // namespace
}  // namespace lumora_test
