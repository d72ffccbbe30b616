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
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::optional<Psk> Read(const std::string& text, mode_t mode = 0600) {
        std::ofstream(path) << text;
        EXPECT_EQ(chmod(path.c_str(), mode), 0);
        CaptureStderr();
        auto psk = ReadPskFile(path);
        log = GetCapturedStderr();
        return psk;
    }

    std::string folder;
    std::string path;
    std::string log;
};

}  // namespace

TEST_F(PskFileTest, HoldsIdentityAndKeyOnOneLine) {
    for (const char* text : {"lumora:secret", "lumora:secret\n"}) {
        const auto psk = Read(text);
        ASSERT_TRUE(psk) << text;
        EXPECT_EQ(psk->identity, "lumora");
        EXPECT_EQ(psk->key, "secret");
    }
    EXPECT_EQ(Read("lumora:se:cret\n", 0400)->key, "se:cret");
}

TEST_F(PskFileTest, IsRefusedIfOthersThanTheOwnerMayUseIt) {
    for (const mode_t mode : {0640U, 0604U, 0620U, 0602U, 0644U}) {
        EXPECT_FALSE(Read("lumora:secret\n", mode)) << std::oct << mode;
        EXPECT_THAT(log,
                    HasSubstr("LUMORA_LINK_PSK_FILE: \"" + path + "\" is open to others than its owner"));
    }
}

TEST_F(PskFileTest, IsRefusedIfItIsNotThatLine) {
    for (const char* text : {"", "\n", "lumora", ":secret", "lumora:", "lumora:secret\nmore\n"}) {
        EXPECT_FALSE(Read(text)) << text;
        EXPECT_THAT(log, HasSubstr("is not one line identity:key"));
    }
}

TEST_F(PskFileTest, BoundsIdentityAndKey) {
    const std::string longest(64, 'x');
    EXPECT_TRUE(Read(longest + ":" + longest + "\n"));
    EXPECT_FALSE(Read(longest + "x:" + longest + "\n"));
    EXPECT_FALSE(Read(longest + ":" + longest + "x\n"));
}

TEST_F(PskFileTest, MustBeAFileThatIsThere) {
    CaptureStderr();
    EXPECT_FALSE(ReadPskFile(path));
    EXPECT_FALSE(ReadPskFile(folder));
    EXPECT_FALSE(ReadPskFile(""));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("LUMORA_LINK_PSK_FILE: \"" + path + "\" cannot be read"));
}

}  // namespace lumora_link::test
