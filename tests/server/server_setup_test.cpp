#include <arpa/inet.h>

#include <cerrno>

#include "tests/server/server_fixture.h"

namespace lumora_test {
namespace {

using lumoraAiModule::TransType;
using testing::ElementsAre;
using testing::IsEmpty;

class ServerSetupTest : public ServerModuleTest {
protected:
    ServerSetupTest() { StartWith({"face"}); }

    bool IsListening() const {
        try {
            RawListener probe(SERVER_PORT);
            return false;
        } catch (const std::runtime_error&) {
            return true;
        }
    }

    // Asks the module itself, whose result is not reduced to yes and no on the way.
    int SetupResult(std::string setup = SetupString()) {
        lumora::LinkDeviceDescriptor::Port port;
        port.SetAddress("127.0.0.1");
        return mModule->OnSetupMediaService(port, setup);
    }
};

// ---- Over a transport that does what the test says ----

class FakeSetupTest : public ServerSetupTest {
protected:
    FakeTransports mTransports;
};

TEST_F(FakeSetupTest, BothDirectionsAreCreatedForTheRequester) {
    const Answer answer = RequestSetup(SetupString(2, 7000), "127.0.0.5");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ("Succ", answer.reply);
    const LUM_DEVICE_INFO_S info = Application::Describe({});
    const auto& directions = mTransports.next->directions;
    ASSERT_EQ(2U, directions.size());
    EXPECT_EQ(TransType::SERVER_RECEIVE, directions[0].type);
    EXPECT_EQ("127.0.0.5", directions[0].address);  // not the one of the setup string
    EXPECT_EQ(7000, directions[0].port);
    EXPECT_EQ(info.OnCommand, directions[0].observer.OnCommand);
    EXPECT_EQ(info.OnEventNotify, directions[0].observer.OnEventNotify);
    EXPECT_EQ(info.OnData, directions[0].observer.OnData);
    EXPECT_EQ(TransType::SERVER_SEND, directions[1].type);
    EXPECT_EQ("127.0.0.5", directions[1].address);
    EXPECT_EQ(7001, directions[1].port);
    EXPECT_EQ(nullptr, directions[1].observer.OnCommand);
    EXPECT_EQ(nullptr, directions[1].observer.OnEventNotify);
    EXPECT_EQ(nullptr, directions[1].observer.OnData);
}

// Nothing checks the range of the port, and any device on the network may send one.
TEST_F(FakeSetupTest, HighestPortIsCountedOnWithoutHarm) {
    EXPECT_EQ("Succ", RequestSetup(SetupString(2, 70000)).reply);
    EXPECT_EQ(70001, mTransports.next->directions.back().port);
    EXPECT_EQ("Succ", RequestSetup(R"({"p":2,"ep":{"addr":"a","port":99999999999}})").reply);
    EXPECT_EQ("Succ", RequestSetup(R"({"p":2,"ep":{"addr":"a","port":-99999999999}})").reply);
}

TEST_F(FakeSetupTest, SuccessIsLoggedAndSelectsTheConnectedDevice) {
    RequestSetup(SetupString(2, 7000), "127.0.0.5");
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("Reveived remote transport info: " + SetupString(2, 7000) + ".\n"));
    EXPECT_EQ(1, mLog.Count(1, "Set connect addr = 127.0.0.5, port = 7000\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(FakeSetupTest, ProtocolOfTheSetupStringIsAskedFor) {
    for (const int protocol : {0, 1, 2, 3, 4, 5}) {
        RequestSetup(SetupString(protocol));
    }
    EXPECT_THAT(mTransports.protocols, ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST_F(FakeSetupTest, FailedReceiveDirectionIsTheResultAndTheTransportStays) {
    mTransports.next->receiveResult = -3;
    EXPECT_EQ(-3, SetupResult());
    EXPECT_THAT(Errors(), ElementsAre("CreateTransports failed!\n"));
    EXPECT_EQ(1U, mTransports.next->directions.size());
    EXPECT_EQ(0, mTransports.next->stops);
    EXPECT_EQ(2, mTransports.next.use_count());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(FakeSetupTest, FailedSendDirectionIsTheResultAndStopsTheTransport) {
    mTransports.next->sendingResult = -4;
    EXPECT_EQ(-4, SetupResult());
    EXPECT_THAT(Errors(), ElementsAre("CreateTransports failed,will stop transport!\n"));
    EXPECT_EQ(1, mTransports.next->stops);
    EXPECT_EQ(2, mTransports.next.use_count());
}

TEST_F(FakeSetupTest, ResultOfStoppingAHalfMadeChannelIsNotLookedAt) {
    mTransports.next->sendingResult = -4;
    mTransports.next->stopResult = -1;
    EXPECT_EQ(-4, SetupResult());
    EXPECT_THAT(Errors(), ElementsAre("CreateTransports failed,will stop transport!\n"));
    mTransports.next->stopResult = 0;
}

TEST_F(FakeSetupTest, FailureLeavesTheConnectedDeviceAsItWas) {
    RequestSetup(SetupString(), "127.0.0.5");
    mTransports.next = std::make_shared<FakeTransport>();
    mTransports.next->sendingResult = -1;
    mLog.Clear();
    const Answer answer = RequestSetup(SetupString(), "127.0.0.6");
    EXPECT_EQ(-1, answer.result);
    EXPECT_EQ(0, mLog.Count(1, "Set connect addr = 127.0.0.6, port = 6666\n"));
    mLog.Clear();
    EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.6", 5683, "viewer"));
    EXPECT_FALSE(mLog.Has(2, "The transport will be destoried while removing device.\n"));
    EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.5", 5683, "viewer"));
    EXPECT_TRUE(mLog.Has(2, "The transport will be destoried while removing device.\n"));
}

TEST_F(FakeSetupTest, NewSetupStopsTheRunningTransportFirst) {
    const auto first = mTransports.next;
    RequestSetup();
    mTransports.next = std::make_shared<FakeTransport>();
    EXPECT_EQ("Succ", RequestSetup().reply);
    EXPECT_EQ(1, first->stops);
    EXPECT_EQ(1, first.use_count());
    EXPECT_EQ(0, mTransports.next->stops);
}

TEST_F(FakeSetupTest, RunningTransportThatDoesNotStopIsKept) {
    const auto first = mTransports.next;
    RequestSetup();
    first->stopResult = -1;
    mTransports.next = std::make_shared<FakeTransport>();
    mLog.Clear();
    EXPECT_EQ(-1, SetupResult());
    EXPECT_THAT(Errors(), ElementsAre("StopTransports failed!\n"));
    EXPECT_THAT(mTransports.next->directions, IsEmpty());
    EXPECT_EQ(2, first.use_count());
    first->stopResult = 0;
}

TEST_F(FakeSetupTest, RunningTransportIsNotTouchedByAStringWithoutAProtocol) {
    RequestSetup();
    EXPECT_EQ(-1, SetupResult("{}"));
    EXPECT_EQ(0, mTransports.next->stops);
    EXPECT_EQ(2, mTransports.next.use_count());
}

TEST_F(FakeSetupTest, RunningTransportIsReplacedByOneThatIsNotServed) {
    const auto first = mTransports.next;
    RequestSetup();
    mTransports.next = nullptr;
    EXPECT_EQ(-1, SetupResult(SetupString(4)));
    EXPECT_EQ(1, first->stops);
    EXPECT_EQ(1, first.use_count());
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
    mTransports.next = std::make_shared<FakeTransport>();
}

TEST_F(FakeSetupTest, StringWithoutAnEndpointSucceedsWithoutTheWordOfSuccess) {
    for (const std::string text : {R"({"p":2})", R"({"p":2,"ep":"x"})", R"({"p":2,"ep":{"addr":"a"}})",
                                   R"({"p":2,"ep":{"addr":"10.0.0.2","port":"6666"}})"}) {
        mLog.Clear();
        mTransports.next = std::make_shared<FakeTransport>();
        const Answer answer = RequestSetup(text);
        EXPECT_EQ(0, answer.result);
        EXPECT_EQ(text, answer.reply);
        EXPECT_THAT(Errors(), ElementsAre("Setup String EROR: " + text + "\n"));
        EXPECT_THAT(mTransports.next->directions, IsEmpty());
        EXPECT_EQ(2, mTransports.next.use_count());  // kept, with no directions
        EXPECT_EQ(0, mTransports.next->stops);
        EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    }
}

// ---- The steps of the factory ----

struct BadProtocol {
    const char* setup;
    const char* error;
};

TEST_F(ServerSetupTest, StringWithoutAUsableProtocolFails) {
    const BadProtocol cases[] = {{"", "root == nullptr\n"},
                                 {"p=2", "root == nullptr\n"},
                                 {"{}", "p == nullptr\n"},
                                 {R"({"p":"2"})", "type is not cJSON_Number \n"},
                                 {R"({"p":6})", "Transports protocol is illegal!\n"},
                                 {R"({"p":-1})", "Transports protocol is illegal!\n"}};
    for (const BadProtocol& bad : cases) {
        mLog.Clear();
        EXPECT_EQ(-1, RequestSetup(bad.setup).result);
        EXPECT_THAT(Errors(), ElementsAre(bad.error, "ParseTransportsProtocol failed!\n"));
        EXPECT_EQ(1, mLog.Count(2, std::string("Reveived remote transport info: ") + bad.setup + ".\n"));
    }
}

TEST_F(ServerSetupTest, ProtocolsZeroFourAndFiveHaveNoTransport) {
    for (const int protocol : {0, 4, 5}) {
        mLog.Clear();
        EXPECT_EQ(-1, RequestSetup(SetupString(protocol)).result);
        EXPECT_THAT(Errors(), ElementsAre("CreateTransportsManager failed!\n"));
    }
    EXPECT_EQ(-1, Send("face", "x"));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n"));
}

TEST_F(ServerSetupTest, ProtocolsOneToThreeAreCarriedOverTcp) {
    for (const int protocol : {1, 2, 3}) {
        RawListener client(CLIENT_PORT);
        EXPECT_EQ("Succ", RequestSetup(SetupString(protocol)).reply) << protocol;
        RawConnection fromServer = client.Accept();
        EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    }
}

// ---- Over real sockets ----

TEST_F(ServerSetupTest, ServerListensAndConnectsBack) {
    OpenChannel();
    EXPECT_TRUE(IsListening());
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
    EXPECT_TRUE(mLog.Has(2, "Start reveived thread success in server.\n"));
    const std::string port = std::to_string(htons(SERVER_PORT));
    EXPECT_TRUE(mLog.Has(2, "After bind socket success, start to listen at port " + port + ".\n"))
        << mLog.Dump();
}

TEST_F(ServerSetupTest, PortThatIsTakenFailsTheSetup) {
    RawListener other(SERVER_PORT);
    RawListener client(CLIENT_PORT);
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ("CreateTransports failed!\n", Errors().back());
    EXPECT_TRUE(mLog.Has(4, "SetupSocket error: " + std::to_string(EADDRINUSE) + "\n")) << mLog.Dump();
    EXPECT_EQ(-1, Send("face", "x"));
    EXPECT_TRUE(mLog.Has(4, "No transport channel created, please connect first.\n"));
}

TEST_F(ServerSetupTest, ClientThatDoesNotListenFailsTheSetupAndEndsTheListening) {
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ("CreateTransports failed,will stop transport!\n", Errors().back());
    EXPECT_TRUE(mLog.Has(4, "SetupSocket error: " + std::to_string(ECONNREFUSED) + "\n")) << mLog.Dump();
    EXPECT_FALSE(IsListening());
    EXPECT_EQ(-1, Send("face", "x"));
    EXPECT_TRUE(mLog.Has(4, "No transport channel created, please connect first.\n"));
    EXPECT_EQ("free", mPlatform.Get("TransStatus").reply);
}

TEST_F(ServerSetupTest, SetupSucceedsAfterFailedOnes) {
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ(-1, RequestSetup(SetupString(5)).result);
    EXPECT_EQ(0, RequestSetup(R"({"p":2})").result);
    OpenChannel();
    EXPECT_EQ(0, Send("face", "x"));
    EXPECT_EQ(ServerFrameBytes("", "face", "x"), ReceiveFrame("", "face", "x"));
}

TEST_F(ServerSetupTest, RequesterWhoseSocketCannotBeMadeFailsTheSetup) {
    FailSystemCall(SystemCall::SOCKET, EMFILE);
    EXPECT_EQ(-1, RequestSetup().result);
    EXPECT_EQ("CreateTransports failed!\n", Errors().back());
    EXPECT_TRUE(mLog.Has(4, "SetupSocket error: " + std::to_string(EMFILE) + "\n")) << mLog.Dump();
}

TEST_F(ServerSetupTest, NewSetupReplacesARunningChannel) {
    OpenChannel();
    RawConnection oldToServer = std::move(mToServer);
    RawConnection oldFromServer = std::move(mFromServer);
    OpenChannel();
    EXPECT_TRUE(oldToServer.SeesEnd());
    EXPECT_TRUE(oldFromServer.SeesEnd());
    mToServer.Send(ClientFrame(3, "new"));
    EXPECT_THAT(mApplication.Received(1), ElementsAre(Data(3, "new")));
    EXPECT_EQ(0, Send("face", "x"));
    EXPECT_EQ(ServerFrameBytes("", "face", "x"), ReceiveFrame("", "face", "x"));
}

TEST_F(ServerSetupTest, NewSetupReplacesOneWithoutConnections) {
    RawListener client(CLIENT_PORT);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("Succ", RequestSetup().reply);
    }
    EXPECT_TRUE(IsListening());
}

TEST_F(ServerSetupTest, ChannelEndsWithStopTransport) {
    OpenChannel();
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    EXPECT_TRUE(mToServer.SeesEnd());
    EXPECT_TRUE(mFromServer.SeesEnd());
    EXPECT_FALSE(IsListening());
    EXPECT_EQ(-1, Send("face", "x"));
    EXPECT_TRUE(mLog.Has(4, "no transport created , please connect first!\n"));
}

TEST_F(ServerSetupTest, ChannelEndsWithTheLastClient) {
    OpenChannel();
    Connect(3);
    EXPECT_EQ(0, Destroy(3));
    EXPECT_TRUE(mFromServer.SeesEnd());
    EXPECT_FALSE(IsListening());
}

TEST_F(ServerSetupTest, ChannelEndsWhenTheClientsDeviceIsRemoved) {
    OpenChannel();
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "127.0.0.1", 5683, "viewer"));
    EXPECT_TRUE(mFromServer.SeesEnd());
    EXPECT_FALSE(IsListening());
}

}  // namespace
}  // namespace lumora_test
