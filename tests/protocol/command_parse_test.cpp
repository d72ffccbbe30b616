// Reading the command document.
#include <gmock/gmock.h>

#include <climits>
#include <cstring>

#include "protocol/control_documents.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/json_allocations.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;
using testing::ElementsAre;
using testing::IsEmpty;

std::string Command(const std::string& cmd, const std::string& param) {
    return R"({"ClientID":3,"cmd":")" + cmd + R"(","param":")" + param + R"("})";
}

std::string Subscribe(const std::string& members) {
    return R"({"ClientID":3,"cmd":"subscribe","subscribe":{)" + members + "}}";
}

class CommandParseTest : public testing::Test {
protected:
    CommandParseTest() { std::memset(&mParam, 0, sizeof(mParam)); }
    ~CommandParseTest() override { lumora_test::ResetBoundedCalls(); }

    int Parse(const std::string& document) {
        mLog.Clear();
        return ParseJsonCmd(document, &mClientID, &mCmd, &mParam);
    }
    void ExpectAccepted(const std::string& document, const std::string& param) {
        EXPECT_EQ(0, Parse(document)) << document << mLog.Dump();
        EXPECT_STREQ(param.c_str(), mParam.text) << document;
        EXPECT_THAT(mLog.Lines(), IsEmpty()) << document;
    }
    // Fails with this message at level 4, and no other.
    void ExpectRefused(const std::string& document, const std::string& message) {
        EXPECT_EQ(-1, Parse(document)) << document;
        EXPECT_THAT(mLog.Texts(4), ElementsAre(message)) << document;
        EXPECT_EQ(1U, mLog.Lines().size()) << document << mLog.Dump();
    }
    void ExpectRefusedSilently(const std::string& document) {
        EXPECT_EQ(-1, Parse(document)) << document;
        EXPECT_THAT(mLog.Lines(), IsEmpty()) << document << mLog.Dump();
    }

    CapturedLog mLog;
    int mClientID = -7;
    std::string mCmd = "before";
    CommandParam mParam;
};

TEST_F(CommandParseTest, ApplicationCommandArrivesWhole) {
    ExpectAccepted(R"({"ClientID":3,"cmd":"SetMode","param":"night"})", "night");
    EXPECT_EQ(3, mClientID);
    EXPECT_EQ("SetMode", mCmd);
}

TEST_F(CommandParseTest, KeysAreMatchedWithoutRegardToCase) {
    ExpectAccepted(R"({"clientid":5,"CMD":"Hello","PARAM":"x"})", "x");
    EXPECT_EQ(5, mClientID);
    EXPECT_EQ("Hello", mCmd);
}

TEST_F(CommandParseTest, SubscriptionArrivesWhole) {
    EXPECT_EQ(0, Parse(R"({"ClientID":3,"cmd":"subscribe","subscribe":)"
                       R"({"Service":"faceDetect","DataSource":0,"TrasType":1}})"));
    EXPECT_EQ("subscribe", mCmd);
    EXPECT_STREQ("faceDetect", mParam.subscription.serviceName);
    EXPECT_EQ(0, mParam.subscription.dataSource);
    EXPECT_EQ(1, mParam.subscription.transport);
}

TEST_F(CommandParseTest, KeysOfASubscriptionAreMatchedWithoutRegardToCase) {
    EXPECT_EQ(0, Parse(R"({"CLIENTID":3,"Cmd":"subscribe","SUBSCRIBE":)"
                       R"({"service":"face","datasource":1,"TRASTYPE":5}})"));
    EXPECT_STREQ("face", mParam.subscription.serviceName);
    EXPECT_EQ(1, mParam.subscription.dataSource);
    EXPECT_EQ(5, mParam.subscription.transport);
}

TEST_F(CommandParseTest, CancellationArrivesAsAServiceName) {
    EXPECT_EQ(0, Parse(R"({"ClientID":3,"cmd":"unsubscribe","param":"faceDetect"})"));
    EXPECT_EQ("unsubscribe", mCmd);
    EXPECT_STREQ("faceDetect", mParam.subscription.serviceName);
    EXPECT_EQ(0, mParam.subscription.dataSource);
    EXPECT_EQ(0, mParam.subscription.transport);
}

TEST_F(CommandParseTest, WhatIsBuiltIsRead) {
    LUM_SUBSCRIBE_SERVICE_S subscription = {"bodyTrack", 1, 4};
    std::string document;
    ASSERT_EQ(0, GetJsonCmd(20, "subscribe", reinterpret_cast<const char*>(&subscription), document));
    EXPECT_EQ(0, Parse(document));
    EXPECT_EQ(20, mClientID);
    EXPECT_EQ(0, std::memcmp(mParam.subscription.serviceName, "bodyTrack", sizeof("bodyTrack")));
    EXPECT_EQ(1, mParam.subscription.dataSource);
    EXPECT_EQ(4, mParam.subscription.transport);
}

TEST_F(CommandParseTest, WhatIsNoDocumentIsRefused) {
    for (const char* text : {"", " ", "{", "night", R"({"cmd":)", R"({"ClientID":3,"cmd":"a")", "{]}",
                             R"({"ClientID":NaN,"cmd":"a"})", R"({"ClientID":nan,"cmd":"a"})",
                             R"({"ClientID":Infinity,"cmd":"a"})", R"({"ClientID":-,"cmd":"a"})"}) {
        ExpectRefused(text, "cJSON_Parse failed!\n");
    }
    EXPECT_EQ(-7, mClientID);
    EXPECT_EQ("before", mCmd);
}

TEST_F(CommandParseTest, TooDeepNestingIsRefused) {
    const std::string open(100000, '[');
    ExpectRefused(open, "cJSON_Parse failed!\n");
    ExpectRefused(R"({"ClientID":3,"cmd":"a","x":)" + open + std::string(100000, ']') + "}",
                  "cJSON_Parse failed!\n");
}

TEST_F(CommandParseTest, NestingThatFitsAValueIsReadOver) {
    const std::string nested = std::string(450, '[') + std::string(450, ']');
    ExpectAccepted(R"({"x":)" + nested + R"(,"ClientID":3,"cmd":"a","param":"p"})", "p");
}

TEST_F(CommandParseTest, DocumentsWithoutClientOrCommandFailWithoutAMessage) {
    for (const char* text : {"[]", "{}", "3", "null", "true", R"("cmd")", R"(["cmd",3])", "[[[[]]]]",
                             R"({"ClientID":3,"param":"x"})", R"({"cmd":"a","param":"x"})"}) {
        ExpectRefusedSilently(text);
    }
}

TEST_F(CommandParseTest, CommandOfAWrongTypeFailsWithoutAMessage) {
    for (const char* cmd : {"3", "null", "true", "[]", "{}", R"(["a"])"}) {
        ExpectRefusedSilently(R"({"ClientID":3,"cmd":)" + std::string(cmd) + R"(,"param":"x"})");
    }
}

TEST_F(CommandParseTest, ClientOfAWrongTypeFailsWithoutAMessage) {
    for (const char* client : {R"("3")", "null", "true", "[]", "{}", "[3]"}) {
        ExpectRefusedSilently(R"({"ClientID":)" + std::string(client) + R"(,"cmd":"a","param":"x"})");
    }
    EXPECT_EQ(-7, mClientID);
    EXPECT_EQ("before", mCmd);
}

TEST_F(CommandParseTest, HugeClientNumbersAreReadAsTheNearestInteger) {
    const std::pair<const char*, int> numbers[] = {{"4294967296", INT_MAX},
                                                   {"1e308", INT_MAX},
                                                   {"1e999", INT_MAX},
                                                   {"-1e999", INT_MIN},
                                                   {"-3", -3},
                                                   {"2.9", 2},
                                                   {"1e-300", 0}};
    for (const auto& number : numbers) {
        EXPECT_EQ(0, Parse(R"({"ClientID":)" + std::string(number.first) + R"(,"cmd":"a"})"));
        EXPECT_EQ(number.second, mClientID) << number.first;
    }
}

TEST_F(CommandParseTest, MissingParameterIsEmpty) {
    ExpectAccepted(R"({"ClientID":3,"cmd":"Hello"})", "");
    ExpectAccepted(R"({"ClientID":3,"cmd":"unsubscribe"})", "");
}

TEST_F(CommandParseTest, ParameterOfAWrongTypeIsEmpty) {
    for (const char* param : {"3", "null", "true", "[]", "{}", R"(["x"])"}) {
        ExpectAccepted(R"({"ClientID":3,"cmd":"Hello","param":)" + std::string(param) + "}", "");
        ExpectAccepted(R"({"ClientID":3,"cmd":"unsubscribe","param":)" + std::string(param) + "}", "");
    }
}

TEST_F(CommandParseTest, ParameterHas400CharactersAtMostAndACancelledName39) {
    const auto text = [](std::size_t length) { return std::string(length, 'p'); };
    ExpectAccepted(Command("Hello", text(400)), text(400));
    ExpectRefused(Command("Hello", text(401)), "strncpy_s param failed, len = 401\n");
    ExpectAccepted(Command("unsubscribe", text(39)), text(39));
    ExpectRefused(Command("unsubscribe", text(40)), "strncpy_s serviceName failed, len = 40\n");
    ExpectRefused(Command("unsubscribe", text(401)), "strncpy_s serviceName failed, len = 401\n");
}

TEST_F(CommandParseTest, ParameterIsNeverReadAsASubscription) {
    ExpectAccepted(R"({"ClientID":3,"cmd":"Subscribe","param":"x","subscribe":3})", "x");
}

TEST_F(CommandParseTest, EscapedNulEndsAText) {
    ExpectAccepted(R"({"ClientID":3,"cmd":"Hel\u0000lo","param":"ni\u0000ght"})", "ni");
    EXPECT_EQ("Hel", mCmd);
}

TEST_F(CommandParseTest, FirstOfEqualKeysCounts) {
    ExpectAccepted(R"({"ClientID":3,"clientid":4,"cmd":"a","CMD":"b","param":"x","Param":"y"})", "x");
    EXPECT_EQ(3, mClientID);
    EXPECT_EQ("a", mCmd);
}

TEST_F(CommandParseTest, SubscriptionWithoutItsObjectIsRefused) {
    const std::string message = "cJSON_GetObjectItem service failed\n";
    ExpectRefused(R"({"ClientID":3,"cmd":"subscribe"})", message);
    ExpectRefused(R"({"ClientID":3,"cmd":"subscribe","param":"face"})", message);
    for (const char* object : {"3", "null", "true", "[]", R"("face")"}) {
        ExpectRefused(R"({"ClientID":3,"cmd":"subscribe","subscribe":)" + std::string(object) + "}", message);
    }
}

TEST_F(CommandParseTest, SubscriptionWithAMissingMemberIsRefused) {
    const std::string message = "cJSON_GetObjectItem  failed\n";
    ExpectRefused(Subscribe(""), message);
    ExpectRefused(Subscribe(R"("DataSource":0,"TrasType":1)"), message);
    ExpectRefused(Subscribe(R"("Service":"face","TrasType":1)"), message);
    ExpectRefused(Subscribe(R"("Service":"face","DataSource":0)"), message);
}

TEST_F(CommandParseTest, CorrectedSpellingOfTheTransportIsNotUnderstood) {
    ExpectRefused(Subscribe(R"("Service":"face","DataSource":0,"TransType":1)"),
                  "cJSON_GetObjectItem  failed\n");
}

TEST_F(CommandParseTest, SubscriptionWithAMemberOfAWrongTypeIsRefused) {
    const std::string message = "cJSON_GetObjectItem  failed\n";
    for (const std::string wrong : {"null", "true", "[]", "{}"}) {
        ExpectRefused(Subscribe(R"("Service":)" + wrong + R"(,"DataSource":0,"TrasType":1)"), message);
        ExpectRefused(Subscribe(R"("Service":"face","DataSource":)" + wrong + R"(,"TrasType":1)"), message);
        ExpectRefused(Subscribe(R"("Service":"face","DataSource":0,"TrasType":)" + wrong), message);
    }
    ExpectRefused(Subscribe(R"("Service":7,"DataSource":0,"TrasType":1)"), message);
    ExpectRefused(Subscribe(R"("Service":"face","DataSource":"0","TrasType":1)"), message);
    ExpectRefused(Subscribe(R"("Service":"face","DataSource":0,"TrasType":"1")"), message);
}

TEST_F(CommandParseTest, SubscribedNameOf39CharactersIsAccepted) {
    const std::string name(39, 'n');
    EXPECT_EQ(0, Parse(Subscribe(R"("Service":")" + name + R"(","DataSource":0,"TrasType":1)")));
    EXPECT_STREQ(name.c_str(), mParam.subscription.serviceName);
}

TEST_F(CommandParseTest, SubscribedNameOf40CharactersIsRefused) {
    ExpectRefused(Subscribe(R"("Service":")" + std::string(40, 'n') + R"(","DataSource":0,"TrasType":1)"),
                  "strncpy_s failed\n");
}

TEST_F(CommandParseTest, SubscribedTransportsAreZeroToFive) {
    for (const char* transport : {"0", "5"}) {
        EXPECT_EQ(0,
                  Parse(Subscribe(R"("Service":"f","DataSource":0,"TrasType":)" + std::string(transport))));
    }
    for (const char* transport : {"-1", "6", "1e99", "-1e999", "4294967296"}) {
        ExpectRefused(Subscribe(R"("Service":"f","DataSource":0,"TrasType":)" + std::string(transport)),
                      "transport is illegal!\n");
    }
}

TEST_F(CommandParseTest, SubscribedDataSourcesAreZeroAndOneUnderTheTransportsMessage) {
    for (const char* source : {"0", "1"}) {
        EXPECT_EQ(0, Parse(Subscribe(R"("Service":"f","TrasType":1,"DataSource":)" + std::string(source))));
    }
    for (const char* source : {"-1", "2", "1e99", "-1e999", "4294967297"}) {
        ExpectRefused(Subscribe(R"("Service":"f","TrasType":1,"DataSource":)" + std::string(source)),
                      "transport is illegal!\n");
    }
}

TEST_F(CommandParseTest, NameOfASubscriptionIsCopiedBeforeItsNumbersAreChecked) {
    ExpectRefused(Subscribe(R"("Service":")" + std::string(40, 'n') + R"(","DataSource":9,"TrasType":9)"),
                  "strncpy_s failed\n");
}

TEST_F(CommandParseTest, CopiesThatFailFailTheCommand) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::STRNCPY);
    ExpectRefused(Command("Hello", "night"), "strncpy_s param failed, len = 5\n");
    lumora_test::FailBoundedCall(lumora_test::Bounded::STRNCPY);
    ExpectRefused(Command("unsubscribe", "face"), "strncpy_s serviceName failed, len = 4\n");
    lumora_test::FailBoundedCall(lumora_test::Bounded::STRNCPY);
    ExpectRefused(Subscribe(R"("Service":"face","DataSource":0,"TrasType":1)"), "strncpy_s failed\n");
}

TEST_F(CommandParseTest, NoPathLeaksTheTree) {
    lumora_test::JsonAllocations memory;
    const std::string documents[] = {"{]}",
                                     "{}",
                                     Command("a", "b"),
                                     Command("a", std::string(401, 'p')),
                                     Command("unsubscribe", "face"),
                                     Command("unsubscribe", std::string(40, 'n')),
                                     Subscribe(""),
                                     Subscribe(R"("Service":"face","DataSource":2,"TrasType":1)"),
                                     Subscribe(R"("Service":"face","DataSource":0,"TrasType":1)")};
    for (const std::string& document : documents) {
        Parse(document);
        EXPECT_EQ(0, memory.Live()) << document;
    }
}

TEST_F(CommandParseTest, LackOfMemoryIsAFailedParse) {
    const std::string document = Subscribe(R"("Service":"face","DataSource":0,"TrasType":1)");
    const int failures = lumora_test::WithEachJsonAllocationFailing(
        [&] { return Parse(document); },
        [&](int n, int result, int live) {
            EXPECT_EQ(-1, result) << "allocation " << n;
            EXPECT_EQ(0, live) << "allocation " << n;
            EXPECT_THAT(mLog.Texts(4), ElementsAre("cJSON_Parse failed!\n")) << "allocation " << n;
        });
    EXPECT_GE(failures, 10);
}

TEST_F(CommandParseTest, SubscriptionIsLookedUpUnderTheNameOfTheCommand) {
    const lumora::JsonTree root =
        lumora::ParseJson(R"({"join":{"Service":"f","DataSource":1,"TrasType":2}})");
    EXPECT_EQ(0, ParseSubscribeJson(root.get(), "join", &mParam.subscription));
    EXPECT_EQ(2, mParam.subscription.transport);
    EXPECT_EQ(-1, ParseSubscribeJson(root.get(), "subscribe", &mParam.subscription));
}

}  // namespace
}  // namespace lumoraAiModule
