#include <cstring>

#include "tests/server/server_fixture.h"
#include "tests/support/json_allocations.h"

namespace lumora_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* EVERY_NAME[] = {"s1", "s2", "s3", "s4", "s5", "s6", "s7", "s8"};

class ServerRegistrationTest : public ServerModuleTest {
protected:
    ServerRegistrationTest() { Start(); }

    int RegisterRecord(const LUM_DEVICE_INFO_S& info) {
        mLog.Clear();
        return mModule->RegisterLocalDeviceInfo(&info);
    }

    // A record of eight services whose document has so many characters: each quotation mark takes two.
    static LUM_DEVICE_INFO_S DescribeWithDocumentOf(int length) {
        const std::string longName(LUM_NAME_SIZE, 'n');
        LUM_DEVICE_INFO_S info = Application::Describe(Texts(8, longName), std::string(LUM_NAME_SIZE, 't'));
        int missing = length - DOCUMENT_LENGTH_OF_LONGEST_NAMES;
        for (LUM_SERVICE_INFO_S& service : info.serviceInfo) {
            for (int i = 0; i < LUM_NAME_SIZE && missing > 0; ++i, --missing) {
                service.serviceName[i] = '"';
            }
        }
        return info;
    }

    static constexpr int DOCUMENT_LENGTH_OF_LONGEST_NAMES = 75 + 8 * (21 + 40 + 14 + 1 + 20 + 4 + 1) + 1;
};

// ---- Refusals ----

TEST_F(ServerRegistrationTest, NullRecordIsRefused) {
    mLog.Clear();
    EXPECT_EQ(-1, mModule->RegisterLocalDeviceInfo(nullptr));
    EXPECT_THAT(Errors(), ElementsAre("invalid input paramers!\n"));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n"));
}

TEST_F(ServerRegistrationTest, RecordWithoutServicesIsRefusedAndLeavesTheEarlierOne) {
    Register({"face"});
    EXPECT_EQ(-1, RegisterRecord(Application::Describe({}, "reader")));
    EXPECT_THAT(Errors(), ElementsAre("invalid input paramers!\n"));
    EXPECT_EQ(ServiceInfo("camera"), ServiceInfoText());
    EXPECT_EQ(0, Subscribe(3, "face"));
}

// ---- The document ----

TEST_F(ServerRegistrationTest, DocumentNamesTypeAndServicesInOrder) {
    LUM_DEVICE_INFO_S info = Application::Describe({"faceDetect", "bodyTrack"}, "reader");
    info.serviceInfo[0].transport = LUM_TRANSPORT_UDP;
    info.serviceInfo[1].outputLenBytes = 0;
    EXPECT_EQ(0, RegisterRecord(info));
    const std::string document = R"({"DevServiceType":"reader","ServiceNum":2,)"
                                 R"("service0":{"Name":"faceDetect","transport":1,"output-len-bytes":1024},)"
                                 R"("service1":{"Name":"bodyTrack","transport":2,"output-len-bytes":0}})";
    EXPECT_EQ(document, mPlatform.Get("ServiceInfo").reply);
    EXPECT_EQ(1, mLog.Count(1, "User register mLocalServiceInfo:" + document + "\n"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerRegistrationTest, RegistrationLogsEntryAndExit) {
    EXPECT_EQ(0, RegisterRecord(Application::Describe({"face"})));
    EXPECT_THAT(mLog.Texts(0), ElementsAre("Enter\n", "Out\n"));
}

TEST_F(ServerRegistrationTest, OneToEightServicesAreRegistered) {
    Texts names;
    for (const char* name : EVERY_NAME) {
        names.push_back(name);
        EXPECT_EQ(0, RegisterRecord(Application::Describe(names)));
        EXPECT_THAT(ServiceInfoText(),
                    testing::HasSubstr(R"("ServiceNum":)" + std::to_string(names.size()) + ","));
        for (const std::string& registered : names) {
            EXPECT_EQ(0, Subscribe(3, registered)) << registered;
        }
    }
}

// Behind the eighth stand the callbacks.
TEST_F(ServerRegistrationTest, NinthServiceIsNeverRead) {
    const Texts names(std::begin(EVERY_NAME), std::end(EVERY_NAME));
    EXPECT_EQ(0, RegisterRecord(Application::Describe(names)));
    const std::string document = ServiceInfoText();
    for (const unsigned int serviceNum : {9U, 0x7fffffffU, 0xffffffffU}) {
        LUM_DEVICE_INFO_S info = Application::Describe(names);
        info.serviceNum = serviceNum;
        EXPECT_EQ(0, RegisterRecord(info));
        EXPECT_EQ(document, ServiceInfoText());
    }
}

TEST_F(ServerRegistrationTest, NegativeTransportIsWrittenAsItIs) {
    LUM_DEVICE_INFO_S info = Application::Describe({"face"});
    const int negative = -1;
    std::memcpy(&info.serviceInfo[0].transport, &negative, sizeof(negative));
    EXPECT_EQ(0, RegisterRecord(info));
    EXPECT_THAT(ServiceInfoText(), testing::HasSubstr(R"("transport":-1,)"));
}

TEST_F(ServerRegistrationTest, OutputLengthIsWrittenUnsigned) {
    for (const unsigned int length : {0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        LUM_DEVICE_INFO_S info = Application::Describe({"face"});
        info.serviceInfo[0].outputLenBytes = length;
        EXPECT_EQ(0, RegisterRecord(info));
        EXPECT_THAT(ServiceInfoText(),
                    testing::HasSubstr(R"("output-len-bytes":)" + std::to_string(length) + "}"));
    }
}

TEST_F(ServerRegistrationTest, NamesMayFillTheirFieldsWithoutATerminator) {
    const std::string type(LUM_NAME_SIZE, 't');
    const std::string name(LUM_NAME_SIZE, 'n');
    LUM_DEVICE_INFO_S info = Application::Describe({name}, type);
    info.serviceInfo[0].outputLenBytes = 0x41414141;  // the neighbours would read as text
    const int neighbour = 0x41414141;
    std::memcpy(&info.serviceInfo[0].transport, &neighbour, sizeof(neighbour));
    EXPECT_EQ(0, RegisterRecord(info));
    EXPECT_EQ(R"({"DevServiceType":")" + type + R"(","ServiceNum":1,"service0":{"Name":")" + name +
                  R"(","transport":1094795585,"output-len-bytes":1094795585}})",
              ServiceInfoText());
}

TEST_F(ServerRegistrationTest, DocumentOf1024CharactersIsTheLongest) {
    EXPECT_EQ(0, RegisterRecord(DescribeWithDocumentOf(1024)));
    EXPECT_EQ(1024U, ServiceInfoText().size());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(ServerRegistrationTest, DocumentOf1025CharactersIsRefusedAndTheTextIsEmptyThen) {
    const LUM_DEVICE_INFO_S info = DescribeWithDocumentOf(1025);
    EXPECT_EQ(-1, RegisterRecord(info));
    EXPECT_THAT(Errors(), ElementsAre("mLocalServiceInfo exceed the max length!!\n"));
    EXPECT_THAT(mLog.Texts(1), IsEmpty());
    const Answer answer = mPlatform.Get("ServiceInfo");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ("", answer.reply);
}

TEST_F(ServerRegistrationTest, ServicesStayWhenTheDocumentIsTooLong) {
    LUM_DEVICE_INFO_S info = Application::Describe({"face"}, std::string(LUM_NAME_SIZE, '\x01'));
    for (info.serviceNum = 1; info.serviceNum < LUM_MAX_SERVICES; ++info.serviceNum) {
        SetName(info.serviceInfo[info.serviceNum].serviceName, std::string(LUM_NAME_SIZE, '\x02'));
    }
    EXPECT_EQ(-1, RegisterRecord(info));
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face")));
}

// ---- Services of an earlier registration, and equal names ----

TEST_F(ServerRegistrationTest, SecondRegistrationReplacesTheFirst) {
    Register({"face", "body"});
    Register({"text"});
    EXPECT_EQ(ServiceInfo("camera", "text"), ServiceInfoText());
    EXPECT_EQ(-1, Subscribe(3, "face"));
    EXPECT_EQ(-1, Subscribe(3, "body"));
    EXPECT_EQ(0, Subscribe(3, "text"));
}

TEST_F(ServerRegistrationTest, SecondRegistrationDropsSubscriptionsWithoutAnEvent) {
    Register({"face"});
    EXPECT_EQ(0, Subscribe(3, "face"));
    Register({"face"});
    mLog.Clear();
    EXPECT_EQ(-1, Unsubscribe(3, "face"));
    EXPECT_TRUE(mLog.Has(4, "Client : 3 has not subscribed face service!!\n")) << mLog.Dump();
    EXPECT_THAT(mApplication.Notifications(), ElementsAre(Subscribed(3, "face")));
}

TEST_F(ServerRegistrationTest, EqualNamesShareOneListOfSubscribers) {
    EXPECT_EQ(0, RegisterRecord(Application::Describe({"face", "face"})));
    EXPECT_THAT(ServiceInfoText(), testing::HasSubstr(R"("ServiceNum":2,"service0":{"Name":"face")"));
    EXPECT_THAT(ServiceInfoText(), testing::HasSubstr(R"("service1":{"Name":"face")"));
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_EQ(0, Subscribe(3, "face"));
    EXPECT_EQ(1U, mApplication.Notifications().size());
}

TEST_F(ServerRegistrationTest, RecordIsCopied) {
    {
        const auto info = std::make_unique<LUM_DEVICE_INFO_S>(Application::Describe({"face"}));
        EXPECT_EQ(0, RegisterRecord(*info));
    }
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_THAT(mApplication.Commands(), ElementsAre(Command("SetMode", "night")));
}

// ---- Failures on the way ----

TEST_F(ServerRegistrationTest, RecordThatCannotBeClearedFailsTheRegistration) {
    Register({"face"});
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, RegisterRecord(Application::Describe({"text"}, "reader")));
    EXPECT_THAT(Errors(), ElementsAre("memset_s failed\n"));
    EXPECT_EQ(ServiceInfo("camera", "face"), ServiceInfoText());  // the document is built last
    EXPECT_EQ(0, Subscribe(3, "text"));                           // the services came first
}

TEST_F(ServerRegistrationTest, RecordThatCannotBeCopiedLeavesNoCallbacks) {
    Register({"face"});
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, RegisterRecord(Application::Describe({"text"})));
    EXPECT_THAT(Errors(), ElementsAre("memcpy_s failed\n"));
    mLog.Clear();
    EXPECT_EQ(0, Cmd(3, "SetMode", "night"));
    EXPECT_THAT(Errors(), ElementsAre("User register mDevInfo error!\n"));
}

TEST_F(ServerRegistrationTest, DocumentThatCannotBeBuiltFailsTheRegistration) {
    Register({"face"});
    const LUM_DEVICE_INFO_S info = Application::Describe({"text", "body"});
    const int failures = WithEachJsonAllocationFailing(
        [&] { return RegisterRecord(info); },
        [&](int n, int result, int leaked) {
            EXPECT_EQ(-1, result) << n;
            EXPECT_EQ(0, leaked) << n;
            EXPECT_THAT(Errors(), ElementsAre("RegisterAiDevInfo  Failed!!\n")) << n;
            EXPECT_EQ(ServiceInfo("camera", "face"), ServiceInfoText()) << n;
            EXPECT_EQ(0, Subscribe(3, "text")) << n;
        });
    EXPECT_LT(20, failures);
}

TEST_F(ServerRegistrationTest, LackOfMemoryForAServiceFailsTheRegistrationAndKeepsTheServicesBeforeIt) {
    Register({"old"});
    const LUM_DEVICE_INFO_S info = Application::Describe({"face", "body"});
    int failures = 0;
    for (int n = 1; n < 100; ++n) {
        mLog.Clear();
        FailAllocation(n);
        int ret = -1;
        try {
            ret = mModule->RegisterLocalDeviceInfo(&info);
        } catch (const std::bad_alloc&) {
        }
        const bool reached = !AllocationFailurePending();
        ResetAllocationFaults();
        EXPECT_EQ(reached ? -1 : 0, ret);
        if (!reached) {
            break;
        }
        if (mLog.Has(4, "new memory LumoraServiceManager error!\n")) {
            EXPECT_EQ(1U, Errors().size()) << mLog.Dump();
            ++failures;
            EXPECT_EQ(failures == 2 ? 0 : -1, Subscribe(3, "face"));
            EXPECT_EQ(-1, Subscribe(3, "body"));
            EXPECT_EQ(-1, Subscribe(3, "old"));
        }
    }
    EXPECT_EQ(2, failures);  // one for each service
    EXPECT_EQ(0, Subscribe(3, "body"));
}

}  // namespace
}  // namespace lumora_test
