#include <stdexcept>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerSubscriptionTest : public ServerModuleTest {
protected:
    ServerSubscriptionTest() { StartWith({"face", "body"}); }

    void ForgetCallbacks(bool onCommand, bool onNotify) {
        LUM_DEVICE_INFO_S info = Application::Describe({"face", "body"});
        info.OnCommand = onCommand ? nullptr : info.OnCommand;
        info.OnEventNotify = onNotify ? nullptr : info.OnEventNotify;
        ASSERT_EQ(0, mModule->RegisterLocalDeviceInfo(&info));
        mLog.Clear();
    }
};

// ---- Subscribe ----

TEST_F(ServerSubscriptionTest, SubscriptionReachesTheApplication) {
    EXPECT_EQ(0, Subscribe(3, "face", 1, 5));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face", 1, 5)));
    EXPECT_EQ(1, mLog.Count(1, "clientID = 3 is stored in face space!\n"));
    EXPECT_THAT(mApplication.Commands(), IsEmpty());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerSubscriptionTest, ClientNeedNotBeConnected) {
    EXPECT_EQ(0, Subscribe(17, "body"));
    EXPECT_EQ(-1, Destroy(17));
}

TEST_F(ServerSubscriptionTest, SecondSubscriptionSucceedsWithoutAnEvent) {
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_EQ(0, Subscribe(3, "face", 1, 1));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face")));
    EXPECT_EQ(1, mLog.Count(2, "Client[3] has subscribed face service.\n"));
}

TEST_F(ServerSubscriptionTest, ListOfSubscribersHasAnEnd) {
    for (int client = 1; client <= 1024; ++client) {
        ASSERT_EQ(0, Subscribe(client, "face"));
    }
    mLog.Clear();
    EXPECT_EQ(-1, Subscribe(1025, "face"));
    EXPECT_THAT(Errors(), ElementsAre("face has too many subscribers\n", "Process Subscribe face failed\n"));
    EXPECT_EQ(0, Subscribe(1024, "face")) << "who is in it is still known";
    EXPECT_EQ(0, Unsubscribe(1, "face"));
    EXPECT_EQ(0, Subscribe(1025, "face"));
}

TEST_F(ServerSubscriptionTest, ServiceThatIsNotOfferedFails) {
    EXPECT_EQ(-1, Subscribe(3, "Face"));
    EXPECT_THAT(Errors(),
                ElementsAre("Device can't support Face service\n", "Process Subscribe Face failed\n"));
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerSubscriptionTest, EventsComeInTheOrderOfTheRequests) {
    Subscribe(3, "face");
    Subscribe(4, "face");
    Subscribe(3, "body");
    Unsubscribe(3, "face");
    Subscribe(3, "face", 1, 0);
    EXPECT_THAT(mApplication.Notifications(),
                ElementsAre(Subscribed(3, "face"), Subscribed(4, "face"), Subscribed(3, "body"),
                            Unsubscribed(3, "face"), Subscribed(3, "face", 1, 0)));
}

TEST_F(ServerSubscriptionTest, NameOf39CharactersCanBeSubscribedTo) {
    const std::string name(39, 'n');
    Register({name});
    EXPECT_EQ(0, Subscribe(3, name));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, name)));
}

TEST_F(ServerSubscriptionTest, NameOf40CharactersCannotBeSubscribedTo) {
    const std::string name(40, 'n');
    Register({name});
    mLog.Clear();
    EXPECT_EQ(-1, Subscribe(3, name));
    EXPECT_THAT(Errors(), ElementsAre("strncpy_s failed\n", "ParseJsonCmd failed!\n"));
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
}

TEST_F(ServerSubscriptionTest, EventThatCannotBeCopiedFailsButTheClientIsSubscribed) {
    FailBoundedCall(Bounded::MEMCPY, 2);  // the first copies the requester's address
    EXPECT_EQ(-1, Subscribe(3, "face"));
    EXPECT_THAT(Errors(), ElementsAre("memcpy_s failed\n", "Process Subscribe face failed\n"));
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
    EXPECT_EQ(0, Unsubscribe(3, "face"));
}

TEST_F(ServerSubscriptionTest, ParameterBufferThatCannotBeClearedFailsTheCommand) {
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, Subscribe(3, "face"));
    EXPECT_THAT(Errors(), ElementsAre("memset_s failed!\n"));
}

// ---- Unsubscribe ----

TEST_F(ServerSubscriptionTest, CancellationReachesTheApplicationWithTheNameOnly) {
    Subscribe(3, "face", 1, 5);
    mLog.Clear();
    EXPECT_EQ(0, Unsubscribe(3, "face"));
    EXPECT_THAT(mApplication.Notifications(),
                ElementsAre(Subscribed(3, "face", 1, 5), Unsubscribed(3, "face")));
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerSubscriptionTest, CancellingWhatWasNotSubscribedFails) {
    Subscribe(4, "face");
    mLog.Clear();
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
    EXPECT_THAT(Errors(), ElementsAre("Client : 3 has not subscribed face service!!\n",
                                      "Process UnSubscribe face failed\n"));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(4, "face")));
}

TEST_F(ServerSubscriptionTest, CancellingAServiceThatIsNotOfferedFails) {
    EXPECT_EQ(-1, Unsubscribe(3, "text"));
    EXPECT_THAT(Errors(),
                ElementsAre("Device can't support text service\n", "Process UnSubscribe text failed\n"));
}

TEST_F(ServerSubscriptionTest, NameOf40CharactersCannotBeCancelled) {
    EXPECT_EQ(-1, Unsubscribe(3, std::string(39, 'n')));
    EXPECT_TRUE(mLog.Has(4, "Device can't support " + std::string(39, 'n') + " service\n"));
    mLog.Clear();
    EXPECT_EQ(-1, Unsubscribe(3, std::string(40, 'n')));
    EXPECT_THAT(Errors(), ElementsAre("strncpy_s serviceName failed, len = 40\n", "ParseJsonCmd failed!\n"));
}

TEST_F(ServerSubscriptionTest, EventThatCannotBeCopiedFailsButTheClientIsUnsubscribed) {
    Subscribe(3, "face");
    mLog.Clear();
    FailBoundedCall(Bounded::MEMCPY, 2);  // the first copies the requester's address
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
    EXPECT_THAT(Errors(), ElementsAre("memcpy_s failed\n", "Process UnSubscribe face failed\n"));
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face")));
}

TEST_F(ServerSubscriptionTest, LastCancellationDoesNotStopTheTransport) {
    FakeTransports transports;
    RequestSetup();
    Connect(3);
    Subscribe(3, "face");
    EXPECT_EQ(0, Unsubscribe(3, "face"));
    EXPECT_EQ(0, transports.next->stops);
}

// ---- Clients that go ----

TEST_F(ServerSubscriptionTest, DestroyCancelsEverySubscriptionInTheOrderOfTheNames) {
    Connect(3);
    Connect(4);
    Subscribe(3, "face");
    Subscribe(4, "face");
    Subscribe(3, "body");
    mLog.Clear();
    EXPECT_EQ(0, Destroy(3));
    EXPECT_THAT(mApplication.Notifications(),
                ElementsAre(Subscribed(3, "face"), Subscribed(4, "face"), Subscribed(3, "body"),
                            Unsubscribed(3, "body"), Unsubscribed(3, "face")));
    EXPECT_EQ(1, mLog.Count(1, "will erase clientID = 3 is stored in body space!\n"));
    EXPECT_EQ(1, mLog.Count(1, "will erase clientID = 3 is stored in face space!\n"));
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
    EXPECT_EQ(0, Unsubscribe(4, "face"));
}

TEST_F(ServerSubscriptionTest, DestroyOfOneOfTwoConnectionsCancelsTheSubscriptions) {
    Connect(3);
    Connect(3);
    Subscribe(3, "face");
    EXPECT_EQ(0, Destroy(3));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face"), Unsubscribed(3, "face")));
}

TEST_F(ServerSubscriptionTest, NameThatCannotBeCopiedFailsTheDestroy) {
    Connect(3);
    Subscribe(3, "body");
    Subscribe(3, "face");
    mLog.Clear();
    FailBoundedCall(Bounded::STRNCPY, 2);
    EXPECT_EQ(-1, Destroy(3));
    EXPECT_THAT(Errors(), ElementsAre("strncpy_s failed\n", "ClearOneServerInfo : 3 failed!!\n"));
    EXPECT_EQ(-1, Unsubscribe(3, "body"));  // it came first
    EXPECT_EQ(0, Unsubscribe(3, "face"));
}

TEST_F(ServerSubscriptionTest, SubscriptionsOfAClientThatNeverConnectedStay) {
    Connect(3);
    Subscribe(4, "face");
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(0, Unsubscribe(4, "face"));
}

TEST_F(ServerSubscriptionTest, ClientThatGoesAfterItsCallbacksWereWithdrawnIsNotReported) {
    Connect(3);
    EXPECT_EQ(0, Subscribe(3, "face"));
    ForgetCallbacks(false, true);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_EQ(1U, mApplication.Notifications().size());
}

// ---- Other commands ----

TEST_F(ServerSubscriptionTest, OtherCommandsReachTheApplicationWhateverItAnswers) {
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("SetMode", "night")));
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerSubscriptionTest, CommandNamesAreComparedExactly) {
    EXPECT_EQ(0, Cmd(3, "Subscribe", "face"));
    EXPECT_EQ(0, Cmd(3, "unsubscribed", "face"));
    EXPECT_THAT(mApplication.Commands(),
                ElementsAre(Command("Subscribe", "face"), Command("unsubscribed", "face")));
}

TEST_F(ServerSubscriptionTest, CommandWithoutAParameterHasAnEmptyOne) {
    EXPECT_EQ(0, mPlatform.Post("Command", R"({"ClientID":3,"cmd":"Reset"})"));
    EXPECT_EQ(0, mPlatform.Post("Command", R"({"ClientID":3,"cmd":"Reset","param":7})"));
    EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("Reset", ""), Command("Reset", "")));
}

TEST_F(ServerSubscriptionTest, ParameterHasUpTo400Characters) {
    EXPECT_EQ(0, Cmd(3, "SetMode", std::string(400, 'p')));
    EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("SetMode", std::string(400, 'p'))));
    EXPECT_EQ(-1, Cmd(3, "SetMode", std::string(401, 'p')));
    EXPECT_THAT(Errors(), ElementsAre("strncpy_s param failed, len = 401\n", "ParseJsonCmd failed!\n"));
    EXPECT_EQ(1U, mApplication.Commands().size());
}

TEST_F(ServerSubscriptionTest, DocumentThatCannotBeReadFails) {
    EXPECT_EQ(-1, mPlatform.Post("Command", "{"));
    EXPECT_THAT(Errors(), ElementsAre("cJSON_Parse failed!\n", "ParseJsonCmd failed!\n"));
    mLog.Clear();
    EXPECT_EQ(-1, mPlatform.Post("Command", R"({"cmd":"SetMode"})"));
    EXPECT_THAT(Errors(), ElementsAre("ParseJsonCmd failed!\n"));
}

TEST_F(ServerSubscriptionTest, CallbackThatThrowsFailsTheRequestAndNothingStaysLocked) {
    mApplication.onCommand = [] { throw std::runtime_error("of the application"); };
    mApplication.onNotify = mApplication.onCommand;
    EXPECT_EQ(-1, Cmd(3, "SetMode", "night"));
    EXPECT_EQ(-1, Subscribe(3, "face"));
    mApplication.onNotify = [] {};
    EXPECT_EQ(0, Unsubscribe(3, "face"));
}

// ---- Without callbacks ----

TEST_F(ServerSubscriptionTest, CommandsWithoutEitherCallbackSucceedAndDoNothing) {
    for (const bool onCommand : {true, false}) {
        ForgetCallbacks(onCommand, !onCommand);
        EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
        EXPECT_EQ(0, Subscribe(3, "face"));
        EXPECT_EQ(0, Unsubscribe(3, "face"));
        EXPECT_THAT(Errors(),
                    ElementsAre("User register mDevInfo error!\n", "User register mDevInfo error!\n",
                                "User register mDevInfo error!\n"));
    }
    EXPECT_THAT(mApplication.Commands(), IsEmpty());
    EXPECT_THAT(mApplication.Notifications(), IsEmpty());
    Register({"face"});
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
}

TEST_F(ServerSubscriptionTest, DocumentIsReadBeforeTheCallbacksAreLookedAt) {
    ForgetCallbacks(true, true);
    EXPECT_EQ(-1, mPlatform.Post("Command", "{"));
    EXPECT_THAT(Errors(), ElementsAre("cJSON_Parse failed!\n", "ParseJsonCmd failed!\n"));
}

class UnregisteredServerTest : public ServerModuleTest {
protected:
    UnregisteredServerTest() {
        Start();
        mLog.Clear();
    }
};

TEST_F(UnregisteredServerTest, CommandsSucceedAndDoNothing) {
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_THAT(Errors(), ElementsAre("User register mDevInfo error!\n", "User register mDevInfo error!\n"));
}

TEST_F(UnregisteredServerTest, ServiceInfoIsEmpty) {
    const Answer answer = mPlatform.Get("ServiceInfo", "asked");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ("", answer.reply);
}

TEST_F(UnregisteredServerTest, DataIsDropped) {
    OpenChannel();
    mToServer.Send(ClientFrame(3, "early"));
    Register({"face"});
    // The transport keeps the callbacks that it was made with.
    mToServer.Send(ClientFrame(3, "late"));
    mToServer.ShutdownSending();
    EXPECT_TRUE(mLog.WaitFor(2, "The server reveived thread exit.\n")) << mLog.Dump();
    EXPECT_THAT(mApplication.Received(), IsEmpty());
}

}  // namespace
}  // namespace lumora_test
