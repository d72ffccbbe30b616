// The search: who is asked, what is listed and under which type.
#include <cstddef>
#include <cstring>

#include "tests/client/client_fixture.h"

namespace lumoraAiModule {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A name field holds 39 characters and the terminator.
const std::string LONGEST_NAME(39, 'n');

class DiscoveryTest : public ClientTest {
protected:
    DiscoveryTest() {
        NewClient();
        mLog.Clear();
    }

    void AddDeviceThatReplies(const std::string& reply, int port = 5683) {
        mPlatform.devices.push_back(lumora_test::DescribedDevice(reply, "127.0.0.1", port));
    }
    // Whether no byte of the entry is set.
    // The bytes between the services and the callbacks belong to no field.
    bool IsClear(const LUM_DEVICE_INFO_S& entry) const {
        const LUM_DEVICE_INFO_S clear = {};
        return std::memcmp(&clear, &entry,
                           offsetof(LUM_DEVICE_INFO_S, serviceInfo) + sizeof(entry.serviceInfo)) == 0 &&
               entry.OnCommand == nullptr && entry.OnEventNotify == nullptr && entry.OnData == nullptr;
    }
};

TEST_F(DiscoveryTest, EmptyNetworkFailsTheSearchWithAnEmptyList) {
    std::string type = "camera";
    mFound.devNum = 3;
    EXPECT_EQ(-1, mModule->GetNetDeviceList(type, &mFound));
    ExpectOnlyError("No device found !\n");
    EXPECT_EQ(0U, mFound.devNum);
}

TEST_F(DiscoveryTest, PlatformIsSearchedForTheTypeAsked) {
    AddDevice("camera");
    EXPECT_EQ(0, Search("any kind"));
    EXPECT_THAT(mPlatform.Searches(), ElementsAre("any kind"));
}

TEST_F(DiscoveryTest, EachDeviceIsAskedForItsServicesInTheOrderFound) {
    AddDevice("camera", 5683);
    AddDevice("reader", 5684);
    EXPECT_EQ(0, Search());
    EXPECT_THAT(Asked(), ElementsAre("camera Get ServiceInfo Lum_RA", "reader Get ServiceInfo Lum_RA"));
    EXPECT_THAT(FoundTypes(), ElementsAre("camera", "reader"));
    EXPECT_EQ("Find 2 devices in net. \n", mLog.Texts(2).front());
    EXPECT_EQ("Enter\n", mLog.Texts(0).front());
    EXPECT_EQ("Out\n", mLog.Texts(0).back());
}

TEST_F(DiscoveryTest, ServicesAreListedFieldByField) {
    const std::string document = R"({"DevServiceType":"camera","ServiceNum":2,)"
                                 R"("service0":{"Name":"face","transport":0,"output-len-bytes":1024},)"
                                 R"("service1":{"Name":"body","transport":5,"output-len-bytes":7}})";
    AddDeviceThatReplies(document);
    EXPECT_EQ(0, Search());
    const LUM_DEVICE_INFO_S& device = mFound.devInfo[0];
    EXPECT_EQ(2U, device.serviceNum);
    EXPECT_STREQ("camera", device.devServiceType);
    EXPECT_STREQ("face", device.serviceInfo[0].serviceName);
    EXPECT_EQ(0, static_cast<int>(device.serviceInfo[0].transport));
    EXPECT_EQ(1024U, device.serviceInfo[0].outputLenBytes);
    EXPECT_STREQ("body", device.serviceInfo[1].serviceName);
    EXPECT_EQ(5, static_cast<int>(device.serviceInfo[1].transport));
    EXPECT_EQ(7U, device.serviceInfo[1].outputLenBytes);
    EXPECT_EQ(nullptr, device.OnCommand);
    EXPECT_EQ(nullptr, device.OnEventNotify);
    EXPECT_EQ(nullptr, device.OnData);
    EXPECT_TRUE(
        mLog.Has(2, "Recveied info[length-" + std::to_string(document.length()) + "]: " + document + ".\n"));
}

TEST_F(DiscoveryTest, SearchEndsWithTheFourthDevice) {
    for (int i = 0; i < 6; ++i) {
        AddDevice("type" + std::to_string(i), 5683 + i);
    }
    EXPECT_EQ(0, Search());
    EXPECT_EQ(4U, mFound.devNum);
    EXPECT_THAT(FoundTypes(), ElementsAre("type0", "type1", "type2", "type3"));
    EXPECT_EQ(4U, Asked().size());
    EXPECT_EQ(4, mPlatform.LiveProxies());
    EXPECT_TRUE(mLog.Has(2, "Find 6 devices in net. \n"));
}

TEST_F(DiscoveryTest, DevicesThatDoNotAnswerDoNotCount) {
    FakeDevice silent;
    silent.answer = [](const Request&, std::string&) { return -1; };
    mPlatform.devices = {silent, silent};
    for (int i = 0; i < 4; ++i) {
        AddDevice("type" + std::to_string(i), 5690 + i);
    }
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre("type0", "type1", "type2", "type3"));
    EXPECT_EQ(2, mLog.Count(1, "Get ServiceInfo failed\n"));
    EXPECT_THAT(mLog.Texts(4), IsEmpty());
}

TEST_F(DiscoveryTest, SearchSucceedsThoughNoDeviceAnswers) {
    mResults["ServiceInfo"] = -1;
    AddDevice("camera");
    AddDevice("reader");
    EXPECT_EQ(0, Search());
    EXPECT_EQ(0U, mFound.devNum);
    EXPECT_EQ(0, mPlatform.LiveProxies());
}

TEST_F(DiscoveryTest, EveryFailedServiceQueryIsSkippedWhateverItsResult) {
    mResults["ServiceInfo"] = 1;
    AddDevice("camera");
    EXPECT_EQ(0, Search());
    EXPECT_EQ(0U, mFound.devNum);
}

TEST_F(DiscoveryTest, EqualTypesAreNumberedByAppending) {
    for (int i = 0; i < 4; ++i) {
        AddDevice("T", 5683 + i);
    }
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre("T", "T1", "T12", "T123"));
    EXPECT_TRUE(mLog.Has(1, "will Insert ServiceType = T\n"));
    EXPECT_TRUE(mLog.Has(1, "will Insert ServiceType = T1\n"));
    EXPECT_TRUE(mLog.Has(1, "will Insert ServiceType = T12\n"));
    EXPECT_TRUE(mLog.Has(1, "will Insert ServiceType = T123\n"));
}

TEST_F(DiscoveryTest, NumberedTypesLeadToTheirOwnDevices) {
    mPlatform.devices.push_back(Device("T", 5683));
    mPlatform.devices.push_back(Device("T", 5684));
    EXPECT_EQ(0, Search());
    Handle(1, "T");
    Handle(1, "T1");
    mLog.Clear();
    EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.1", 5684, ""));
    EXPECT_TRUE(mLog.Has(1, "We will clear T1 's resource, handle = 2!\n"));
}

TEST_F(DiscoveryTest, NumberThatIsTakenByAnotherTypeIsPassedOver) {
    AddDevice("T1", 5683);
    AddDevice("T", 5684);
    AddDevice("T", 5685);
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre("T1", "T", "T12"));
}

// With n types known the n-th try is always free.
TEST_F(DiscoveryTest, NumberingNeedsAsManyTriesAsThereAreTypesAndSucceedsThen) {
    const auto device = std::make_shared<lumora::LinkDevice>();
    SearchResult result;
    for (const char* taken : {"T", "T1", "T12", "T123"}) {
        std::string serviceType = taken;
        EXPECT_EQ(0, result.InsertServiceDevMap(serviceType, device));
        EXPECT_EQ(taken, serviceType);
    }
    std::string numbered = "T";
    EXPECT_EQ(0, result.InsertServiceDevMap(numbered, device));
    EXPECT_EQ("T1234", numbered);
    ClientModuleProbe::EndSearch(*mModule, std::move(result));
    EXPECT_EQ(1U, Handle(1, "T1234"));
}

TEST_F(DiscoveryTest, NewSearchForgetsTheTypesOfTheLastOne) {
    AddDevice("T");
    EXPECT_EQ(0, Search());
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre("T"));
    EXPECT_EQ(1, mPlatform.LiveProxies());
}

TEST_F(DiscoveryTest, AddressKeepsTheTypeUnderWhichItWasFoundFirst) {
    AddDevice("camera");
    EXPECT_EQ(0, Search());
    mPlatform.devices = {Device("reader")};
    EXPECT_EQ(0, Search());
    mLog.Clear();
    EXPECT_EQ(0, mModule->OnRemoveDevice(7, "127.0.0.1", 5683, ""));
    EXPECT_TRUE(mLog.Has(1, "We will clear camera 's resource, handle = 0!\n"));
}

TEST_F(DiscoveryTest, LongestTypePassesAndItsNumberNoLongerFits) {
    AddDevice(LONGEST_NAME, 5683);
    AddDevice(LONGEST_NAME, 5684);
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre(LONGEST_NAME));
    ExpectOnlyError("strncpy_s failed!\n");
    EXPECT_THAT(mLog.Texts(3), ElementsAre("StoreRemoteServiceInfo error!\n"));
    EXPECT_TRUE(IsClear(mFound.devInfo[1]));
    EXPECT_EQ(1U, Handle(1, LONGEST_NAME + "1")) << "the device is known all the same";
}

TEST_F(DiscoveryTest, DamagedReplyLeavesNothingInTheEntryThatTheNextDeviceGets) {
    AddDeviceThatReplies(R"({"DevServiceType":"a long type name","ServiceNum":2,)"
                         R"("service0":{"Name":"face","transport":1,"output-len-bytes":9},"service1":{}})",
                         5683);
    AddDeviceThatReplies(R"({"DevServiceType":"T","ServiceNum":0})", 5684);
    EXPECT_EQ(0, Search());
    LUM_DEVICES_INFO_S alone = {};
    mPlatform.devices.erase(mPlatform.devices.begin());
    std::string type = "camera";
    EXPECT_EQ(0, mModule->GetNetDeviceList(type, &alone));
    EXPECT_EQ(1U, mFound.devNum);
    EXPECT_EQ(0, std::memcmp(&alone.devInfo[0], &mFound.devInfo[0], sizeof(LUM_DEVICE_INFO_S)));
    EXPECT_TRUE(IsClear(mFound.devInfo[1]));
}

TEST_F(DiscoveryTest, DamagedReplyOfTheLastDeviceLeavesItsEntryClear) {
    AddDeviceThatReplies(R"({"DevServiceType":"camera","ServiceNum":9})");
    EXPECT_EQ(0, Search());
    EXPECT_EQ(0U, mFound.devNum);
    EXPECT_TRUE(IsClear(mFound.devInfo[0]));
    std::string type = "camera";
    unsigned int handle = 0;
    EXPECT_EQ(-1, mModule->CreateAiDevice(1, type, &handle));
}

TEST_F(DiscoveryTest, EightServicesAreAccepted) {
    std::string document = R"({"DevServiceType":"camera","ServiceNum":8)";
    for (int i = 0; i < 8; ++i) {
        document += ",\"service" + std::to_string(i) + R"(":{"name":"s)" + std::to_string(i) +
                    R"(","transport":2,"output-len-bytes":1})";
    }
    AddDeviceThatReplies(document + "}");
    EXPECT_EQ(0, Search());
    EXPECT_EQ(8U, mFound.devInfo[0].serviceNum);
    EXPECT_STREQ("s7", mFound.devInfo[0].serviceInfo[7].serviceName);
}

TEST_F(DiscoveryTest, DeviceIsAskedWithoutTheModulesLock) {
    AddDevice("camera");
    bool locked = true;
    mDuring["ServiceInfo"] = [&] { locked = ClientModuleProbe::IsLocked(*mModule); };
    EXPECT_EQ(0, Search());
    EXPECT_FALSE(locked);
}

TEST_F(DiscoveryTest, DeviceThatJoinsIsOnlyLogged) {
    EXPECT_EQ(0, mModule->OnAddDevice(4000000000U, "192.0.2.1", 5683, "camera"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("OnAddDevice: we receive addr = 192.0.2.1, port = 5683, "
                                           "devType = camera, id = 4000000000!\n"));
}

// ---- Replies that cannot be used ----

struct BadReply {
    std::string name;
    std::string document;
    std::vector<std::string> errors;  // at level 4, in order
};

std::string OneService(const std::string& service) {
    return R"({"DevServiceType":"camera","ServiceNum":1,"service0":)" + service + "}";
}

std::vector<std::string> ParseErrors(const std::string& first) {
    return {first, "ParseServiceInfoString failed!\n"};
}

std::vector<std::string> ServiceErrors(const std::string& first) {
    return {first, "GetServiceString failed\n", "ParseServiceInfoString failed!\n"};
}

const BadReply BAD_REPLIES[] = {
    {"Empty", "", {"remoteInfo is empty, please check remoteInfo!\n"}},
    {"NotJson",
     "{\"DevServiceType\":", ParseErrors("cJSON_Parse failed, serInfoString = {\"DevServiceType\":\n")},
    {"TypeMissing", R"({"ServiceNum":0})", ParseErrors("cJSON_GetObjectItem DevServiceType failed\n")},
    {"TypeNoString", R"({"DevServiceType":1,"ServiceNum":0})",
     ParseErrors("cJSON_GetObjectItem DevServiceType failed\n")},
    {"TypeOf40", R"({"DevServiceType":")" + LONGEST_NAME + R"(n","ServiceNum":0})",
     ParseErrors("strncpy_s failed\n")},
    {"NumberMissing", R"({"DevServiceType":"camera"})",
     ParseErrors("cJSON_GetObjectItem ServiceNum failed\n")},
    {"NumberNoNumber", R"({"DevServiceType":"camera","ServiceNum":"0"})",
     ParseErrors("cJSON_GetObjectItem ServiceNum failed\n")},
    {"NineServices", R"({"DevServiceType":"camera","ServiceNum":9})",
     ParseErrors("devInfo->serviceNum = 9 is illegal!\n")},
    {"MinusOneServices", R"({"DevServiceType":"camera","ServiceNum":-1})",
     ParseErrors("devInfo->serviceNum = -1 is illegal!\n")},
    {"ServiceMissing", R"({"DevServiceType":"camera","ServiceNum":1})",
     ServiceErrors("cJSON_GetObjectItem service failed\n")},
    {"ServiceNoObject", OneService("[]"), ServiceErrors("cJSON_GetObjectItem service failed\n")},
    {"NameMissing", OneService(R"({"transport":1,"output-len-bytes":1})"),
     ServiceErrors("cJSON_GetObjectItem  failed\n")},
    {"TransportNoNumber", OneService(R"({"name":"face","transport":"1","output-len-bytes":1})"),
     ServiceErrors("cJSON_GetObjectItem  failed\n")},
    {"LengthMissing", OneService(R"({"name":"face","transport":1})"),
     ServiceErrors("cJSON_GetObjectItem  failed\n")},
    {"NameOf40", OneService(R"({"name":")" + LONGEST_NAME + R"(n","transport":1,"output-len-bytes":1})"),
     ServiceErrors("strncpy_s failed\n")},
    {"TransportOfSix", OneService(R"({"name":"face","transport":6,"output-len-bytes":1})"),
     ServiceErrors("ERROR:transport illegal.\n")},
    {"TransportOfMinusOne", OneService(R"({"name":"face","transport":-1,"output-len-bytes":1})"),
     ServiceErrors("ERROR:transport illegal.\n")},
};

class BadReplyTest : public DiscoveryTest, public testing::WithParamInterface<BadReply> {};

TEST_P(BadReplyTest, DeviceIsLeftOutAndTheSearchGoesOn) {
    AddDeviceThatReplies(GetParam().document, 5683);
    AddDevice("reader", 5684);
    EXPECT_EQ(0, Search());
    EXPECT_THAT(FoundTypes(), ElementsAre("reader"));
    EXPECT_EQ(GetParam().errors, mLog.Texts(4));
    EXPECT_THAT(mLog.Texts(3), ElementsAre("StoreRemoteServiceInfo error!\n"));
    EXPECT_EQ(1, mPlatform.LiveProxies());
}

INSTANTIATE_TEST_SUITE_P(Discovery, BadReplyTest, testing::ValuesIn(BAD_REPLIES),
                         [](const auto& param) { return param.param.name; });

// ---- Bounds that no platform reply reaches ----

class StoreServiceInfoTest : public DiscoveryTest {
protected:
    int Store(const std::string& info, LUM_DEVICE_INFO_S* devInfo) {
        std::string remoteInfo = info;
        return SearchResult().StoreRemoteServiceInfo(remoteInfo, std::make_shared<lumora::LinkDevice>(),
                                                     devInfo);
    }
    static std::string DocumentOfLength(std::size_t length) {
        std::string document = R"({"DevServiceType":"camera","ServiceNum":0})";
        return document + std::string(length - document.length(), ' ');
    }
    LUM_DEVICE_INFO_S mEntry = {};
};

TEST_F(StoreServiceInfoTest, NowhereToStoreIsRefusedFirst) {
    EXPECT_EQ(-1, Store("", nullptr));
    ExpectOnlyError("invalid input paramers :devInfo is null!\n");
}

TEST_F(StoreServiceInfoTest, ReplyOf1024CharactersIsAccepted) {
    EXPECT_EQ(0, Store(DocumentOfLength(1024), &mEntry));
    EXPECT_STREQ("camera", mEntry.devServiceType);
}

TEST_F(StoreServiceInfoTest, ReplyOf1025CharactersIsRefused) {
    EXPECT_EQ(-1, Store(DocumentOfLength(1025), &mEntry));
    ExpectOnlyError("remoteInfo is exceed max length!\n");
    EXPECT_THAT(mLog.Texts(2), IsEmpty());
    EXPECT_TRUE(IsClear(mEntry));
}

TEST_F(StoreServiceInfoTest, FailedCopyOfTheTypeFailsBeforeAnythingIsKnown) {
    FailBoundedCall(Bounded::STRNCPY);
    EXPECT_EQ(-1, Store(ServiceInfo("camera"), &mEntry));
    EXPECT_THAT(mLog.Texts(4), ElementsAre("strncpy_s failed\n", "ParseServiceInfoString failed!\n"));
}

}  // namespace
}  // namespace lumoraAiModule
