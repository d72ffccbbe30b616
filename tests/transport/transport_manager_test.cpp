#include "transport/transport_manager.h"

#include <gmock/gmock.h>

#include "tests/support/captured_log.h"
#include "tests/support/system_faults.h"
#include "tests/transport/open_transport.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;
using testing::ElementsAre;
using testing::IsEmpty;

class BaseManagerTest : public testing::Test {
protected:
    CapturedLog mLog;
    LumoraTransManager mManager;
    LUM_OBSERVER_S mObserver;
};

TEST_F(BaseManagerTest, OperationsOnlySayThatTheyCannotBeCalled) {
    LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_FREE;
    unsigned int written = 5;
    EXPECT_EQ(0, mManager.CreateTransports(TransType::CLIENT_SEND, "127.0.0.1", 1, mObserver));
    EXPECT_EQ(0, mManager.DestoryTransports());
    EXPECT_EQ(0, mManager.StartTransports(TransType::CLIENT_SEND));
    EXPECT_EQ(0, mManager.StopTransports());
    EXPECT_EQ(0, mManager.GetTransStatus(status));
    EXPECT_EQ(0, mManager.SendData("x", 1, &written, 0));
    EXPECT_THAT(mLog.Texts(1),
                ElementsAre("Can't be called :CreateTransports \n", "Can't be called :DestoryTransports \n",
                            "Can't be called :StartTransports \n", "Can't be called :StopTransports \n",
                            "Can't be called :GetTransStatus \n", "Can't be called :SendData \n"));
    EXPECT_EQ(6U, mLog.Lines().size());
    EXPECT_EQ(LUM_TRANSPORT_STATUS_FREE, status);
    EXPECT_EQ(5U, written);
}

TEST_F(BaseManagerTest, DirectionsHaveTheirNumbers) {
    EXPECT_EQ(1, static_cast<int>(TransType::CLIENT_SEND));
    EXPECT_EQ(2, static_cast<int>(TransType::SERVER_RECEIVE));
    EXPECT_EQ(3, static_cast<int>(TransType::CLIENT_RECEIVE));
    EXPECT_EQ(4, static_cast<int>(TransType::SERVER_SEND));
}

TEST_F(BaseManagerTest, ObserverIsThreeFunctionsInOrder) {
    EXPECT_EQ(3 * sizeof(void*), sizeof(LUM_OBSERVER_S));
    EXPECT_EQ(0U, offsetof(LUM_OBSERVER_S, OnCommand));
    EXPECT_EQ(sizeof(void*), offsetof(LUM_OBSERVER_S, OnEventNotify));
    EXPECT_EQ(2 * sizeof(void*), offsetof(LUM_OBSERVER_S, OnData));
    EXPECT_EQ(nullptr, mObserver.OnCommand);
    EXPECT_EQ(nullptr, mObserver.OnEventNotify);
    EXPECT_EQ(nullptr, mObserver.OnData);
}

class FactoryTest : public testing::Test {
protected:
    ~FactoryTest() override { lumora_test::ResetAllocationFaults(); }

    std::shared_ptr<LumoraTransManager> ForClient(int protocol) {
        mLog.Clear();
        return mFactory->CreateTransportsManager(static_cast<LUM_TRANSPORT_E>(protocol), mCallback, 7);
    }
    std::shared_ptr<LumoraTransManager> ForServer(int protocol) {
        mLog.Clear();
        return mFactory->CreateTransportsManager(static_cast<LUM_TRANSPORT_E>(protocol));
    }
    void ExpectMessages(const std::vector<std::string>& texts) {
        EXPECT_EQ(texts, mLog.Texts(1));
        EXPECT_EQ(texts.size(), mLog.Lines().size());
    }

    CapturedLog mLog;
    lumora_test::RecordingCallback mCallback;
    std::shared_ptr<LumoraTransManagerFactory> mFactory = CreateLumTransManagerFactory();
};

TEST_F(FactoryTest, EveryCallGivesANewFactory) {
    ASSERT_NE(nullptr, mFactory);
    EXPECT_NE(mFactory, CreateLumTransManagerFactory());
    EXPECT_EQ(0, mFactory->DestoryTransportsManager());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(FactoryTest, UdpAndRtpAreCarriedOverTcpAndSaySo) {
    const std::vector<std::string> messages = {"UDP not support, we will use TCP\n",
                                               "RTP not support, we will use TCP\n",
                                               "we will create LumoraTCPTransManager\n"};
    const std::pair<int, int> firstMessages[] = {{1, 0}, {3, 1}, {2, 2}};
    for (const auto& [protocol, first] : firstMessages) {
        const std::vector<std::string> expected(messages.begin() + first, messages.end());
        EXPECT_NE(nullptr, dynamic_cast<LumoraTCPTransClient*>(ForClient(protocol).get()));
        ExpectMessages(expected);
        EXPECT_NE(nullptr, dynamic_cast<LumoraTCPTransServer*>(ForServer(protocol).get()));
        ExpectMessages(expected);
    }
}

TEST_F(FactoryTest, OtherProtocolsGiveNothingAndSayNothing) {
    for (const int protocol : {0, 4, 5, 6, 7}) {
        EXPECT_EQ(nullptr, ForClient(protocol));
        ExpectMessages({});
        EXPECT_EQ(nullptr, ForServer(protocol));
        ExpectMessages({});
    }
}

TEST_F(FactoryTest, LackOfMemoryGivesNothing) {
    lumora_test::FailAllocation(1, lumora_test::ALWAYS);
    const auto factory = CreateLumTransManagerFactory();
    const auto client = mFactory->CreateTransportsManager(LUM_TRANSPORT_TCP, mCallback, 7);
    const auto server = mFactory->CreateTransportsManager(LUM_TRANSPORT_TCP);
    lumora_test::ResetAllocationFaults();
    EXPECT_EQ(nullptr, factory);
    EXPECT_EQ(nullptr, client);
    EXPECT_EQ(nullptr, server);
}

class ParseProtocolTest : public FactoryTest {
protected:
    int Parse(const std::string& text) {
        mLog.Clear();
        const int ret = mFactory->ParseTransportsProtocol(text, mProtocol);
        EXPECT_EQ(1, mLog.Count(1, "setupString.data() = " + text + "\n")) << mLog.Dump();
        return ret;
    }
    void ExpectRefused(const std::string& text, const std::string& message) {
        EXPECT_EQ(-1, Parse(text));
        EXPECT_THAT(mLog.Texts(4), ElementsAre(message)) << text;
        EXPECT_EQ(2U, mLog.Lines().size());
    }

    LUM_TRANSPORT_E mProtocol = LUM_TRANSPORT_NONE;
};

TEST_F(ParseProtocolTest, ReadsTheNumber) {
    EXPECT_EQ(0, Parse("{\"p\":2}"));
    EXPECT_EQ(LUM_TRANSPORT_TCP, mProtocol);
    EXPECT_EQ(1U, mLog.Lines().size());
}

TEST_F(ParseProtocolTest, ReadsAWholeSetupString) {
    EXPECT_EQ(0, Parse("{\"p\":2,\"ep\":{\"addr\":\"192.168.1.20\",\"port\":6666}}"));
    EXPECT_EQ(LUM_TRANSPORT_TCP, mProtocol);
}

TEST_F(ParseProtocolTest, FiveIsTheHighestAndZeroTheLowest) {
    EXPECT_EQ(0, Parse("{\"p\":5}"));
    EXPECT_EQ(LUM_TRANSPORT_RESERVED_5, mProtocol);
    EXPECT_EQ(0, Parse("{\"p\":0}"));
    EXPECT_EQ(LUM_TRANSPORT_NONE, mProtocol);
    ExpectRefused("{\"p\":6}", "Transports protocol is illegal!\n");
    ExpectRefused("{\"p\":-1}", "Transports protocol is illegal!\n");
    ExpectRefused("{\"p\":1e99}", "Transports protocol is illegal!\n");
}

TEST_F(ParseProtocolTest, FractionsAreCutOff) {
    EXPECT_EQ(0, Parse("{\"p\":5.9}"));
    EXPECT_EQ(LUM_TRANSPORT_RESERVED_5, mProtocol);
}

TEST_F(ParseProtocolTest, KeyMayHaveAnyCase) {
    EXPECT_EQ(0, Parse("{\"P\":3}"));
    EXPECT_EQ(LUM_TRANSPORT_RTP, mProtocol);
}

TEST_F(ParseProtocolTest, NumberInQuotesIsRefused) {
    ExpectRefused("{\"p\":\"2\"}", "type is not cJSON_Number \n");
    ExpectRefused("{\"p\":null}", "type is not cJSON_Number \n");
    ExpectRefused("{\"p\":true}", "type is not cJSON_Number \n");
    ExpectRefused("{\"p\":[2]}", "type is not cJSON_Number \n");
}

TEST_F(ParseProtocolTest, MissingNumberIsRefused) {
    ExpectRefused("{\"q\":2}", "p == nullptr\n");
    ExpectRefused("{}", "p == nullptr\n");
    ExpectRefused("[2]", "p == nullptr\n");
    ExpectRefused("2", "p == nullptr\n");
}

TEST_F(ParseProtocolTest, TextThatIsNoJsonIsRefused) {
    ExpectRefused("", "root == nullptr\n");
    ExpectRefused("no JSON", "root == nullptr\n");
    ExpectRefused("{\"p\":2", "root == nullptr\n");
}

TEST(TcpManagersTest, StartingChangesNothing) {
    const CapturedLog log;
    lumora_test::RecordingCallback callback;
    LumoraTCPTransClient client(callback, 1);
    LumoraTCPTransServer server;
    for (int type = 0; type < 6; ++type) {
        EXPECT_EQ(0, client.StartTransports(static_cast<TransType>(type)));
        EXPECT_EQ(0, server.StartTransports(static_cast<TransType>(type)));
    }
    EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(TcpManagersTest, StatusIsAlwaysZero) {
    const CapturedLog log;
    lumora_test::RecordingCallback callback;
    LumoraTCPTransClient client(callback, 1);
    LumoraTCPTransServer server;
    LUM_TRANSPORT_STATUS_E status = LUM_TRANSPORT_STATUS_FREE;
    EXPECT_EQ(0, client.GetTransStatus(status));
    EXPECT_EQ(0, static_cast<int>(status));
    status = LUM_TRANSPORT_STATUS_BUSY;
    EXPECT_EQ(0, server.GetTransStatus(status));
    EXPECT_EQ(0, static_cast<int>(status));
    EXPECT_THAT(log.Texts(1), ElementsAre("mTransStatus :0 \n", "mTransStatus :0 \n"));
}

}  // namespace
}  // namespace lumoraAiModule
