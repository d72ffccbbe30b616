// Setup requests that offer a private channel, or do not, to a device that wants one, must have one, or
// cannot.
#include "tests/server/server_fixture.h"
#include "tests/support/fake_security.h"

namespace lumora_test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char PLAIN_REQUEST[] = R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666}})";
constexpr char PRIVATE_REQUEST[] = R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666},"sec":{"number":4242}})";

class KeptKeysTransport : public FakeTransport {
public:
    void UseKeys(std::shared_ptr<lumora::ChannelKeys> given) override {
        keys = std::move(given);
        hadDirections = !directions.empty();
    }
    std::shared_ptr<lumora::ChannelKeys> keys;
    bool hadDirections = true;
};

class ServerPrivateChannelTest : public ServerModuleTest {
protected:
    ServerPrivateChannelTest() {
        mTransports.next = mTransport;
        StartWith({"face"});
    }
    ~ServerPrivateChannelTest() override {
        mTransport->keys.reset();
    }  // the module lives longer than the keys' owner

    Answer Request(const std::string& setup) { return mPlatform.Get(".sys.mediaservice.setup", setup); }
    void ExpectPlain(const std::string& setup) {
        EXPECT_EQ("Succ", Request(setup).reply);
        EXPECT_EQ(nullptr, mTransport->keys);
    }
    // A refusal costs a running channel nothing.
    void ExpectRefused(const std::string& setup, const std::string& text) {
        mSecurity.mode = LINK_CHANNEL_PREFER;
        EXPECT_EQ("Succ", Request(PLAIN_REQUEST).reply);
        mSecurity.mode = LINK_CHANNEL_REQUIRE;
        EXPECT_EQ(-1, Request(setup).result);
        EXPECT_EQ(0, mTransport->stops);
        EXPECT_EQ(2U, mTransport->directions.size());
        EXPECT_THAT(Errors(), Contains(text));
    }

    FakeSecurity mSecurity;
    FakeTransports mTransports;
    std::shared_ptr<KeptKeysTransport> mTransport = std::make_shared<KeptKeysTransport>();
};

TEST_F(ServerPrivateChannelTest, OfferIsAnsweredAndTheTransportHasTheKeysBeforeItsDirections) {
    EXPECT_THAT(Request(PRIVATE_REQUEST).reply, StartsWith(R"({"r":"Succ","sec":{"number":)"));
    EXPECT_NE(nullptr, mTransport->keys);
    EXPECT_TRUE(mLog.Has(2, "The data channel is private.\n"));
    EXPECT_FALSE(mTransport->hadDirections);
    EXPECT_EQ(2U, mTransport->directions.size());
}

TEST_F(ServerPrivateChannelTest, KeysOfAnOfferReachNoLog) {
    Request(PRIVATE_REQUEST);
    EXPECT_THAT(mLog.Dump(), HasSubstr(std::string("Reveived remote transport info: ") + PLAIN_REQUEST));
    EXPECT_THAT(mLog.Dump(), Not(HasSubstr("4242")));
}

TEST_F(ServerPrivateChannelTest, PlainModePassesOverTheOffer) {
    mSecurity.mode = LINK_CHANNEL_PLAIN;
    ExpectPlain(PRIVATE_REQUEST);
    EXPECT_THAT(mLog.Texts(3), IsEmpty());
}

TEST_F(ServerPrivateChannelTest, PlatformOfAnEarlierVersionPassesOverTheOffer) {
    mSecurity.table.size = offsetof(LinkSecurity, GetChannelMode);
    mSecurity.table.GetChannelMode = nullptr;
    ExpectPlain(PRIVATE_REQUEST);
}

TEST_F(ServerPrivateChannelTest, PreferringDeviceTakesAPlainClientWithAWarning) {
    ExpectPlain(PLAIN_REQUEST);
    EXPECT_THAT(mLog.Texts(3), Contains("The client offers no private channel; it gets a plain one.\n"));
}

TEST_F(ServerPrivateChannelTest, PreferringDeviceTakesAClientWhoseOfferItCannotAnswer) {
    mSecurity.makesChannels = false;
    ExpectPlain(PRIVATE_REQUEST);
    EXPECT_THAT(
        mLog.Texts(3),
        Contains("The client's offer of a private channel cannot be answered; it gets a plain one.\n"));
}

TEST_F(ServerPrivateChannelTest, LackOfMemoryMakesNoPlainChannel) {
    mSecurity.table.AnswerChannel = [](const char*, char*, unsigned int) -> LinkChannel* {
        errno = ENOMEM;
        return nullptr;
    };
    EXPECT_EQ(-1, Request(PRIVATE_REQUEST).result);
    EXPECT_TRUE(mTransport->directions.empty());
    EXPECT_THAT(Errors(), Contains("There is no memory for a private channel; the client gets none.\n"));
}

TEST_F(ServerPrivateChannelTest, OfferThatIsNoObjectIsNone) {
    ExpectPlain(R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666},"sec":"text"})");
    ExpectPlain(R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666},"sec":null})");
}

TEST_F(ServerPrivateChannelTest, RequiringDeviceRefusesAPlainClient) {
    ExpectRefused(PLAIN_REQUEST, "A private channel is required, and the client offers none.\n");
}

TEST_F(ServerPrivateChannelTest, RequiringDeviceRefusesAnOfferThatItCannotAnswer) {
    ExpectRefused(R"({"p":2,"ep":{"addr":"127.0.0.1","port":6666},"sec":{"other":1}})",
                  "A private channel is required, and the client's offer of one cannot be answered.\n");
}

TEST_F(ServerPrivateChannelTest, RepeatedOfferMakesNewKeys) {
    const std::string first = Request(PRIVATE_REQUEST).reply;
    const auto keys = mTransport->keys;
    EXPECT_NE(first, Request(PRIVATE_REQUEST).reply);
    EXPECT_NE(keys, mTransport->keys);
}

}  // namespace
}  // namespace lumora_test
