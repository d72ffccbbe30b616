#include "platform/link/io/psk.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace lumora_link::test {

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

struct PskFileTest : testing::Test {
    void SetUp() override {
        std::string pattern = testing::TempDir() + "psk.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder = pattern;
        path = folder + "/key";
        file = PskFile(path);
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::optional<KeyRing> Read(const std::string& text, mode_t mode = 0600) {
        std::ofstream(path) << text;
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        CaptureStderr();
        auto keys = file.Read(NOW);
        log = GetCapturedStderr();
        return keys;
    }

    static constexpr std::time_t NOW = 1000000;  // the 12th of January 1970
    std::string folder;
    std::string path;
    std::string log;
    PskFile file{""};
};

}  // namespace

TEST_F(PskFileTest, HoldsIdentityAndKeyOnOneLine) {
    for (const char* text : {"lumora:secret", "lumora:secret\n"}) {
        const auto keys = Read(text);
        ASSERT_TRUE(keys) << text;
        ASSERT_NE(keys->Own(), nullptr);
        EXPECT_EQ(keys->Own()->identity, "lumora");
        EXPECT_EQ(keys->Own()->key, "secret");
    }
    EXPECT_EQ(Read("lumora:se:cret\n", 0400)->Own()->key, "se:cret");
}

TEST_F(PskFileTest, TheFirstKeyIsOurOwnAndAllAreFoundByTheirNames) {
    const auto keys = Read("client:1\ncamera-1:2\ncamera-2:3\n");
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->Size(), 3U);
    EXPECT_EQ(keys->Own()->identity, "client");
    ASSERT_NE(keys->Find("camera-2"), nullptr);
    EXPECT_EQ(keys->Find("camera-2")->key, "3");
    EXPECT_EQ(keys->Find("camera-3"), nullptr);
    EXPECT_TRUE(keys->Has("camera-1", "2"));
    EXPECT_FALSE(keys->Has("camera-1", "3"));
    EXPECT_FALSE(keys->Has("camera-3", "3"));
}

TEST_F(PskFileTest, LeavesOutWhatHasExpired) {
    const auto keys = Read("# expires 1970-01-11\nold:1\n# expires 1970-01-12\nnew:2\n");
    ASSERT_TRUE(keys);
    EXPECT_EQ(keys->Own()->identity, "new");
    EXPECT_EQ(keys->Find("old"), nullptr);
    EXPECT_THAT(log, HasSubstr("LUMORA_LINK_PSK_FILE: the key \"old\" has expired"));
    constexpr std::time_t MIDNIGHT = 12 * 24 * 60 * 60;
    EXPECT_FALSE(file.HasChanged(MIDNIGHT - 1));
    EXPECT_TRUE(file.HasChanged(MIDNIGHT));
    CaptureStderr();
    const auto none = file.Read(MIDNIGHT);
    GetCapturedStderr();
    ASSERT_TRUE(none);
    EXPECT_EQ(none->Own(), nullptr);
    EXPECT_FALSE(file.HasChanged(MIDNIGHT)) << "what is gone does not expire again";
}

TEST_F(PskFileTest, NoticesWhatIsDoneToIt) {
    ASSERT_TRUE(Read("lumora:secret\n"));
    EXPECT_FALSE(file.HasChanged(NOW));
    std::ofstream(path) << "lumora:secrets\n";
    EXPECT_TRUE(file.HasChanged(NOW));
    ASSERT_TRUE(Read("lumora:secret\n"));
    std::ofstream(path + ".new") << "lumora:Secret\n";
    std::filesystem::rename(path + ".new", path);
    EXPECT_TRUE(file.HasChanged(NOW)) << "another file of that name";
    ASSERT_TRUE(Read("lumora:secret\n"));
    std::filesystem::remove(path);
    EXPECT_TRUE(file.HasChanged(NOW));
    CaptureStderr();
    EXPECT_FALSE(file.Read(NOW));
    GetCapturedStderr();
    EXPECT_FALSE(file.HasChanged(NOW)) << "it is looked at once, not at every turn";
    EXPECT_TRUE(Read("lumora:secret\n"));
}

TEST_F(PskFileTest, IsRefusedWhereOthersThanTheOwnerMayUseIt) {
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0644U}) {
        EXPECT_FALSE(Read("lumora:secret\n", mode)) << std::oct << mode;
        EXPECT_THAT(log,
                    HasSubstr("LUMORA_LINK_PSK_FILE: \"" + path + "\" is open to others than its owner"));
    }
}

TEST_F(PskFileTest, IsRefusedWhereItIsNotThatLine) {
    for (const char* text : {"\n", "lumora", ":secret", "lumora:", "lumora:secret\nmore\n"}) {
        EXPECT_FALSE(Read(text)) << text;
        EXPECT_THAT(log, HasSubstr("is not identity:key, 1 to 64 bytes each"));
        EXPECT_THAT(log, HasSubstr("LUMORA_LINK_PSK_FILE: \"" + path + "\": line "));
    }
    EXPECT_FALSE(Read(""));
    EXPECT_THAT(log, HasSubstr("the file has no key"));
}

TEST_F(PskFileTest, BoundsIdentityAndKey) {
    const std::string longest(64, 'x');
    EXPECT_TRUE(Read(longest + ":" + longest + "\n"));
    EXPECT_FALSE(Read(longest + "x:" + longest + "\n"));
    EXPECT_FALSE(Read(longest + ":" + longest + "x\n"));
    EXPECT_FALSE(Read("a:b\n" + std::string(MAX_KEY_FILE_BYTES + 1, '\n')));
    EXPECT_THAT(log, HasSubstr("cannot be read"));
}

TEST_F(PskFileTest, MustBeAFileThatIsThere) {
    CaptureStderr();
    EXPECT_FALSE(file.Read(NOW));
    EXPECT_FALSE(PskFile(folder).Read(NOW));
    EXPECT_FALSE(PskFile("").Read(NOW));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("LUMORA_LINK_PSK_FILE: \"" + path + "\" cannot be read"));
}

}  // namespace lumora_link::test
