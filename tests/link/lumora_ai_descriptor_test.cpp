#include "link/lumora_ai_descriptor.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "link/smart_home_link.h"
#include "tests/support/captured_log.h"
#include "tests/support/fake_platform.h"

namespace lumoraAiModule {
namespace {

using lumora_test::CapturedLog;
using lumora_test::FakePlatform;
using testing::_;
using testing::DoAll;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;
using testing::SetArgReferee;
using testing::Throw;

class MockCoapCallback : public LumoraCoapCallback {
public:
    MOCK_METHOD(int, OnCoapGet, (const std::string& key, std::string& value), (override));
    MOCK_METHOD(int, OnCoapPut, (const std::string& key, const std::string& value), (override));
    MOCK_METHOD(int, OnCoapPost, (const std::string& key, const std::string& value), (override));
    MOCK_METHOD(int, OnCoapDelete, (const std::string& key, const std::string& value), (override));
    MOCK_METHOD(int, OnSetupMediaService,
                (const lumora::LinkDeviceDescriptor::Port& remote, std::string& value), (override));
};

class LumoraAiDescriptorTest : public testing::Test {
protected:
    LumoraAiDescriptorTest() { mRemote.SetAddress("10.0.0.7"); }

    CapturedLog mLog;
    std::string mText = "camera";
    testing::StrictMock<MockCoapCallback> mCallback;
    LumoraAiDescriptor mDescriptor{&mCallback, mText};
    lumora::LinkDeviceDescriptor::Port mRemote;
    std::string mValue = "asked";
};

TEST_F(LumoraAiDescriptorTest, DescribesItselfByTheTextItWasGiven) {
    mText = "changed later";
    EXPECT_EQ("camera", mDescriptor.GetDescriptor());
    EXPECT_EQ("changed later", LumoraAiDescriptor(mText).GetDescriptor());
}

TEST_F(LumoraAiDescriptorTest, GetIsForwardedAndItsReplyIsLogged) {
    EXPECT_CALL(mCallback, OnCoapGet("TransStatus", testing::Eq("asked")))
        .WillOnce(DoAll(SetArgReferee<1>("busy"), Return(0)));
    EXPECT_TRUE(mDescriptor.OnGet(mRemote, "TransStatus", mValue));
    EXPECT_EQ("busy", mValue);
    EXPECT_THAT(mLog.Texts(1), ElementsAre("onGet:cmd = TransStatus\n", "we will return:busy\n"));
    EXPECT_EQ(2U, mLog.Lines().size());
}

TEST_F(LumoraAiDescriptorTest, ReplyOfAFailedGetIsLoggedToo) {
    EXPECT_CALL(mCallback, OnCoapGet(_, _)).WillOnce(Return(-1));
    EXPECT_FALSE(mDescriptor.OnGet(mRemote, "k", mValue));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("onGet:cmd = k\n", "we will return:asked\n"));
}

TEST_F(LumoraAiDescriptorTest, PutIsForwarded) {
    EXPECT_CALL(mCallback, OnCoapPut("StopTransport", "asked")).WillOnce(Return(0));
    EXPECT_TRUE(mDescriptor.OnPut(mRemote, "StopTransport", mValue));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("cmd:StopTransport\n"));
}

TEST_F(LumoraAiDescriptorTest, PostIsForwarded) {
    EXPECT_CALL(mCallback, OnCoapPost("Command", "asked")).WillOnce(Return(0));
    EXPECT_TRUE(mDescriptor.OnPost(mRemote, "Command", mValue));
    EXPECT_THAT(mLog.Texts(1), ElementsAre("cmd:Command\n"));
}

TEST_F(LumoraAiDescriptorTest, DeleteIsForwardedSilently) {
    EXPECT_CALL(mCallback, OnCoapDelete("k", "asked")).WillOnce(Return(0));
    EXPECT_TRUE(mDescriptor.OnDelete(mRemote, "k", mValue));
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(LumoraAiDescriptorTest, SetupIsForwardedSilentlyWithItsRequester) {
    EXPECT_CALL(mCallback, OnSetupMediaService(testing::Ref(mRemote), testing::Eq("asked")))
        .WillOnce(DoAll(SetArgReferee<1>("Succ"), Return(0)));
    EXPECT_TRUE(mDescriptor.OnSetupMediaService(mRemote, mValue));
    EXPECT_EQ("Succ", mValue);
    EXPECT_THAT(mLog.Lines(), IsEmpty());
}

TEST_F(LumoraAiDescriptorTest, EveryResultButZeroIsAFailureOfTheCallbackItself) {
    for (const int result : {-2, -1, 1, 2147483647}) {
        EXPECT_CALL(mCallback, OnCoapGet(_, _)).WillOnce(Return(result));
        EXPECT_CALL(mCallback, OnCoapPut(_, _)).WillOnce(Return(result));
        EXPECT_CALL(mCallback, OnCoapPost(_, _)).WillOnce(Return(result));
        EXPECT_CALL(mCallback, OnCoapDelete(_, _)).WillOnce(Return(result));
        EXPECT_CALL(mCallback, OnSetupMediaService(_, _)).WillOnce(Return(result));
        EXPECT_FALSE(mDescriptor.OnGet(mRemote, "k", mValue));
        EXPECT_FALSE(mDescriptor.OnPut(mRemote, "k", mValue));
        EXPECT_FALSE(mDescriptor.OnPost(mRemote, "k", mValue));
        EXPECT_FALSE(mDescriptor.OnDelete(mRemote, "k", mValue));
        EXPECT_FALSE(mDescriptor.OnSetupMediaService(mRemote, mValue));
    }
    EXPECT_FALSE(mLog.Has(1, "please register mCoapCallback\n")) << mLog.Dump();
}

void ExpectRefusesEverything(LumoraAiDescriptor& descriptor, CapturedLog& log) {
    const std::string missing = "please register mCoapCallback\n";
    const lumora::LinkDeviceDescriptor::Port remote;
    std::string value = "asked";
    EXPECT_FALSE(descriptor.OnGet(remote, "g", value));
    EXPECT_FALSE(descriptor.OnPut(remote, "u", value));
    EXPECT_FALSE(descriptor.OnPost(remote, "o", value));
    EXPECT_FALSE(descriptor.OnDelete(remote, "d", value));
    EXPECT_FALSE(descriptor.OnSetupMediaService(remote, value));
    EXPECT_EQ("asked", value);
    EXPECT_THAT(log.Texts(1), ElementsAre("onGet:cmd = g\n", missing, "cmd:u\n", missing, "cmd:o\n", missing,
                                          missing, missing));
}

TEST_F(LumoraAiDescriptorTest, WithoutACallbackEverythingIsRefused) {
    LumoraAiDescriptor descriptor(mText);
    ExpectRefusesEverything(descriptor, mLog);
}

TEST_F(LumoraAiDescriptorTest, NullCallbackIsNone) {
    LumoraAiDescriptor descriptor(nullptr, mText);
    ExpectRefusesEverything(descriptor, mLog);
}

TEST_F(LumoraAiDescriptorTest, WithdrawnCallbackIsNeverCalledAgain) {
    mDescriptor.WithdrawCallback(&mCallback);
    ExpectRefusesEverything(mDescriptor, mLog);
}

TEST_F(LumoraAiDescriptorTest, WithdrawalOfAnotherCallbackChangesNothing) {
    testing::StrictMock<MockCoapCallback> other;
    mDescriptor.WithdrawCallback(&other);
    EXPECT_CALL(mCallback, OnCoapDelete(_, _)).WillOnce(Return(0));
    EXPECT_TRUE(mDescriptor.OnDelete(mRemote, "k", "v"));
}

TEST_F(LumoraAiDescriptorTest, CallbackThatThrewMayBeWithdrawn) {
    EXPECT_CALL(mCallback, OnCoapPost(_, _)).WillOnce(Throw(std::invalid_argument("stoi")));
    EXPECT_THROW(mDescriptor.OnPost(mRemote, "Connect", "x"), std::invalid_argument);
    mDescriptor.WithdrawCallback(&mCallback);  // and does not wait
    EXPECT_FALSE(mDescriptor.OnDelete(mRemote, "k", "v"));
}

// The whole way of a request, from the platform to the callback.
class ServedRequestsTest : public LumoraAiDescriptorTest {
protected:
    void Start(LumoraCoapCallback* callback) {
        mLink = lumora::SmartHomeLink::Create(lumora::LINK_HYBIRD);
        ASSERT_NE(nullptr, mLink);
        auto descriptor = std::make_shared<LumoraAiDescriptor>(callback, mText);
        ASSERT_TRUE(mLink->RegisterDeviceDescriptor(descriptor, nullptr));
        mLog.Clear();
    }

    FakePlatform mPlatform;
    std::shared_ptr<lumora::SmartHomeLink> mLink;
};

TEST_F(ServedRequestsTest, GetArrivesAndItsReplyLeaves) {
    Start(&mCallback);
    EXPECT_CALL(mCallback, OnCoapGet("GetVersion", testing::Eq("")))
        .WillOnce(DoAll(SetArgReferee<1>("1.1.1"), Return(0)));
    const lumora_test::Answer answer = mPlatform.Get("GetVersion");
    EXPECT_EQ(0, answer.result);
    EXPECT_EQ("1.1.1", answer.reply);
}

TEST_F(ServedRequestsTest, SetupArrivesWithTheRequestersAddress) {
    Start(&mCallback);
    std::string address;
    EXPECT_CALL(mCallback, OnSetupMediaService(_, testing::Eq("setup")))
        .WillOnce([&](const lumora::LinkDeviceDescriptor::Port& remote, std::string& value) {
            address = remote.GetAddress() + ":" + std::to_string(remote.port);
            value = "Succ";
            return 0;
        });
    const auto answer = mPlatform.Get(".sys.mediaservice.setup", "setup", 1024, "192.168.7.9", 40001);
    EXPECT_EQ("Succ", answer.reply);
    EXPECT_EQ("192.168.7.9:40001", address);
}

TEST_F(ServedRequestsTest, WhatACallbackThrowsIsAFailedRequest) {
    Start(&mCallback);
    EXPECT_CALL(mCallback, OnCoapPost("Connect", "no number")).WillOnce(Throw(std::invalid_argument("stoi")));
    EXPECT_EQ(-1, mPlatform.Post("Connect", "no number"));
}

TEST_F(ServedRequestsTest, DescriptorWithoutACallbackAnswersEverythingWithFailure) {
    Start(nullptr);
    EXPECT_EQ(-1, mPlatform.Get("ServiceInfo").result);
    EXPECT_EQ(-1, mPlatform.Get(".sys.mediaservice.setup").result);
    EXPECT_EQ(-1, mPlatform.Put("k"));
    EXPECT_EQ(-1, mPlatform.Post("k"));
    EXPECT_EQ(-1, mPlatform.Delete("k"));
    EXPECT_EQ(5, mLog.Count(1, "please register mCoapCallback\n")) << mLog.Dump();
}

}  // namespace
}  // namespace lumoraAiModule
