// DestoryTransport: the end of a handle's data channel.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DestoryTransportTest : public ChannelTest {
protected:
    DestoryTransportTest() { mReplies["TransStatus"] = "free"; }
};

TEST_F(DestoryTransportTest, HandleWithoutATransportIsRefused) {
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
    ExpectOnlyError("This Handle no transport.\n");
}

TEST_F(DestoryTransportTest, FreeDeviceIsToldToStop) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_THAT(Asked(), ElementsAre("camera Get TransStatus ", "camera Put StopTransport "));
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
    EXPECT_THAT(mLog.Texts(1), ElementsAre("LumoraClientModule will DestoryTransport\n"));
    EXPECT_TRUE(mFromClient.SeesEnd());
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("This Handle no transport.\n");
}

TEST_F(DestoryTransportTest, BusyDeviceIsAskedUntilItIsFree) {
    const unsigned int camera = ConnectToCamera();
    const std::vector<std::string> replies = {"busy", "", "Free", "freed", "free"};
    std::size_t next = 0;
    mDuring["TransStatus"] = [&] { mReplies["TransStatus"] = replies.at(next++); };
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(5U, next);
    EXPECT_EQ(4, mLog.Count(1, "Remote transport is busy, wait...\n"));
    EXPECT_EQ("camera Put StopTransport ", Asked().back());
}

TEST_F(DestoryTransportTest, PollHasNoUpperBound) {
    const unsigned int camera = ConnectToCamera();
    int polls = 0;
    mDuring["TransStatus"] = [&] { mReplies["TransStatus"] = ++polls < 600 ? "busy" : "free"; };
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(600, polls);
}

TEST_F(DestoryTransportTest, FailedPollKeepsTheTransportWithItsHandle) {
    const unsigned int camera = ConnectToCamera();
    mResults["TransStatus"] = -1;
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("Get cmd fail\n");
    EXPECT_THAT(Asked(), ElementsAre("camera Get TransStatus "));
    mResults.clear();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
}

TEST_F(DestoryTransportTest, RefusedStopKeepsTheTransportWithItsHandle) {
    const unsigned int camera = ConnectToCamera();
    mResults["StopTransport"] = -1;
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    EXPECT_EQ("Put cmd fail!\n", mLog.Texts(1).back());
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
    mResults.clear();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
}

TEST_F(DestoryTransportTest, DeviceThatWasNotFoundAgainCannotBeAsked) {
    const unsigned int camera = ConnectToCamera();
    LoseTheCamera();
    EXPECT_EQ(-1, mModule->DestoryTransport(camera));
    ExpectOnlyError("Handle error, no such handle!\n");
    EXPECT_TRUE(mFromClient.SeesEnd()) << "the sending half was closed before that";
}

TEST_F(DestoryTransportTest, TransportThatCannotBeDestroyedFailsBeforeTheDeviceIsAsked) {
    const auto transport = std::make_shared<ScriptedTransport>();
    transport->destroyResult = 1;
    ClientModuleProbe::SetTransport(*mModule, NO_HANDLE, transport);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    ExpectOnlyError("DestoryTransports!\n");
}

TEST_F(DestoryTransportTest, TransportOfAHandleThatIsGoneCannotBeFinished) {
    const auto transport = std::make_shared<ScriptedTransport>();
    ClientModuleProbe::SetTransport(*mModule, NO_HANDLE, transport);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    ExpectOnlyError("Handle error: 4711, no such device!\n");
    EXPECT_EQ(1, transport->destroyed);
    EXPECT_EQ(-1, mModule->DestoryTransport(NO_HANDLE));
    EXPECT_EQ(2, transport->destroyed) << "it stays with its handle";
}

TEST_F(DestoryTransportTest, TransportIsReplacedByTheNextConnection) {
    const unsigned int camera = ConnectToCamera();
    EXPECT_EQ(0, mModule->DestoryTransport(camera));
    EXPECT_EQ(0, mModule->DisconnectAiDevice(1, camera));
    Connect(1, camera);
    EXPECT_EQ(0, SendData(1, camera, "x"));
    EXPECT_EQ(lumora_test::ClientFrame(1, "x"), mFromClient.Receive(7));
}

}  // namespace
}  // namespace lumoraAiModule
