// The module over real sockets, with a peer that plays the client.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ServerChannelTest : public ServerModuleTest {
protected:
    ServerChannelTest() { StartWith({"face", "body"}); }

    // Sends until the channel takes no more, and tells the last result.
    int SendUntilShort(const Bytes& payload) {
        for (int i = 0; i < 200; ++i) {
            const int ret = Send("face", payload);
            if (ret != 0 || mSent < payload.size()) {
                return ret;
            }
        }
        ADD_FAILURE() << "the channel has no end";
        return 0;
    }

    void EndReceiveSide() {
        mToServer.Close();
        ASSERT_TRUE(mLog.WaitFor(2, "The server reveived thread exit.\n")) << mLog.Dump();
    }
};

// ---- To the client ----

TEST_F(ServerChannelTest, FramesArriveByteForByte) {
    OpenChannel();
    Subscribe(3, "face");
    EXPECT_EQ(0, Send("face", "first"));
    EXPECT_EQ(5U, mSent);
    EXPECT_EQ(0, Send("body", Bytes("\0\1\2", 3)));
    EXPECT_EQ(3U, mSent);
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "first"), ReceiveFrame("\x03", "face", "first"));
    EXPECT_EQ(ServerFrameBytes("", "body", Bytes("\0\1\2", 3)), ReceiveFrame("", "body", "123"));
}

TEST_F(ServerChannelTest, LongestPayloadArrives) {
    OpenChannel();
    const Bytes payload(LUM_MAX_SERVER_DATA_LENGTH, 'p');
    Bytes received;
    std::thread client([&] { received = ReceiveFrame("", "face", payload); });
    EXPECT_EQ(0, Send("face", payload));
    client.join();
    EXPECT_EQ(payload.size(), mSent);
    EXPECT_EQ(ServerFrameBytes("", "face", payload), received);
}

TEST_F(ServerChannelTest, SendBeforeTheClientConnectedItsOwnDirectionArrives) {
    RawListener client(CLIENT_PORT);
    ASSERT_EQ("Succ", RequestSetup().reply);
    mFromServer = client.Accept();
    EXPECT_EQ(0, Send("face", "x"));
    EXPECT_EQ(ServerFrameBytes("", "face", "x"), ReceiveFrame("", "face", "x"));
}

TEST_F(ServerChannelTest, SendAfterTheClientsDirectionEndedWritesNothing) {
    OpenChannel();
    EndReceiveSide();
    Send("face", "abc");
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(mFromServer.ReceiveSome(std::chrono::milliseconds(20)), IsEmpty());
}

TEST_F(ServerChannelTest, ClientThatClosedBreaksTheChannelAndNotTheProcess) {
    OpenChannel();
    mFromServer.Reset();
    EXPECT_EQ(-1, SendUntilShort("abc"));
    EXPECT_EQ(0U, mSent);
    EXPECT_TRUE(mLog.Has(4, "SendData will stop transport\n")) << mLog.Dump();
    EXPECT_EQ("PacketAndSendData failed!\n", Errors().back());
    EXPECT_TRUE(mToServer.SeesEnd());
}

TEST_F(ServerChannelTest, StalledClientGetsNoMoreAfterTheBudget) {
    OpenChannel();
    mFromServer.SetReceiveBuffer(4096);
    const Bytes payload(LUM_MAX_SERVER_DATA_LENGTH, 'p');
    EXPECT_EQ(0, SendUntilShort(payload));
    EXPECT_LT(mSent, payload.size());
    EXPECT_EQ(1, mLog.Count(4, "SendData timeout: Resource temporarily unavailable(errno: 11)\n"));
    mLog.Clear();
    EXPECT_EQ(-1, Send("face", "abc"));
    EXPECT_EQ(0U, mSent);
    EXPECT_THAT(Errors(), ElementsAre("No transport channel created, please connect first.\n",
                                      "SendDataToClient failed!\n", "PacketAndSendData failed!\n"));
}

TEST_F(ServerChannelTest, BrokenChannelIsReplacedByANewSetup) {
    OpenChannel();
    EndReceiveSide();
    for (int i = 0; i < 2; ++i) {
        OpenChannel();
        EXPECT_EQ(0, Send("face", "abc"));
        EXPECT_EQ(ServerFrameBytes("", "face", "abc"), ReceiveFrame("", "face", "abc"));
    }
}

// ---- From the client ----

TEST_F(ServerChannelTest, DataReachesTheApplicationWithClientAndPayload) {
    OpenChannel();
    mToServer.Send(ClientFrame(3, "first") + ClientFrame(20, Bytes("\0\1\2", 3)));
    EXPECT_THAT(mApplication.Received(2), ElementsAre(Data(3, "first"), Data(20, Bytes("\0\1\2", 3))));
}

TEST_F(ServerChannelTest, ClientsNeedNotBeConnectedOrSubscribed) {
    OpenChannel();
    mToServer.Send(ClientFrame(255, "x"));
    EXPECT_THAT(mApplication.Received(1), ElementsAre(Data(255, "x")));
}

TEST_F(ServerChannelTest, DataInPiecesArrivesOnce) {
    OpenChannel();
    mToServer.SendInPieces(ClientFrame(3, "first") + ClientFrame(4, "second"), 4);
    EXPECT_THAT(mApplication.Received(2), ElementsAre(Data(3, "first"), Data(4, "second")));
}

TEST_F(ServerChannelTest, LongestPayloadOfAClientArrives) {
    OpenChannel();
    const Bytes payload(LUM_MAX_CLIENT_DATA_LENGTH, 'p');
    mToServer.Send(ClientFrame(3, payload));
    const std::vector<Data> received = mApplication.Received(1);
    ASSERT_EQ(1U, received.size());
    EXPECT_EQ(3, received[0].first);
    EXPECT_TRUE(payload == received[0].second);
}

TEST_F(ServerChannelTest, DataGoesToTheCallbackThatWasRegisteredWhenTheChannelWasMade) {
    OpenChannel();
    LUM_DEVICE_INFO_S info = Application::Describe({"face"});
    info.OnData = nullptr;
    ASSERT_EQ(0, mModule->RegisterLocalDeviceInfo(&info));
    mToServer.Send(ClientFrame(3, "x"));
    EXPECT_THAT(mApplication.Received(1), ElementsAre(Data(3, "x")));
}

// ---- Answers from inside OnData ----

TEST_F(ServerChannelTest, AnswerFromInsideOnDataArrives) {
    OpenChannel();
    Subscribe(3, "face");
    mApplication.onData = [this](int, const Bytes& payload) {
        unsigned int sent = 0;
        const Bytes answer = "re: " + payload;
        EXPECT_EQ(0, mModule->SendDataToClient("face", answer.data(),
                                               static_cast<unsigned int>(answer.size()), &sent, 1000));
        EXPECT_EQ(answer.size(), sent);
    };
    for (const char* question : {"one", "two"}) {
        mToServer.Send(ClientFrame(3, question));
        const Bytes answer = Bytes("re: ") + question;
        EXPECT_EQ(ServerFrameBytes("\x03", "face", answer), ReceiveFrame("\x03", "face", answer));
    }
}

// The channel is being ended while its receive thread is about to answer: neither waits for the other.
class AnswerDuringStopTest : public ServerChannelTest {
protected:
    void Answer(const std::function<void()>& stop) {
        OpenChannel();
        std::atomic<bool> inside{false};
        std::atomic<int> result{1};
        mApplication.onData = [&](int, const Bytes&) {
            inside = true;
            EXPECT_TRUE(mLog.WaitFor(1, "joinable will join.\n"));
            unsigned int sent = 0;
            result = mModule->SendDataToClient("face", "abc", 3, &sent, 1000);
            EXPECT_EQ(0U, sent);
        };
        mLog.Clear();
        mToServer.Send(ClientFrame(3, "question"));
        EXPECT_TRUE(Eventually([&] { return inside.load(); }));
        stop();
        EXPECT_EQ(-1, result);
        mApplication.onData = [](int, const Bytes&) {};
    }
};

TEST_F(AnswerDuringStopTest, StopTransportReturns) {
    Answer([this] { EXPECT_EQ(0, mPlatform.Put("StopTransport")); });
}

TEST_F(AnswerDuringStopTest, LastDestroyReturns) {
    Connect(3);
    Answer([this] { EXPECT_EQ(0, Destroy(3)); });
}

TEST_F(AnswerDuringStopTest, RemovalReturns) {
    Answer([this] { EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer")); });
}

TEST_F(AnswerDuringStopTest, NewSetupReturns) {
    Answer([this] { EXPECT_EQ("Succ", RequestSetup().reply); });
}

TEST_F(AnswerDuringStopTest, ModuleStopReturns) {
    Answer([this] { EXPECT_EQ(0, mModule->DeInitLumoraModule()); });
}

// ---- What a client has sent before it leaves ----

class LastBlocksOfAClientTest : public ServerChannelTest {
protected:
    // The channel ends while the application works on the first block and the others are unread.
    void SendAndEnd(const std::function<void()>& end) {
        OpenChannel();
        std::atomic<bool> inside{false};
        mApplication.onData = [&inside](int, const Bytes&) {
            inside = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        };
        mToServer.Send(ClientFrame(3, "first"));
        EXPECT_TRUE(Eventually([&] { return inside.load(); }));
        for (int i = 0; i < 9; ++i) {
            mToServer.Send(ClientFrame(3, "later"));
        }
        end();
        mApplication.onData = [](int, const Bytes&) {};
    }
};

TEST_F(LastBlocksOfAClientTest, LastDestroyHandsThemOver) {
    Connect(3);
    SendAndEnd([this] { EXPECT_EQ(0, Destroy(3)); });
    EXPECT_EQ(10U, mApplication.Received().size());
}

TEST_F(LastBlocksOfAClientTest, StopTransportHandsThemOver) {
    SendAndEnd([this] { EXPECT_EQ(0, mPlatform.Put("StopTransport")); });
    EXPECT_EQ(10U, mApplication.Received().size());
}

TEST_F(LastBlocksOfAClientTest, RemovalHandsThemOver) {
    SendAndEnd([this] { EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer")); });
    EXPECT_EQ(10U, mApplication.Received().size());
}

TEST_F(LastBlocksOfAClientTest, NewSetupHandsThemOver) {
    SendAndEnd([this] { EXPECT_EQ("Succ", RequestSetup().reply); });
    EXPECT_EQ(10U, mApplication.Received().size());
}

TEST_F(LastBlocksOfAClientTest, EndOfTheDeviceDoesNotWaitForThem) {
    Connect(3);
    SendAndEnd([this] {
        std::thread goodbye([this] { EXPECT_EQ(0, Destroy(3)); });
        EXPECT_TRUE(mLog.WaitFor(1, "joinable will join.\n"));
        EXPECT_EQ(0, mModule->DeInitLumoraModule());
        goodbye.join();
    });
    EXPECT_GT(10U, mApplication.Received().size());
}

}  // namespace
}  // namespace lumora_test
