// DisconnectAiDevice.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using DisconnectTest = ChannelTest;

TEST_F(DisconnectTest, ClientLeavesAndNothingIsSent) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    ForgetAsked();
    mLog.Clear();
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("DisconnectAiDevice handle = 1 !\n"));
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(DisconnectTest, TransportKeepsRunningForTheHandle) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_EQ(0, SendData(1, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
    ForgetAsked();
    EXPECT_EQ(0, TryToConnect(1, camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Post Connect 1"));
}

TEST_F(DisconnectTest, HandleIsOnlyCheckedForExistence) {
    const unsigned int camera = Camera();
    const unsigned int reader = Reader();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, reader));
    EXPECT_FALSE(IsConnected(1, camera));
}

TEST_F(DisconnectTest, HandleSufficesWithoutItsDevice) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    LoseTheCamera();
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
}

TEST_F(DisconnectTest, ClientThatIsNotConnectedCannotLeave) {
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DisconnectAiDevice(1, camera));
    ExpectOnlyError("This client connect no handle!\n");
}

TEST_F(DisconnectTest, OtherClientsStayConnected) {
    NewClients(1);
    const unsigned int camera = Camera();
    Connect(1, camera);
    EXPECT_EQ(0, TryToConnect(2, camera));
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    EXPECT_TRUE(IsConnected(2, camera));
}

}  // namespace
}  // namespace lumoraAiModule
