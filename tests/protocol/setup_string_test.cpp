#include "protocol/setup_string.h"

#include <cjson/cJSON.h>
#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <cstdlib>

#include "tests/support/captured_log.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using testing::IsEmpty;

class TransportConfigTest : public testing::Test {
protected:
    void ExpectRefused(const std::string& text, const std::vector<std::string>& messages) {
        LumoraTransportConfig config;
        config.SetEndpoint("1.2.3.4", 5);
        mLog.Clear();
        EXPECT_EQ(0, config.ParseSetupString(text));
        EXPECT_EQ(messages, mLog.Texts(1)) << text;
        EXPECT_EQ(messages.size(), mLog.Lines().size());
        EXPECT_EQ("1.2.3.4", config.GetAddr());
        EXPECT_EQ(5, config.GetPort());
    }
    int Parse(const std::string& text) { return mConfig.ParseSetupString(text); }

    CapturedLog mLog;
    LumoraTransportConfig mConfig;
};

TEST_F(TransportConfigTest, StartsWithAddressAndPortZero) {
    EXPECT_EQ("0", mConfig.GetAddr());
    EXPECT_EQ(0, mConfig.GetPort());
    EXPECT_EQ("{\"p\":2,\"ep\":{\"addr\":\"0\",\"port\":0}}", mConfig.GetSetupString());
}

TEST_F(TransportConfigTest, TextNamesProtocolAndEndpointInOrder) {
    mConfig.SetEndpoint("192.168.1.20", 6666);
    EXPECT_EQ(6666, mConfig.GetPort());
    EXPECT_EQ("{\"p\":2,\"ep\":{\"addr\":\"192.168.1.20\",\"port\":6666}}", mConfig.GetSetupString());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(TransportConfigTest, TextIsReadBack) {
    LumoraTransportConfig written;
    written.SetEndpoint("with \"quotes\"", INT_MAX);
    EXPECT_EQ(1, Parse(written.GetSetupString()));
    EXPECT_EQ("with \"quotes\"", mConfig.GetAddr());
    EXPECT_EQ(INT_MAX, mConfig.GetPort());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(TransportConfigTest, PortsRangeIsNotChecked) {
    EXPECT_EQ(1, Parse("{\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":70000}}"));
    EXPECT_EQ(70000, mConfig.GetPort());
    EXPECT_EQ(1, Parse("{\"p\":2,\"ep\":{\"addr\":\"\",\"port\":-1}}"));
    EXPECT_EQ(-1, mConfig.GetPort());
    EXPECT_EQ("", mConfig.GetAddr());
}

TEST_F(TransportConfigTest, ProtocolsValueIsNotChecked) {
    EXPECT_EQ(1, Parse("{\"p\":99,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":5000}}"));
    EXPECT_EQ("10.0.0.2", mConfig.GetAddr());
}

TEST_F(TransportConfigTest, KeysMayHaveAnyCaseAndOrder) {
    EXPECT_EQ(1, Parse("{\"EP\":{\"Port\":5000,\"ADDR\":\"10.0.0.2\",\"x\":1},\"P\":2}"));
    EXPECT_EQ("10.0.0.2", mConfig.GetAddr());
    EXPECT_EQ(5000, mConfig.GetPort());
}

TEST_F(TransportConfigTest, TextThatIsNoJsonIsRefused) {
    ExpectRefused("no JSON", {"root == nullptr, setupString=  no JSON\n"});
    ExpectRefused("", {"root == nullptr, setupString=  \n"});
    ExpectRefused("{\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":5000}",
                  {"root == nullptr, setupString=  {\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":5000}\n"});
}

TEST_F(TransportConfigTest, MissingProtocolIsRefused) {
    ExpectRefused("{\"ep\":{\"addr\":\"10.0.0.2\",\"port\":5000}}", {"p == nullptr\n"});
    ExpectRefused("{}", {"p == nullptr\n"});
    ExpectRefused("[1]", {"p == nullptr\n"});
}

TEST_F(TransportConfigTest, ProtocolThatIsNoNumberIsRefusedBeforeTheEndpoint) {
    ExpectRefused("{\"p\":\"2\",\"ep\":{}}", {"type is not cJSON_Number = 16\n"});
    ExpectRefused("{\"p\":{}}", {"type is not cJSON_Number = 64\n"});
}

TEST_F(TransportConfigTest, MissingEndpointIsRefused) { ExpectRefused("{\"p\":2}", {"ep == nullptr\n"}); }

TEST_F(TransportConfigTest, EndpointThatIsNoObjectIsRefused) {
    ExpectRefused("{\"p\":2,\"ep\":\"10.0.0.2:5000\"}", {"type is not cJSON_Object \n"});
    ExpectRefused("{\"p\":2,\"ep\":[]}", {"type is not cJSON_Object \n"});
}

TEST_F(TransportConfigTest, WrongTypesInTheEndpointAreBothReported) {
    ExpectRefused("{\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":\"5000\"}}",
                  {"addr->type = 16\n", "port->type = 16\n"});
    ExpectRefused("{\"p\":2,\"ep\":{\"addr\":10,\"port\":5000}}", {"addr->type = 8\n", "port->type = 8\n"});
    ExpectRefused("{\"p\":2,\"ep\":{\"addr\":{},\"port\":5000}}", {"addr->type = 64\n", "port->type = 8\n"});
}

TEST_F(TransportConfigTest, MissingMembersOfTheEndpointHaveTypeZero) {
    ExpectRefused("{\"p\":2,\"ep\":{}}", {"addr->type = 0\n", "port->type = 0\n"});
    ExpectRefused("{\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\"}}", {"addr->type = 16\n", "port->type = 0\n"});
    ExpectRefused("{\"p\":2,\"ep\":{\"port\":5000}}", {"addr->type = 0\n", "port->type = 8\n"});
}

// cJSON allocates by functions that a program may replace: these fail from the n-th call on.
std::atomic<int> g_jsonAllocationsLeft{0};
std::atomic<int> g_jsonAllocationsAlive{0};

void* AllocateSome(size_t size) {
    if (g_jsonAllocationsLeft-- <= 0) {
        return nullptr;
    }
    ++g_jsonAllocationsAlive;
    return std::malloc(size);
}

void Free(void* memory) {
    g_jsonAllocationsAlive -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

TEST_F(TransportConfigTest, OfferIsTheLastMember) {
    mConfig.SetEndpoint("10.0.0.2", 5000);
    mConfig.SetOffer(R"({"v":1})");
    EXPECT_EQ(R"({"p":2,"ep":{"addr":"10.0.0.2","port":5000},"sec":{"v":1}})", mConfig.GetSetupString());
}

TEST_F(TransportConfigTest, StringWithAnOfferIsReadAsOneWithout) {
    EXPECT_EQ(1, Parse(R"({"p":2,"ep":{"addr":"10.0.0.2","port":5000},"sec":{"v":1}})"));
    EXPECT_EQ(5000, mConfig.GetPort());
}

TEST(TakeOfferTest, OfferIsTakenOutAndTheRestIsAsItWasWithout) {
    std::string text = R"({"p":2,"ep":{"addr":"10.0.0.2","port":5000},"sec":{"v":1,"k":"x"}})";
    EXPECT_EQ(R"({"v":1,"k":"x"})", TakeOffer(text));
    EXPECT_EQ(R"({"p":2,"ep":{"addr":"10.0.0.2","port":5000}})", text);
}

TEST(TakeOfferTest, StringWithoutAnOfferStays) {
    for (const std::string whole : {"", "no document", "[]", "5", R"({ "p" : 2 })", R"({ "sec" : 5 })",
                                    R"({ "SEC" : {} })", R"({ "sec" : [] })"}) {
        std::string text = whole;
        EXPECT_EQ("", TakeOffer(text));
        EXPECT_EQ(whole, text);
    }
}

class ShortOfMemoryTest : public TransportConfigTest {
protected:
    ShortOfMemoryTest() {
        cJSON_Hooks hooks = {&AllocateSome, &Free};
        cJSON_InitHooks(&hooks);
        mConfig.SetEndpoint("10.0.0.2", 5000);
    }
    ~ShortOfMemoryTest() override { cJSON_InitHooks(nullptr); }

    static constexpr int ENOUGH = 1000;
};

TEST_F(ShortOfMemoryTest, TextIsEmptyWhicheverAllocationFails) {
    g_jsonAllocationsLeft = ENOUGH;
    const std::string whole = mConfig.GetSetupString();
    const int needed = ENOUGH - g_jsonAllocationsLeft;
    ASSERT_LT(5, needed);
    for (int enough = 0; enough < needed; ++enough) {
        g_jsonAllocationsLeft = enough;
        const std::string text = mConfig.GetSetupString();
        EXPECT_TRUE(text.empty() || text == whole) << enough << " " << text;
        EXPECT_EQ(0, g_jsonAllocationsAlive);
        EXPECT_TRUE(enough > 0 || text.empty());
    }
}

TEST_F(ShortOfMemoryTest, ParsingFreesWhatItTook) {
    const std::string text = "{\"p\":2,\"ep\":{\"addr\":\"10.0.0.2\",\"port\":5000}}";
    g_jsonAllocationsLeft = ENOUGH;
    ASSERT_EQ(1, Parse(text));
    EXPECT_EQ(0, g_jsonAllocationsAlive);
    const int needed = ENOUGH - g_jsonAllocationsLeft;
    for (int enough = 0; enough < needed; ++enough) {
        g_jsonAllocationsLeft = enough;
        EXPECT_EQ(0, Parse(text));
        EXPECT_EQ(0, g_jsonAllocationsAlive);
    }
}

}  // namespace
}  // namespace lumora
