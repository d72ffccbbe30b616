// GetClientVersion and GetServerVersion.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;

using VersionQueryTest = ChannelTest;

TEST_F(VersionQueryTest, ClientsVersionIsTheLibrarys) {
    std::string version = "before";
    EXPECT_EQ(0, mModule->GetClientVersion(1, version));
    EXPECT_EQ("1.1.1", version);
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "client [1] OUT.\n"));
}

TEST_F(VersionQueryTest, VersionThatCannotBeToldFailsTheQuery) {
    ClientSources sources;
    sources.getVersion = [](std::string&) { return -1; };
    mModule = std::make_shared<LumoraClientModule>("phone", sources);
    EXPECT_EQ(0, mModule->InitLumoraModule(1));
    std::string version = "before";
    EXPECT_EQ(-1, mModule->GetClientVersion(1, version));
    ExpectOnlyError("GetVersion failed!\n");
    EXPECT_EQ("before", version);
}

TEST_F(VersionQueryTest, ServersVersionIsWhatTheDeviceReplies) {
    const unsigned int reader = Reader();
    mReplies["GetVersion"] = "9.8.7 beta";
    mLog.Clear();
    std::string version;
    EXPECT_EQ(0, mModule->GetServerVersion(1, reader, version));
    EXPECT_EQ("9.8.7 beta", version);
    EXPECT_THAT(Asked(), ElementsAre("reader Get GetVersion "));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("version = 9.8.7 beta\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "client [1] OUT.\n"));
}

TEST_F(VersionQueryTest, DeviceThatDoesNotAnswerFailsTheQuery) {
    const unsigned int camera = Camera();
    mResults["GetVersion"] = -1;
    mLog.Clear();
    std::string version = "before";
    EXPECT_EQ(-1, mModule->GetServerVersion(1, camera, version));
    ExpectOnlyError("GetVersion fail\n");
    EXPECT_EQ("before", version);
}

}  // namespace
}  // namespace lumoraAiModule
