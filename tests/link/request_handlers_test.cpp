// The handlers by which the platform asks the registered descriptor.
#include <gmock/gmock.h>

#include <arpa/inet.h>

#include <cstring>
#include <stdexcept>

#include "link/descriptor_registry.h"
#include "tests/link/fakes.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_securec.h"
#include "tests/support/system_faults.h"

namespace lumora {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakeDescriptor;
using testing::ElementsAre;
using testing::IsEmpty;
using Call = lumora_test::FakeDescriptor::Call;

class RequestHandlersTest : public testing::Test {
protected:
    RequestHandlersTest() {
        std::shared_ptr<LinkDeviceDescriptor> descriptor = mDescriptor;
        mRecord = LinkDeviceDescriptorWrapper::Get()->RegisterDeviceDescriptor(descriptor);
        inet_pton(AF_INET, "192.168.7.9", &mRequester.address);
        mRequester.port = 40001;
        std::strcpy(mBuffer, "value");
    }
    ~RequestHandlersTest() override {
        lumora_test::ResetBoundedCalls();
        lumora_test::ResetAllocationFaults();
        LinkDeviceDescriptorWrapper::Get()->Clear();
    }

    int Get(const char* key, unsigned int size = sizeof(mBuffer)) {
        return mRecord->DoGET(mRecord.get(), &mRequester, key, mBuffer, size);
    }
    int Put(const char* key, const char* value, unsigned int length = 0) {
        return mRecord->DoPUT(mRecord.get(), &mRequester, key, value, length);
    }
    int Post(const char* key, const char* value) {
        return mRecord->DoPOST(mRecord.get(), &mRequester, key, value, 0);
    }
    int Delete(const char* key, const char* value) {
        return mRecord->DoDELETE(mRecord.get(), &mRequester, key, value, 0);
    }
    void ExpectEveryRequestFails() {
        EXPECT_EQ(-1, Get("k"));
        EXPECT_EQ(-1, Get(".sys.mediaservice.setup"));
        EXPECT_EQ(-1, Put("k", "v"));
        EXPECT_EQ(-1, Post("k", "v"));
        EXPECT_EQ(-1, Delete("k", "v"));
    }

    CapturedLog mLog;
    const std::shared_ptr<FakeDescriptor> mDescriptor = std::make_shared<FakeDescriptor>("camera");
    std::shared_ptr<AppResource> mRecord;
    RemoteEndpoint mRequester = {};
    char mBuffer[1024] = {};
};

// A vendor's platform may be unfinished.
TEST_F(RequestHandlersTest, RequestThatLacksAnArgumentIsRefusedWithAWarning) {
    AppResource* const record = mRecord.get();
    EXPECT_EQ(-1, record->DoGET(record, nullptr, "k", mBuffer, sizeof(mBuffer)));
    EXPECT_EQ(-1, record->DoGET(record, &mRequester, nullptr, mBuffer, sizeof(mBuffer)));
    EXPECT_EQ(-1, record->DoGET(record, &mRequester, "k", nullptr, sizeof(mBuffer)));
    std::size_t refused = 3;
    for (const auto handler : {record->DoPUT, record->DoPOST, record->DoDELETE}) {
        EXPECT_EQ(-1, handler(record, nullptr, "k", "v", 1));
        EXPECT_EQ(-1, handler(record, &mRequester, nullptr, "v", 1));
        EXPECT_EQ(-1, handler(record, &mRequester, "k", nullptr, 1));
        refused += 3;
    }
    EXPECT_THAT(mDescriptor->calls, IsEmpty());
    EXPECT_THAT(mLog.Texts(3), testing::AllOf(testing::SizeIs(refused),
                                              testing::Each("a request without a requester, a key or a value "
                                                            "is refused\n")));
}

TEST_F(RequestHandlersTest, GetGoesToOnGetAndTakesItsReply) {
    mDescriptor->reply = "busy";
    EXPECT_EQ(0, Get("TransStatus"));
    EXPECT_STREQ("busy", mBuffer);
    EXPECT_THAT(mDescriptor->calls, ElementsAre(Call{"OnGet", "192.168.7.9", 40001, "TransStatus", "value"}));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(RequestHandlersTest, SetupKeyGoesToOnSetupMediaService) {
    mDescriptor->reply = "Succ";
    EXPECT_EQ(0, Get(".sys.mediaservice.setup"));
    EXPECT_STREQ("Succ", mBuffer);
    EXPECT_THAT(mDescriptor->calls,
                ElementsAre(Call{"OnSetupMediaService", "192.168.7.9", 40001, "", "value"}));
}

TEST_F(RequestHandlersTest, SetupKeyIsComparedExactly) {
    for (const char* key : {"", ".sys.mediaservice.Setup", ".sys.mediaservice.setup2", ".sys.mediaservice"}) {
        EXPECT_EQ(0, Get(key));
        EXPECT_EQ("OnGet", mDescriptor->calls.back().handler) << key;
    }
}

TEST_F(RequestHandlersTest, SetupKeyIsOrdinaryToOtherRequests) {
    EXPECT_EQ(0, Put(".sys.mediaservice.setup", "v"));
    EXPECT_EQ("OnPut", mDescriptor->calls.back().handler);
}

TEST_F(RequestHandlersTest, PutPostAndDeleteGoToTheirHandlers) {
    EXPECT_EQ(0, Put("StopTransport", "now"));
    EXPECT_EQ(0, Post("Command", "{}"));
    EXPECT_EQ(0, Delete("x", ""));
    EXPECT_THAT(mDescriptor->calls, ElementsAre(Call{"OnPut", "192.168.7.9", 40001, "StopTransport", "now"},
                                                Call{"OnPost", "192.168.7.9", 40001, "Command", "{}"},
                                                Call{"OnDelete", "192.168.7.9", 40001, "x", ""}));
}

TEST_F(RequestHandlersTest, ValueEndsAtItsTerminatorWhateverItsLength) {
    EXPECT_EQ(0, Put("k", "ab\0cd", 5));
    EXPECT_EQ("ab", mDescriptor->calls.back().value);
    EXPECT_EQ(0, Put("k", "abcd", 2));
    EXPECT_EQ("abcd", mDescriptor->calls.back().value);
}

TEST_F(RequestHandlersTest, RefusedRequestsFail) {
    mDescriptor->handles = false;
    mDescriptor->reply = "a reply that is not read";
    ExpectEveryRequestFails();
    EXPECT_STREQ("value", mBuffer);
    EXPECT_EQ(5U, mDescriptor->calls.size());
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(RequestHandlersTest, LongReplyIsCutToTheBuffer) {
    mDescriptor->reply = std::string(300, 'r');
    std::memset(mBuffer + 100, '#', 10);
    EXPECT_EQ(0, Get("k", 100));
    EXPECT_EQ(std::string(99, 'r'), mBuffer);
    EXPECT_EQ('#', mBuffer[100]);
}

TEST_F(RequestHandlersTest, ReplyThatFitsExactlyIsWhole) {
    mDescriptor->reply = "1234";
    EXPECT_EQ(0, Get("k", 5));
    EXPECT_STREQ("1234", mBuffer);
    EXPECT_EQ(0, Get("k", 4));
    EXPECT_STREQ("123", mBuffer);
}

TEST_F(RequestHandlersTest, EmptyReplyEmptiesTheBuffer) {
    EXPECT_EQ(0, Get("k"));
    EXPECT_STREQ("", mBuffer);
}

TEST_F(RequestHandlersTest, BufferOfOneByteTakesTheTerminator) {
    mDescriptor->reply = "1234";
    mBuffer[0] = '\0';
    mBuffer[1] = '#';
    EXPECT_EQ(0, Get("k", 1));
    EXPECT_EQ('\0', mBuffer[0]);
    EXPECT_EQ('#', mBuffer[1]);
}

TEST_F(RequestHandlersTest, BufferWithoutRoomFailsTheCopy) {
    mDescriptor->reply = "1234";
    EXPECT_EQ(-1, Get("k", 0));
    EXPECT_STREQ("value", mBuffer);
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memcpy_s failed\n"));
}

TEST_F(RequestHandlersTest, ReplyThatCannotBeCopiedFails) {
    mDescriptor->reply = "1234";
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY, 2);  // the first is the address
    EXPECT_EQ(-1, Get("k"));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memcpy_s failed\n"));
    EXPECT_EQ("192.168.7.9", mDescriptor->calls.back().address);
}

TEST_F(RequestHandlersTest, RequesterThatCannotBeCopiedIsUnknownButServed) {
    lumora_test::FailBoundedCall(lumora_test::Bounded::MEMCPY);
    EXPECT_EQ(0, Post("k", "v"));
    EXPECT_THAT(mDescriptor->calls, ElementsAre(Call{"OnPost", "", 0, "k", "v"}));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("memcpy_s failed\n"));
}

TEST_F(RequestHandlersTest, PortOfTheRequesterIsTakenAsItStands) {
    for (const int port : {0, 1, 65535, 70000, -1}) {
        mRequester.port = port;
        EXPECT_EQ(0, Post("k", "v"));
        EXPECT_EQ(port, mDescriptor->calls.back().port);
    }
}

TEST_F(RequestHandlersTest, AddressOfTheRequesterIsWrittenWithDots) {
    for (const char* address : {"0.0.0.0", "255.255.255.255", "1.2.3.4"}) {
        inet_pton(AF_INET, address, &mRequester.address);
        EXPECT_EQ(0, Post("k", "v"));
        EXPECT_EQ(address, mDescriptor->calls.back().address);
    }
}

TEST_F(RequestHandlersTest, ExceptionsOfHandlersAreFailures) {
    mDescriptor->onCall = [] { throw std::invalid_argument("stoi"); };
    ExpectEveryRequestFails();
    EXPECT_EQ(5U, mDescriptor->calls.size());
    EXPECT_STREQ("value", mBuffer);
}

TEST_F(RequestHandlersTest, WhateverIsThrownIsAFailure) {
    mDescriptor->onCall = [] { throw 7; };
    ExpectEveryRequestFails();
}

TEST_F(RequestHandlersTest, ExceptionOfADescriptionMeansNoDescription) {
    mDescriptor->onDescribe = [] { throw std::runtime_error("none"); };
    EXPECT_EQ(nullptr, mRecord->DoGetDescriptor(mRecord.get()));
}

TEST_F(RequestHandlersTest, DescriptionIsTheDescriptorsOwnText) {
    EXPECT_EQ(mDescriptor->GetDescriptor().c_str(), mRecord->DoGetDescriptor(mRecord.get()));
}

TEST_F(RequestHandlersTest, LackOfMemoryIsAFailure) {
    const std::string key(100, 'k');  // does not fit into a short text
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, Get(key.c_str()));
    lumora_test::FailAllocation();
    EXPECT_EQ(-1, Post("k", key.c_str()));
    EXPECT_THAT(mDescriptor->calls, IsEmpty());
}

TEST_F(RequestHandlersTest, ClearedRegistryRefusesRequests) {
    LinkDeviceDescriptorWrapper::Get()->Clear();
    ExpectEveryRequestFails();
    EXPECT_EQ(nullptr, mRecord->DoGetDescriptor(mRecord.get()));
    EXPECT_THAT(mDescriptor->calls, IsEmpty());
    EXPECT_STREQ("value", mBuffer);
}

TEST_F(RequestHandlersTest, RegistrationMayBeReplacedFromWithinAHandler) {
    mDescriptor->reply = "served";
    mDescriptor->onCall = [] { LinkDeviceDescriptorWrapper::Get()->Clear(); };
    EXPECT_EQ(0, Get("k"));
    EXPECT_STREQ("served", mBuffer);
    EXPECT_EQ(-1, Get("k"));
}

}  // namespace
}  // namespace lumora
