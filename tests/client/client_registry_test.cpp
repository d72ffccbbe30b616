// IDs, the one instance, and each client's record.
#include "tests/client/client_fixture.h"
#include "tests/support/system_faults.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;

class ClientRegistryTest : public ClientTest {};

TEST_F(ClientRegistryTest, ClientsAreNumberedFromOne) {
    EXPECT_EQ(1, NewClient());
    EXPECT_EQ(2, NewClient());
    EXPECT_EQ(3, NewClient());
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), ElementsAre(1U, 2U, 3U));
}

TEST_F(ClientRegistryTest, LowestFreeIdIsGivenOutFirst) {
    NewClients(4);
    EXPECT_EQ(0, RemoveClient(3));
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(2, NewClient());
    EXPECT_EQ(3, NewClient());
    EXPECT_EQ(5, NewClient());
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(1, NewClient());
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), ElementsAre(1U, 2U, 3U, 4U, 5U));
}

TEST_F(ClientRegistryTest, AllClientsShareOneInstance) {
    int clientID = 0;
    const auto first = LumoraClientModule::CreateInstance(&clientID, "phone");
    const auto second = LumoraClientModule::CreateInstance(&clientID, "tablet");
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(first, second);
    mModule = first;
}

TEST_F(ClientRegistryTest, FirstClientsTypeBecomesTheInstancesAndEachCallLogsItsOwn) {
    TakeId("phone");
    TakeId("tablet");
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("Register dev ServiceType = phone\n",
                            "Init Lumora client success. device type: phone, clientID: 1. \n",
                            "Init Lumora client success. device type: tablet, clientID: 2. \n"));
    EXPECT_EQ(2, mLog.Count(0, "Enter\n"));
    EXPECT_EQ(2, mLog.Count(0, "Out\n"));
}

TEST_F(ClientRegistryTest, NowhereToWriteTheIdGivesNoInstance) {
    EXPECT_EQ(nullptr, LumoraClientModule::CreateInstance(nullptr, "phone"));
    ExpectOnlyError("input param is invalid!\n");
    EXPECT_THAT(ClientModuleProbe::IdsInUse(), ElementsAre());
}

TEST_F(ClientRegistryTest, LackOfMemoryGivesNoInstanceAndTakesNoId) {
    const std::string devType = "phone";
    int clientID = -1;
    lumora_test::FailAllocation();
    EXPECT_EQ(nullptr, LumoraClientModule::CreateInstance(&clientID, devType));
    lumora_test::ResetAllocationFaults();
    ExpectOnlyError("malloc LumoraClientModule failed!\n");
    EXPECT_EQ(-1, clientID);
    EXPECT_EQ(1, NewClient());
}

TEST_F(ClientRegistryTest, TwentyClientsAreServed) {
    NewClients(20);
    EXPECT_EQ(20U, ClientModuleProbe::IdsInUse().back());
    EXPECT_EQ(0, mModule->RegisterEvent(20, RemovalCallback));
}

TEST_F(ClientRegistryTest, TwentyFirstClientGetsTheInstanceButNoIdAndNoStart) {
    NewClients(20);
    mLog.Clear();
    int clientID = -1;
    EXPECT_EQ(mModule, LumoraClientModule::CreateInstance(&clientID, "phone"));
    EXPECT_EQ(0, clientID);
    EXPECT_THAT(mLog.Texts(2),
                ElementsAre("The number of application instances has exceeded the maximum[20]. The clientID "
                            "application failed.\n"));
    EXPECT_EQ(-1, mModule->InitLumoraModule(clientID));
    ExpectOnlyError("clientID error!\n");
    EXPECT_EQ(20U, ClientModuleProbe::IdsInUse().size());
    for (int id = 1; id <= 20; ++id) {
        EXPECT_EQ(0, mModule->RegisterEvent(id, RemovalCallback));
    }
}

TEST_F(ClientRegistryTest, RemovedClientMakesRoomForTheTwentyFirst) {
    NewClients(20);
    EXPECT_EQ(0, RemoveClient(7));
    EXPECT_EQ(7, NewClient());
}

TEST_F(ClientRegistryTest, IdsOfZeroAndBelowAreRefused) {
    TakeId();
    for (const int id : {0, -1}) {
        mLog.Clear();
        EXPECT_EQ(-1, mModule->InitLumoraModule(id));
        EXPECT_EQ(1, mLog.Count(0, "client [" + std::to_string(id) + "] Enter.\n"));
        ExpectOnlyError("clientID error!\n");
    }
    EXPECT_EQ(0, mPlatform.CallCount("Run"));
}

TEST_F(ClientRegistryTest, LackOfMemoryForTheRecordFailsTheStart) {
    const int clientID = TakeId();
    mLog.Clear();
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, mModule->InitLumoraModule(clientID));
    lumora_test::ResetAllocationFaults();
    ExpectOnlyError("new memory error!\n");
    EXPECT_EQ(-1, mModule->RegisterEvent(clientID, RemovalCallback));
    EXPECT_EQ(0, mPlatform.CallCount("Run"));
}

TEST_F(ClientRegistryTest, SecondInitialisationKeepsTheRecord) {
    const int clientID = NewClient();
    EXPECT_EQ(0, mModule->InitLumoraModule(clientID));
    EXPECT_EQ(0, RemoveClient(clientID));
    mLog.Clear();
    EXPECT_EQ(-1, RemoveClient(clientID));
    ExpectOnlyError("ClientID : 1 no resource!!\n");
}

TEST_F(ClientRegistryTest, RemovalTellsHowManyClientsRemain) {
    NewClients(3);
    EXPECT_EQ(0, RemoveClient(2));
    EXPECT_EQ(2U, mClientsLeft);
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(1U, mClientsLeft);
    EXPECT_EQ(0, RemoveClient(3));
    EXPECT_EQ(0U, mClientsLeft);
}

TEST_F(ClientRegistryTest, RecordWithoutAnIdIsErasedAllTheSame) {
    NewClient();
    EXPECT_EQ(0, mModule->InitLumoraModule(NO_CLIENT));
    mLog.Clear();
    EXPECT_EQ(-1, RemoveClient(NO_CLIENT));
    ExpectOnlyError("No such CLientID : 17!!\n");
    EXPECT_EQ(99U, mClientsLeft);
    EXPECT_EQ(-1, mModule->RegisterEvent(NO_CLIENT, RemovalCallback));
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
}

TEST_F(ClientRegistryTest, InstanceIsNotDestroyedWhileAnIdIsInUse) {
    NewClient();
    mLog.Clear();
    EXPECT_EQ(-1, LumoraClientModule::DestoryInstance());
    ExpectOnlyError("At least one Lumora client is running, you could not Destroy!\n");
    EXPECT_EQ(2, NewClient());
}

TEST_F(ClientRegistryTest, DestroyingWithoutAnInstanceSucceeds) {
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    EXPECT_THAT(mLog.Texts(3), ElementsAre("No Lumora instance created, you could not Destroy\n"));
    EXPECT_THAT(mLog.Texts(4), ElementsAre());
}

TEST_F(ClientRegistryTest, DestroyedInstanceIsReplacedByANewOne) {
    NewClient();
    EXPECT_EQ(0, RemoveClient(1));
    const std::weak_ptr<LumoraClientModule> old = mModule;
    mModule.reset();
    mLog.Clear();
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    EXPECT_TRUE(old.expired());
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(3), ElementsAre());
    EXPECT_EQ(1, TakeId("tablet"));
    EXPECT_TRUE(mLog.Has(2, "Register dev ServiceType = tablet\n"));
}

TEST_F(ClientRegistryTest, HolderKeepsADestroyedInstanceAlive) {
    NewClient();
    const std::shared_ptr<LumoraClientModule> holder = mModule;
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    std::string version;
    EXPECT_EQ(-1, holder->GetClientVersion(1, version));
    EXPECT_EQ(1, NewClient());
    EXPECT_NE(holder, mModule);
    EXPECT_EQ(0, mModule->GetClientVersion(1, version));
}

TEST_F(ClientRegistryTest, LateEndOfAnOldInstanceLeavesTheNewOneRegistered) {
    NewClient();
    std::shared_ptr<LumoraClientModule> holder = mModule;
    EXPECT_EQ(0, RemoveClient(1));
    EXPECT_EQ(0, LumoraClientModule::DestoryInstance());
    NewClient();
    holder.reset();
    EXPECT_EQ(1, mPlatform.LiveHandles());
    EXPECT_STREQ("phone", mPlatform.Resource()->DoGetDescriptor(mPlatform.Resource()));
    EXPECT_EQ(0, mPlatform.SendEvent(2, 7, "192.0.2.1", 5683, "camera")) << "events have no receiver";
}

// ---- RegisterEvent ----

TEST_F(ClientRegistryTest, MissingEventCallbackIsRefusedBeforeTheClientIsLookedUp) {
    NewClient();
    mLog.Clear();
    EXPECT_EQ(-1, mModule->RegisterEvent(NO_CLIENT, nullptr));
    EXPECT_EQ(1, mLog.Count(0, "client [17] Enter\n"));
    ExpectOnlyError("callback is null!\n");
}

TEST_F(ClientRegistryTest, EventCallbackIsTraced) {
    NewClient();
    mLog.Clear();
    EXPECT_EQ(0, mModule->RegisterEvent(1, RemovalCallback));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("client [1] Enter\n", "Out\n"));
}

}  // namespace
}  // namespace lumoraAiModule
