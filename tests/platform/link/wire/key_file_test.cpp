#include "platform/link/wire/key_file.h"

#include <gmock/gmock.h>

namespace lumora_link::test {

namespace {

std::string Summary(const std::string& text) {
    const auto parsed = ParseKeyFile(text);
    if (const auto* fault = std::get_if<KeyFileFault>(&parsed)) {
        return "line " + std::to_string(fault->line) + ' ' + fault->text;
    }
    std::string summary;
    for (const Psk& psk : std::get<std::vector<Psk>>(parsed)) {
        summary += psk.identity + '=' + psk.key +
                   (psk.expires ? " until " + std::to_string(*psk.expires) : "") + ';';
    }
    return summary;
}

}  // namespace

TEST(KeyFileTest, OneLineIsAKeyWhateverItBeginsWith) {
    EXPECT_EQ(Summary("lumora:secret"), "lumora=secret;");
    EXPECT_EQ(Summary("lumora:se:cret\n"), "lumora=se:cret;");
    EXPECT_EQ(Summary("# lumora:secret\n"), "# lumora=secret;");
}

TEST(KeyFileTest, HoldsSeveralKeysInTheirOrderWithCommentsBetween) {
    EXPECT_EQ(Summary("# of the hall\ncamera-2:b\n\ncamera-1:a\n#1:c\n"), "camera-2=b;camera-1=a;#1=c;");
}

TEST(KeyFileTest, ADayOfExpiryConcernsTheNextKeyOnly) {
    EXPECT_EQ(Summary("# expires 1970-01-01\nold:a\n# expires 1970-01-02\n# a word\nmiddle:b\nnew:c\n"),
              "old=a until 86400;middle=b until 172800;new=c;");
    for (const char* day : {"", "soon", "2027-13-01", "2027-02-29", "2027-1-1", "1969-12-31", "2027-01-32",
                            "2027-01-00", "2027/01/01", "2027-01-011", "-027-01-01", "20 7-01-01"}) {
        EXPECT_EQ(Summary("a:b\n# expires " + std::string(day) + "\nc:d\n"),
                  "line 2 is not \"# expires YYYY-MM-DD\"")
            << day;
    }
    EXPECT_NE(Summary("a:b\n# expires 2028-02-29\nc:d\n").find("c=d until 1835481600"), std::string::npos);
}

TEST(KeyFileTest, AKeyIsValidUntilItsDayIsOver) {
    const Psk psk{"a", "b", 1000};
    EXPECT_TRUE(psk.IsValidAt(999));
    EXPECT_FALSE(psk.IsValidAt(1000));
    EXPECT_TRUE((Psk{"a", "b", std::nullopt}.IsValidAt(1000)));
}

TEST(KeyFileTest, NamesTheLineThatIsNoKey) {
    const std::string wrong = " is not identity:key, 1 to 64 bytes each";
    for (const char* text : {"lumora", ":secret", "lumora:", "\n"}) {
        EXPECT_EQ(Summary(text), "line 1" + wrong) << text;
    }
    EXPECT_EQ(Summary("lumora:secret\nmore\n"), "line 2" + wrong);
    EXPECT_EQ(Summary(std::string("lumora:sec\0ret", 14)), "line 1" + wrong);
    const std::string longest(64, 'x');
    EXPECT_EQ(Summary(longest + ":" + longest), longest + "=" + longest + ";");
    EXPECT_EQ(Summary(longest + "x:" + longest), "line 1" + wrong);
    EXPECT_EQ(Summary(longest + ":" + longest + "x"), "line 1" + wrong);
}

TEST(KeyFileTest, MustHoldAKeyAndEachIdentityOnce) {
    EXPECT_EQ(Summary(""), "line 1 is not there: the file has no key");
    EXPECT_EQ(Summary("# nothing\n# expires 2027-01-01\n"), "line 1 is not there: the file has no key");
    EXPECT_EQ(Summary("a:1\nb:2\na:3\n"), "line 3 has the identity of another line");
}

TEST(KeyFileTest, IsBounded) {
    std::string text;
    for (std::size_t count = 0; count < MAX_KEYS; ++count) {
        text += "device-" + std::to_string(count) + ":k\n";
    }
    EXPECT_EQ(std::get<0>(ParseKeyFile(text)).size(), MAX_KEYS);
    EXPECT_EQ(Summary(text + "one:more\n"), "line 4097 is one key too many; a file has 4,096 at most");
}

}  // namespace lumora_link::test
