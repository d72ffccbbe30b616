// Building the command document.
#include "protocol/control_documents.h"

#include <gmock/gmock.h>

#include <cstring>

#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/json_allocations.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;
using testing::ElementsAre;
using testing::IsEmpty;

LUM_SUBSCRIBE_SERVICE_S Subscription(const std::string& name, int dataSource = 0, int transport = 1) {
    LUM_SUBSCRIBE_SERVICE_S subscription = {};
    std::memcpy(subscription.serviceName, name.data(), name.size());
    subscription.dataSource = dataSource;
    subscription.transport = transport;
    return subscription;
}

class CommandDocumentTest : public testing::Test {
protected:
    ~CommandDocumentTest() override { lumora_test::ResetBoundedCalls(); }

    int Build(const char* cmd, const char* param) { return GetJsonCmd(3, cmd, param, mDocument); }
    int BuildSubscription(const LUM_SUBSCRIBE_SERVICE_S& subscription) {
        return Build("subscribe", reinterpret_cast<const char*>(&subscription));
    }
    void ExpectRefused(const LUM_SUBSCRIBE_SERVICE_S& subscription, const std::string& message) {
        mLog.Clear();
        EXPECT_EQ(-1, BuildSubscription(subscription));
        EXPECT_THAT(mLog.Texts(4), ElementsAre(message)) << mLog.Dump();
        EXPECT_EQ("before", mDocument);
    }

    CapturedLog mLog;
    std::string mDocument = "before";
};

TEST_F(CommandDocumentTest, ApplicationCommandIsWrittenToTheLetter) {
    EXPECT_EQ(0, Build("SetMode", "night"));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"SetMode","param":"night"})", mDocument);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(CommandDocumentTest, SubscriptionIsWrittenToTheLetter) {
    EXPECT_EQ(0, BuildSubscription(Subscription("faceDetect")));
    EXPECT_EQ(
        R"({"ClientID":3,"cmd":"subscribe","subscribe":{"Service":"faceDetect","DataSource":0,"TrasType":1}})",
        mDocument);
}

TEST_F(CommandDocumentTest, CancellationCarriesThePlainName) {
    EXPECT_EQ(0, Build("unsubscribe", "faceDetect"));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"unsubscribe","param":"faceDetect"})", mDocument);
}

TEST_F(CommandDocumentTest, EmptyTextsAreWritten) {
    EXPECT_EQ(0, Build("", ""));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"","param":""})", mDocument);
}

TEST_F(CommandDocumentTest, TextsAreEscaped) {
    EXPECT_EQ(0, Build("a\"b", "c\\d\n\x01"));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"a\"b","param":"c\\d\n\u0001"})", mDocument);
}

TEST_F(CommandDocumentTest, NameOfTheCommandIsComparedWithCase) {
    EXPECT_EQ(0, Build("Subscribe", "face"));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"Subscribe","param":"face"})", mDocument);
    EXPECT_EQ(0, Build("subscribe2", "face"));
    EXPECT_EQ(R"({"ClientID":3,"cmd":"subscribe2","param":"face"})", mDocument);
}

TEST_F(CommandDocumentTest, NullCommandIsRefused) {
    EXPECT_EQ(-1, Build(nullptr, "night"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("cmd is null!\n"));
    EXPECT_EQ("before", mDocument);
}

TEST_F(CommandDocumentTest, NullParameterIsRefused) {
    EXPECT_EQ(-1, Build("SetMode", nullptr));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("param is null!\n"));
    EXPECT_EQ("before", mDocument);
}

TEST_F(CommandDocumentTest, NullCommandIsNoticedBeforeNullParameter) {
    EXPECT_EQ(-1, Build(nullptr, nullptr));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("cmd is null!\n"));
}

TEST_F(CommandDocumentTest, SubscriptionWithoutRecordIsRefused) {
    EXPECT_EQ(-1, Build("subscribe", nullptr));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("param is null!\n"));
}

TEST_F(CommandDocumentTest, SubscriptionRecordMayStandAtAnyAddress) {
    const LUM_SUBSCRIBE_SERVICE_S subscription = Subscription("face", 1, 5);
    char bytes[sizeof(subscription) + 1];
    std::memcpy(bytes + 1, &subscription, sizeof(subscription));
    EXPECT_EQ(0, Build("subscribe", bytes + 1));
    EXPECT_EQ(
        R"({"ClientID":3,"cmd":"subscribe","subscribe":{"Service":"face","DataSource":1,"TrasType":5}})",
        mDocument);
}

TEST_F(CommandDocumentTest, SubscriptionRecordIsReadWithoutABoundedCopy) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY);
    EXPECT_EQ(0, BuildSubscription(Subscription("face")));
    lumora_test::ResetBoundedCalls();
}

TEST_F(CommandDocumentTest, SubscriptionWithoutServiceNameIsRefused) {
    ExpectRefused(Subscription(""), "ERROR:subscribe serviceName length illegal.\n");
}

TEST_F(CommandDocumentTest, ServiceNameOfOneCharacterIsWritten) {
    EXPECT_EQ(0, BuildSubscription(Subscription("f")));
    EXPECT_THAT(mDocument, testing::HasSubstr(R"("Service":"f",)"));
}

TEST_F(CommandDocumentTest, ServiceNameThatFillsItsFieldIsWritten) {
    const std::string name(40, 'n');
    EXPECT_EQ(0, BuildSubscription(Subscription(name))) << mLog.Dump();
    EXPECT_EQ(R"({"ClientID":3,"cmd":"subscribe","subscribe":{"Service":")" + name +
                  R"(","DataSource":0,"TrasType":1}})",
              mDocument);
}

TEST_F(CommandDocumentTest, ServiceNameThatRunsIntoTheNextFieldIsRefused) {
    LUM_SUBSCRIBE_SERVICE_S subscription;
    std::memset(&subscription, 'n', sizeof(subscription));
    ExpectRefused(subscription, "ERROR:subscribe serviceName length illegal.\n");
}

TEST_F(CommandDocumentTest, DataSourcesAreZeroAndOne) {
    EXPECT_EQ(0, BuildSubscription(Subscription("face", 0)));
    EXPECT_EQ(0, BuildSubscription(Subscription("face", 1)));
    mDocument = "before";
    for (const int dataSource : {-1, 2, -2147483647 - 1, 2147483647}) {
        ExpectRefused(Subscription("face", dataSource), "ERROR:dataSource illegal.\n");
    }
}

TEST_F(CommandDocumentTest, TransportsAreZeroToFive) {
    for (int transport = 0; transport <= 5; ++transport) {
        EXPECT_EQ(0, BuildSubscription(Subscription("face", 0, transport)));
    }
    mDocument = "before";
    for (const int transport : {-1, 6, -2147483647 - 1, 2147483647}) {
        ExpectRefused(Subscription("face", 0, transport), "ERROR:transport illegal.\n");
    }
}

TEST_F(CommandDocumentTest, FieldsAreCheckedInTheOrderOfTheRecord) {
    ExpectRefused(Subscription("", 2, 6), "ERROR:subscribe serviceName length illegal.\n");
    ExpectRefused(Subscription("face", 2, 6), "ERROR:dataSource illegal.\n");
}

TEST_F(CommandDocumentTest, LackOfMemoryFailsWithoutALeak) {
    const int failures =
        lumora_test::WithEachJsonAllocationFailing([&] { return Build("SetMode", "night"); },
                                                   [&](int n, int result, int live) {
                                                       EXPECT_EQ(-1, result) << "allocation " << n;
                                                       EXPECT_EQ(0, live) << "allocation " << n;
                                                       EXPECT_EQ("before", mDocument) << "allocation " << n;
                                                   });
    EXPECT_GE(failures, 10);  // a node, a key and a text per member, and the printed document
}

TEST_F(CommandDocumentTest, LackOfMemoryForTheRootIsLogged) {
    lumora_test::JsonAllocations memory;
    memory.Fail(1);
    EXPECT_EQ(-1, Build("SetMode", "night"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("cJSON_CreateObject failed\n"));
}

TEST_F(CommandDocumentTest, LackOfMemoryForASubscriptionFailsWithoutALeak) {
    const LUM_SUBSCRIBE_SERVICE_S subscription = Subscription("faceDetect");
    int logged = 0;
    const int failures =
        lumora_test::WithEachJsonAllocationFailing([&] { return BuildSubscription(subscription); },
                                                   [&](int n, int result, int live) {
                                                       EXPECT_EQ(-1, result) << "allocation " << n;
                                                       EXPECT_EQ(0, live) << "allocation " << n;
                                                       logged += mLog.Count(4, "cJSON_CreateObject failed\n");
                                                       mLog.Clear();
                                                   });
    EXPECT_GE(failures, 15);
    EXPECT_GE(logged, 2);  // the root, and the subscription
}

TEST_F(CommandDocumentTest, LackOfMemoryForTheTextLeaksNoTree) {
    lumora_test::JsonAllocations memory;
    lumora_test::FailAllocation(1, lumora_test::ALWAYS);
    EXPECT_THROW(GetJsonCmd(3, "SetMode", "a parameter that does not fit into a short text", mDocument),
                 std::bad_alloc);
    lumora_test::ResetAllocationFaults();
    EXPECT_EQ(0, memory.Live());
}

TEST(SetupReplyTest, SaysSuccAloneOrWithAnAnswer) {
    EXPECT_EQ("Succ", SetupReply(""));
    EXPECT_EQ(R"({"r":"Succ","sec":{"v":1}})", SetupReply(R"({"v":1})"));
}

TEST(SetupReplyTest, AnswerIsReadBack) { EXPECT_EQ(R"({"v":1})", AnswerInReply(SetupReply(R"({"v":1})"))); }

TEST(SetupReplyTest, OtherRepliesHaveNoAnswer) {
    for (const char* reply :
         {"", "Succ", "[]", "5", R"({"r":"Succ"})", R"({"sec":{}})", R"({"r":"no","sec":{}})",
          R"({"r":1,"sec":{}})", R"({"r":"Succ","sec":"text"})"}) {
        EXPECT_EQ("", AnswerInReply(reply)) << reply;
    }
}

}  // namespace
}  // namespace lumoraAiModule
