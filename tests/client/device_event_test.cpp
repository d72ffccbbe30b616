// RegisterAiDeviceEvent.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;

class RegisterAiDeviceEventTest : public ChannelTest {
protected:
    // The callback that a frame for the client reaches.
    std::string CallbackOf(char clientID) {
        Bytes frame = lumora_test::ServerFrameBytes(Bytes(1, clientID), "face", "data") + Bytes(67, '\0');
        mModule->OnRecvData(&frame[0], 19);
        return ReceivedEvents().empty() ? "" : ReceivedEvents().back().callback;
    }
};

TEST_F(RegisterAiDeviceEventTest, FirstCallbackWins) {
    const unsigned int camera = Camera();
    mLog.Clear();
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, camera, FirstCallback));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, camera, SecondCallback));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(1, Reader(), SecondCallback));
    EXPECT_EQ("first", CallbackOf(1));
}

TEST_F(RegisterAiDeviceEventTest, CallbackEndsWithItsClient) {
    NewClients(1);
    const unsigned int camera = Camera();
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(2, camera, FirstCallback));
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(2, NewClient());
    EXPECT_EQ("", CallbackOf(2));
    EXPECT_EQ(0, mModule->RegisterAiDeviceEvent(2, camera, SecondCallback));
    EXPECT_EQ("second", CallbackOf(2));
}

TEST_F(RegisterAiDeviceEventTest, ClientNeedNotBeConnected) {
    RegisterEvents(1, Camera());
    EXPECT_EQ("first", CallbackOf(1));
}

}  // namespace
}  // namespace lumoraAiModule
