// The document by which a device describes its services.
#include <gmock/gmock.h>

#include <cstring>

#include "protocol/control_documents.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/json_allocations.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char TWO_SERVICES[] = R"({"DevServiceType":"camera","ServiceNum":2,)"
                                R"("service0":{"Name":"faceDetect","transport":1,"output-len-bytes":1024},)"
                                R"("service1":{"Name":"bodyTrack","transport":1,"output-len-bytes":2048}})";

LUM_SERVICE_INFO_S Service(const std::string& name, int transport, unsigned int outputLenBytes) {
    LUM_SERVICE_INFO_S service;
    std::memset(&service, 0, sizeof(service));
    std::memcpy(service.serviceName, name.data(), name.size());
    service.transport = static_cast<LUM_TRANSPORT_E>(transport);
    service.outputLenBytes = outputLenBytes;
    return service;
}

// A document of one service with these members.
std::string OneService(const std::string& members) {
    return R"({"DevServiceType":"camera","ServiceNum":1,"service0":{)" + members + "}}";
}

class ServiceInfoWriteTest : public testing::Test {
protected:
    CapturedLog mLog;
    std::string mDocument = "before";
};

TEST_F(ServiceInfoWriteTest, DocumentIsWrittenToTheLetter) {
    EXPECT_EQ(0, GetServiceInfoString(
                     "camera", {Service("faceDetect", 1, 1024), Service("bodyTrack", 1, 2048)}, mDocument));
    EXPECT_EQ(TWO_SERVICES, mDocument);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ServiceInfoWriteTest, DeviceWithoutServicesIsWritten) {
    EXPECT_EQ(0, GetServiceInfoString("camera", {}, mDocument));
    EXPECT_EQ(R"({"DevServiceType":"camera","ServiceNum":0})", mDocument);
}

TEST_F(ServiceInfoWriteTest, NameThatFillsItsFieldIsWrittenWithoutItsNeighbour) {
    LUM_SERVICE_INFO_S service = Service(std::string(40, 'n'), 5, 0);
    EXPECT_EQ(0, GetServiceInfoString("c", {service}, mDocument));
    EXPECT_EQ(R"({"DevServiceType":"c","ServiceNum":1,"service0":{"Name":")" + std::string(40, 'n') +
                  R"(","transport":5,"output-len-bytes":0}})",
              mDocument);
}

TEST_F(ServiceInfoWriteTest, LargestOutputLengthIsWrittenInDigits) {
    EXPECT_EQ(0, GetServiceInfoString("c", {Service("f", 0, 4294967295U)}, mDocument));
    EXPECT_THAT(mDocument, testing::HasSubstr(R"("output-len-bytes":4294967295})"));
}

TEST_F(ServiceInfoWriteTest, ServicesAreNumberedInOrder) {
    std::vector<LUM_SERVICE_INFO_S> services;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) {
        services.push_back(Service(name, 2, 1));
    }
    EXPECT_EQ(0, GetServiceInfoString("camera", services, mDocument));
    EXPECT_THAT(mDocument, testing::HasSubstr(R"("ServiceNum":8)"));
    EXPECT_LT(mDocument.find(R"("service0":{"Name":"a")"), mDocument.find(R"("service7":{"Name":"h")"));
    EXPECT_NE(std::string::npos, mDocument.find(R"("service7":{"Name":"h")"));
}

TEST_F(ServiceInfoWriteTest, LackOfMemoryFailsWithoutAMessageOrALeak) {
    const std::vector<LUM_SERVICE_INFO_S> services = {Service("a", 1, 2), Service("b", 3, 4)};
    const int failures = lumora_test::WithEachJsonAllocationFailing(
        [&] { return GetServiceInfoString("camera", services, mDocument); },
        [&](int n, int result, int live) {
            EXPECT_EQ(-1, result) << "allocation " << n;
            EXPECT_EQ(0, live) << "allocation " << n;
            EXPECT_EQ("before", mDocument) << "allocation " << n;
        });
    EXPECT_GE(failures, 20);
    EXPECT_THAT(mLog.Lines(), IsEmpty()) << mLog.Dump();
}

class ServiceInfoReadTest : public testing::Test {
protected:
    ServiceInfoReadTest() { std::memset(&mDevice, 0, sizeof(mDevice)); }
    ~ServiceInfoReadTest() override { lumora_test::ResetBoundedCalls(); }

    int Parse(const std::string& document) {
        mLog.Clear();
        std::memset(&mDevice, 0, sizeof(mDevice));
        return ParseServiceInfoString(document, &mDevice);
    }
    void ExpectRefused(const std::string& document, const std::string& message) {
        EXPECT_EQ(-1, Parse(document)) << document;
        EXPECT_THAT(mLog.Texts(4), ElementsAre(message)) << document;
    }
    // What is wrong with a service is told twice.
    void ExpectServiceRefused(const std::string& document, const std::string& message) {
        EXPECT_EQ(-1, Parse(document)) << document;
        EXPECT_THAT(mLog.Texts(4), ElementsAre(message, "GetServiceString failed\n")) << document;
    }

    CapturedLog mLog;
    LUM_DEVICE_INFO_S mDevice;
};

TEST_F(ServiceInfoReadTest, DocumentArrivesWhole) {
    EXPECT_EQ(0, Parse(TWO_SERVICES)) << mLog.Dump();
    EXPECT_STREQ("camera", mDevice.devServiceType);
    ASSERT_EQ(2U, mDevice.serviceNum);
    EXPECT_STREQ("faceDetect", mDevice.serviceInfo[0].serviceName);
    EXPECT_EQ(LUM_TRANSPORT_UDP, mDevice.serviceInfo[0].transport);
    EXPECT_EQ(1024U, mDevice.serviceInfo[0].outputLenBytes);
    EXPECT_STREQ("bodyTrack", mDevice.serviceInfo[1].serviceName);
    EXPECT_EQ(2048U, mDevice.serviceInfo[1].outputLenBytes);
    EXPECT_EQ(nullptr, mDevice.OnCommand);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(ServiceInfoReadTest, KeysAreMatchedWithoutRegardToCase) {
    EXPECT_EQ(0, Parse(R"({"devservicetype":"c","SERVICENUM":1,"Service0":)"
                       R"({"NAME":"f","Transport":3,"Output-Len-Bytes":9}})"));
    EXPECT_STREQ("f", mDevice.serviceInfo[0].serviceName);
    EXPECT_EQ(9U, mDevice.serviceInfo[0].outputLenBytes);
}

TEST_F(ServiceInfoReadTest, EightServicesAreRead) {
    std::vector<LUM_SERVICE_INFO_S> services;
    for (unsigned int i = 0; i < 8; ++i) {
        services.push_back(Service("s" + std::to_string(i), 2, i));
    }
    std::string document;
    ASSERT_EQ(0, GetServiceInfoString("camera", services, document));
    EXPECT_EQ(0, Parse(document));
    EXPECT_EQ(8U, mDevice.serviceNum);
    for (unsigned int i = 0; i < 8; ++i) {
        EXPECT_EQ("s" + std::to_string(i), mDevice.serviceInfo[i].serviceName);
        EXPECT_EQ(i, mDevice.serviceInfo[i].outputLenBytes);
    }
}

TEST_F(ServiceInfoReadTest, OtherNumbersOfServicesAreRefused) {
    const std::pair<const char*, const char*> numbers[] = {{"9", "9"},
                                                           {"-1", "-1"},
                                                           {"1e999", "2147483647"},
                                                           {"-1e999", "-2147483648"},
                                                           {"4294967297", "2147483647"}};
    for (const auto& [written, read] : numbers) {
        ExpectRefused(R"({"DevServiceType":"c","ServiceNum":)" + std::string(written) + "}",
                      "devInfo->serviceNum = " + std::string(read) + " is illegal!\n");
    }
}

TEST_F(ServiceInfoReadTest, NoServicesMakeADeviceWithoutServices) {
    EXPECT_EQ(0, Parse(R"({"DevServiceType":"camera","ServiceNum":0})"));
    EXPECT_EQ(0U, mDevice.serviceNum);
    EXPECT_STREQ("camera", mDevice.devServiceType);
}

TEST_F(ServiceInfoReadTest, WhatIsNoDocumentIsRefusedAndLogged) {
    for (const std::string text : {"", "{", "busy", "NaN", R"({"ServiceNum":nan})"}) {
        ExpectRefused(text, "cJSON_Parse failed, serInfoString = " + text + "\n");
    }
}

TEST_F(ServiceInfoReadTest, FormatsInAHostileTextAreNotExpanded) {
    ExpectRefused("%s%n%d", "cJSON_Parse failed, serInfoString = %s%n%d\n");
}

TEST_F(ServiceInfoReadTest, TooDeepNestingIsRefused) {
    const std::string text(100000, '[');
    EXPECT_EQ(-1, Parse(text));
    ASSERT_EQ(1U, mLog.Texts(4).size());
    EXPECT_THAT(mLog.Texts(4)[0], testing::StartsWith("cJSON_Parse failed, serInfoString = [[["));
}

TEST_F(ServiceInfoReadTest, DeviceTypeThatIsMissingOrNoTextIsRefused) {
    const std::string message = "cJSON_GetObjectItem DevServiceType failed\n";
    for (const char* text : {"{}", "[]", "3", "null", R"({"ServiceNum":0})"}) {
        ExpectRefused(text, message);
    }
    for (const char* type : {"3", "null", "true", "[]", "{}"}) {
        ExpectRefused(R"({"DevServiceType":)" + std::string(type) + R"(,"ServiceNum":0})", message);
    }
}

TEST_F(ServiceInfoReadTest, DeviceTypeOf39CharactersIsRead) {
    const std::string type(39, 't');
    EXPECT_EQ(0, Parse(R"({"DevServiceType":")" + type + R"(","ServiceNum":0})"));
    EXPECT_EQ(type, mDevice.devServiceType);
}

TEST_F(ServiceInfoReadTest, DeviceTypeOf40CharactersIsRefused) {
    ExpectRefused(R"({"DevServiceType":")" + std::string(40, 't') + R"(","ServiceNum":0})",
                  "strncpy_s failed\n");
}

TEST_F(ServiceInfoReadTest, NumberOfServicesThatIsMissingOrNoNumberIsRefused) {
    const std::string message = "cJSON_GetObjectItem ServiceNum failed\n";
    ExpectRefused(R"({"DevServiceType":"c"})", message);
    for (const char* number : {R"("1")", "null", "true", "[]", "{}"}) {
        ExpectRefused(R"({"DevServiceType":"c","ServiceNum":)" + std::string(number) + "}", message);
    }
}

TEST_F(ServiceInfoReadTest, DeviceTypeIsReadBeforeTheNumberOfServices) {
    ExpectRefused(R"({"DevServiceType":")" + std::string(40, 't') + R"(","ServiceNum":"9"})",
                  "strncpy_s failed\n");
}

TEST_F(ServiceInfoReadTest, ServiceThatIsMissingOrNoObjectIsRefused) {
    const std::string message = "cJSON_GetObjectItem service failed\n";
    ExpectServiceRefused(R"({"DevServiceType":"c","ServiceNum":1})", message);
    for (const char* service : {"3", "null", "true", "[]", R"("f")"}) {
        ExpectServiceRefused(
            R"({"DevServiceType":"c","ServiceNum":1,"service0":)" + std::string(service) + "}", message);
    }
    ExpectServiceRefused(R"({"DevServiceType":"c","ServiceNum":2,"service0":)"
                         R"({"Name":"f","transport":1,"output-len-bytes":2}})",
                         message);
}

TEST_F(ServiceInfoReadTest, ServiceWithAMissingMemberIsRefused) {
    const std::string message = "cJSON_GetObjectItem  failed\n";
    ExpectServiceRefused(OneService(""), message);
    ExpectServiceRefused(OneService(R"("transport":1,"output-len-bytes":2)"), message);
    ExpectServiceRefused(OneService(R"("Name":"f","output-len-bytes":2)"), message);
    ExpectServiceRefused(OneService(R"("Name":"f","transport":1)"), message);
}

TEST_F(ServiceInfoReadTest, ServiceWithAMemberOfAWrongTypeIsRefused) {
    const std::string message = "cJSON_GetObjectItem  failed\n";
    for (const std::string wrong : {"null", "true", "[]", "{}"}) {
        ExpectServiceRefused(OneService(R"("Name":)" + wrong + R"(,"transport":1,"output-len-bytes":2)"),
                             message);
        ExpectServiceRefused(OneService(R"("Name":"f","transport":)" + wrong + R"(,"output-len-bytes":2)"),
                             message);
        ExpectServiceRefused(OneService(R"("Name":"f","transport":1,"output-len-bytes":)" + wrong), message);
    }
    ExpectServiceRefused(OneService(R"("Name":7,"transport":1,"output-len-bytes":2)"), message);
    ExpectServiceRefused(OneService(R"("Name":"f","transport":"1","output-len-bytes":2)"), message);
    ExpectServiceRefused(OneService(R"("Name":"f","transport":1,"output-len-bytes":"2")"), message);
}

TEST_F(ServiceInfoReadTest, ServiceNameOf39CharactersIsRead) {
    const std::string name(39, 'n');
    EXPECT_EQ(0, Parse(OneService(R"("Name":")" + name + R"(","transport":1,"output-len-bytes":2)")));
    EXPECT_EQ(name, mDevice.serviceInfo[0].serviceName);
}

TEST_F(ServiceInfoReadTest, ServiceNameOf40CharactersIsRefusedBeforeItsTransport) {
    ExpectServiceRefused(
        OneService(R"("Name":")" + std::string(40, 'n') + R"(","transport":9,"output-len-bytes":2)"),
        "strncpy_s failed\n");
}

TEST_F(ServiceInfoReadTest, TransportsAreZeroToFive) {
    for (const char* transport : {"0", "5"}) {
        EXPECT_EQ(
            0, Parse(OneService(R"("Name":"f","output-len-bytes":2,"transport":)" + std::string(transport))));
    }
    for (const char* transport : {"-1", "6", "1e999", "-1e999", "4294967296"}) {
        ExpectServiceRefused(
            OneService(R"("Name":"f","output-len-bytes":2,"transport":)" + std::string(transport)),
            "ERROR:transport illegal.\n");
    }
}

TEST_F(ServiceInfoReadTest, OutputLengthsAboveTheLargestIntegerAreReadAsThatOne) {
    for (const char* length : {"2147483647", "2147483648", "4294967295", "1e999"}) {
        EXPECT_EQ(0,
                  Parse(OneService(R"("Name":"f","transport":1,"output-len-bytes":)" + std::string(length))));
        EXPECT_EQ(2147483647U, mDevice.serviceInfo[0].outputLenBytes) << length;
    }
}

TEST_F(ServiceInfoReadTest, CopiesThatFailFailTheDocument) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::STRNCPY);
    ExpectRefused(TWO_SERVICES, "strncpy_s failed\n");
    lumora_test::FailBoundedCall(lumora_test::Bounded::STRNCPY, 2);
    ExpectServiceRefused(TWO_SERVICES, "strncpy_s failed\n");
}

TEST_F(ServiceInfoReadTest, NoPathLeaksTheTree) {
    lumora_test::JsonAllocations memory;
    for (const std::string document : {TWO_SERVICES, "{}", R"({"DevServiceType":"c","ServiceNum":9})",
                                       R"({"DevServiceType":"c","ServiceNum":1})"}) {
        Parse(document);
        EXPECT_EQ(0, memory.Live()) << document;
    }
}

TEST_F(ServiceInfoReadTest, LackOfMemoryIsAFailedParse) {
    const int failures =
        lumora_test::WithEachJsonAllocationFailing([&] { return Parse(TWO_SERVICES); },
                                                   [&](int n, int result, int live) {
                                                       EXPECT_EQ(-1, result) << "allocation " << n;
                                                       EXPECT_EQ(0, live) << "allocation " << n;
                                                   });
    EXPECT_GE(failures, 15);
}

}  // namespace
}  // namespace lumoraAiModule
