// Handles: CreateAiDevice and DestoryAiDevice.
#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HandlesTest : public ClientTest {
protected:
    HandlesTest() {
        NewClients(2);
        AddDevice("camera", 5683);
        AddDevice("reader", 5684);
        AddDevice("sensor", 5685);
        EXPECT_EQ(0, Search());
        mLog.Clear();
        ForgetAsked();
    }

    int Create(int clientID, std::string serviceType, unsigned int* handle) {
        return mModule->CreateAiDevice(clientID, serviceType, handle);
    }
    void Forget(const std::string& type, int port) {
        EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.1", port, type));
        mLog.Clear();
    }

    unsigned int mHandle = 99;
};

TEST_F(HandlesTest, HandlesAreNumberedFromOne) {
    EXPECT_EQ(1U, Handle(1, "reader"));
    EXPECT_EQ(2U, Handle(1, "camera"));
    EXPECT_EQ(3U, Handle(1, "sensor"));
}

TEST_F(HandlesTest, CreatingIsTraced) {
    EXPECT_EQ(0, Create(1, "camera", &mHandle));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter.\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(3), IsEmpty());
}

TEST_F(HandlesTest, AllClientsShareTheHandleOfAType) {
    EXPECT_EQ(1U, Handle(1, "camera"));
    EXPECT_EQ(2U, Handle(2, "reader"));
    EXPECT_EQ(1U, Handle(2, "camera"));
    EXPECT_THAT(mLog.Texts(3), ElementsAre("Devtype camera has been created handle\n"));
    EXPECT_EQ(2U, Handle(1, "reader"));
}

TEST_F(HandlesTest, SmallestFreeNumberIsUsedAgain) {
    Handle(1, "camera");
    Handle(1, "reader");
    Handle(1, "sensor");
    Forget("reader", 5684);
    EXPECT_EQ(0, Search());
    EXPECT_EQ(2U, Handle(1, "reader"));
}

TEST_F(HandlesTest, FreeNumberBelowATypesHandleGivesItASecondOne) {
    Handle(1, "camera");
    EXPECT_EQ(2U, Handle(1, "reader"));
    Forget("camera", 5683);
    EXPECT_EQ(1U, Handle(1, "reader"));
    EXPECT_THAT(mLog.Texts(3), IsEmpty());
}

TEST_F(HandlesTest, HandlesOutliveASearch) {
    Handle(1, "camera");
    EXPECT_EQ(2U, Handle(1, "reader"));
    EXPECT_EQ(0, Search());
    EXPECT_EQ(2U, Handle(1, "reader"));
}

TEST_F(HandlesTest, FailedSearchForgetsNoDevice) {
    mPlatform.devices.clear();
    EXPECT_EQ(-1, Search());
    EXPECT_EQ(1U, Handle(1, "camera"));
}

TEST_F(HandlesTest, DestroyingTellsTheDeviceWhichClientIsGone) {
    Handle(1, "camera");
    const unsigned int reader = Handle(1, "reader");
    mLog.Clear();
    EXPECT_EQ(0, mModule->DestoryAiDevice(2, reader));
    EXPECT_THAT(Asked(), ElementsAre("reader Post Destroy 2"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [2] Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("DestoryAiDevice handle = 2 , mClientManagerMap.size() = 2!\n"));
}

TEST_F(HandlesTest, DestroyedHandleStaysAndIsGivenAgain) {
    EXPECT_EQ(1U, Handle(1, "camera"));
    EXPECT_EQ(0, mModule->DestoryAiDevice(1, 1));
    EXPECT_EQ(0, mModule->DestoryAiDevice(1, 1));
    EXPECT_EQ(1U, Handle(1, "camera"));
    EXPECT_EQ(2U, Handle(1, "reader"));
}

TEST_F(HandlesTest, DeviceThatRefusesToDestroyFailsTheCall) {
    const unsigned int camera = Handle(1, "camera");
    mResults["Destroy"] = -1;
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DestoryAiDevice(1, camera));
    ExpectOnlyError("Post command ERROR ! ret = 0xffffffff\n");
}

TEST_F(HandlesTest, EveryResultButZeroIsAFailure) {
    const unsigned int camera = Handle(1, "camera");
    mResults["Destroy"] = 0x1f;
    mLog.Clear();
    EXPECT_EQ(-1, mModule->DestoryAiDevice(1, camera));
    ExpectOnlyError("Post command ERROR ! ret = 0x1f\n");
}

TEST_F(HandlesTest, DeviceIsToldWithoutTheModulesLock) {
    const unsigned int camera = Handle(1, "camera");
    bool locked = true;
    mDuring["Destroy"] = [&] { locked = ClientModuleProbe::IsLocked(*mModule); };
    EXPECT_EQ(0, mModule->DestoryAiDevice(1, camera));
    EXPECT_FALSE(locked);
}

}  // namespace
}  // namespace lumoraAiModule
