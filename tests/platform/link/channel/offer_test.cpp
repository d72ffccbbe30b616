// What both ends offer: its text, and the keys that are made of it.
#include "platform/link/channel/offer.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "platform/link/channel/channel_keys.h"
#include "platform/link/io/system_random.h"

namespace lumora_link::test {

namespace {

constexpr char ID[] = "AAECAwQFBgcICQoLDA0ODw";
constexpr char KEY[] = "AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8";

std::string Text(const std::string& version, const std::string& id, const std::string& key) {
    return "{\"v\":" + version + ",\"id\":\"" + id + "\",\"k\":\"" + key + "\"}";
}

Offer CountingOffer(unsigned char first) {
    Offer offer;
    std::generate(offer.id.begin(), offer.id.end(), [at = first]() mutable { return at++; });
    std::generate_n(offer.key.Data(), offer.key.Size(), [at = first]() mutable { return at++; });
    return offer;
}

std::string Hex(const Secret<CONNECTION_KEY_BYTES>& secret) {
    std::string text;
    for (std::size_t at = 0; at < Secret<CONNECTION_KEY_BYTES>::Size(); ++at) {
        constexpr char DIGITS[] = "0123456789abcdef";
        text += {DIGITS[secret.Data()[at] >> 4], DIGITS[secret.Data()[at] & 15]};
    }
    return text;
}

TEST(OfferTest, AnOfferHasTheDocumentedForm) { EXPECT_EQ(WriteOffer(CountingOffer(0)), Text("1", ID, KEY)); }

TEST(OfferTest, AnOfferIsReadAsItWasWritten) {
    SystemRandom random;
    for (int round = 0; round < 100; ++round) {
        const Offer made = MakeOffer(random);
        const auto read = ReadOffer(WriteOffer(made));
        ASSERT_TRUE(read);
        EXPECT_EQ(read->id, made.id);
        EXPECT_EQ(read->key, made.key);
    }
}

TEST(OfferTest, TwoOffersDiffer) {
    SystemRandom random;
    const Offer one = MakeOffer(random);
    const Offer other = MakeOffer(random);
    EXPECT_NE(one.id, other.id);
    EXPECT_NE(one.key, other.key);
}

TEST(OfferTest, BlanksOrderAndUnknownMembersDoNotMatter) {
    const std::string members = std::string("\"k\" : \"") + KEY + "\",\t\"id\":\"" + ID + "\", \"v\": 1 ";
    EXPECT_TRUE(ReadOffer(" { " + members + "}\r\n"));
    EXPECT_TRUE(ReadOffer("{\"x\":{\"v\":[2,{}],\"k\":\"\\\"}\"}," + members + "}"));
    EXPECT_TRUE(ReadOffer("{" + members + ",\"a\":null,\"b\":[],\"c\":-1.5e3}"));
}

TEST(OfferTest, AnotherFormIsRefused) {
    const std::string good = Text("1", ID, KEY);
    for (std::size_t length = 0; length < good.size(); ++length) {
        EXPECT_FALSE(ReadOffer(good.substr(0, length))) << length;
    }
    const std::string id = ID;
    const std::string key = KEY;
    for (const std::string& bad : std::vector<std::string>{Text("2", ID, KEY),
                                                           Text("\"1\"", ID, KEY),
                                                           Text("1.0", ID, KEY),
                                                           Text("01", ID, KEY),
                                                           Text("1", id + "A", KEY),
                                                           Text("1", id.substr(1), KEY),
                                                           Text("1", "", KEY),
                                                           Text("1", ID, key.substr(1)),
                                                           Text("1", ID, key + "="),
                                                           Text("1", ID, id),
                                                           Text("1", "A+" + id.substr(2), KEY),
                                                           Text("1", "A/" + id.substr(2), KEY),
                                                           Text("1", "A " + id.substr(2), KEY),
                                                           Text("1", "\\u" + id.substr(2), KEY),
                                                           good + "x",
                                                           "[" + good + "]",
                                                           good + good,
                                                           "{}",
                                                           "{\"v\":1}",
                                                           "{\"v\":1,\"v\":1" + good.substr(6),
                                                           std::string("{\"x\":],") + good.substr(1),
                                                           "{\"x\":," + good.substr(1),
                                                           "{\"x\"" + good.substr(1),
                                                           "{\"x\":\"\n\"," + good.substr(1)}) {
        EXPECT_FALSE(ReadOffer(bad)) << bad;
    }
}

TEST(OfferTest, BitsBehindTheLastByteAreRefused) {
    std::string id = ID;
    std::string key = KEY;
    id.back() = 'x';
    key.back() = '9';
    EXPECT_FALSE(ReadOffer(Text("1", id, KEY)));
    EXPECT_FALSE(ReadOffer(Text("1", ID, key)));
}

// The figures come from another implementation of RFC 5869, Python's hmac.
TEST(ChannelKeysTest, TheKeysAreThoseOfTheDocumentedDerivation) {
    const auto keys = DeriveKeys(CountingOffer(0), CountingOffer(100));
    ASSERT_TRUE(keys);
    EXPECT_EQ(Hex(keys->toDevice.secret), "77043a26a0b67f945210608afc03424363e40b29ee8fb0cc247ba7eaba750b97");
    EXPECT_EQ(Hex(keys->toClient.secret), "490c74d9c1c2d6b303da71a9e7de683040073bb68274af82939469e88cd4e975");
}

TEST(ChannelKeysTest, TheExampleOfTheDocumentIsRight) {
    const auto keys = DeriveKeys(CountingOffer(0), CountingOffer(0));
    ASSERT_TRUE(keys);
    EXPECT_EQ(Hex(keys->toDevice.secret), "f385e2516a6555ef640e87dabe1e4cbe2e448c55f9acd00d18c7bce00d111408");
}

TEST(ChannelKeysTest, EveryBitOfBothOffersCounts) {
    const auto keys = DeriveKeys(CountingOffer(0), CountingOffer(100));
    Offer changedId = CountingOffer(0);
    changedId.id[15] ^= 1U;
    Offer changedKey = CountingOffer(100);
    changedKey.key.Data()[31] ^= 1U;
    for (const auto& other :
         {DeriveKeys(changedId, CountingOffer(100)), DeriveKeys(CountingOffer(0), changedKey),
          DeriveKeys(CountingOffer(100), CountingOffer(0))}) {
        ASSERT_TRUE(other);
        EXPECT_NE(keys->toDevice.secret, other->toDevice.secret);
        EXPECT_NE(keys->toClient.secret, other->toClient.secret);
    }
    EXPECT_NE(keys->toDevice.secret, keys->toClient.secret);
}

}  // namespace

}  // namespace lumora_link::test
