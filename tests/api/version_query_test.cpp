// The version queries: what they hand out, and how they go beside other calls. They take no API mutex, and
// outlive the last client.
#include <cstring>
#include <functional>
#include <thread>

#include "tests/api/api_fixture.h"
#include "tests/support/fake_securec.h"

namespace lumora_test {
namespace {

class VersionQueryTest : public ApiTest {
protected:
    // Holds a thread that logs this until the returned signal is set; held is set once it is there.
    Signal HoldAt(const std::string& function, const std::string& text, const Signal& held) {
        const Signal mayGo;
        mLog.OnLine([=](const LogLine& line) {
            if (line.function == function && line.text == text) {
                Signal(held).Set();
                mayGo.Wait();
            }
        });
        return mayGo;
    }

    int AskClientVersion() { return LUM_GetClientVersion(1, mText, sizeof(mText)); }
    int AskServerVersion() { return LUM_GetServerVersion(1, 1, mText, sizeof(mText)); }

    // The query has found the module, but the last client leaves before it looks any further.
    void LeaveDuring(const std::string& moduleFunction, const std::function<int()>& query) {
        InitClient();
        FindCamera(1);
        Signal inside;
        Signal mayGo = HoldAt(moduleFunction, "client [1] Enter\n", inside);
        int result = -77;
        std::thread other([&] { result = query(); });
        inside.Wait();
        EXPECT_EQ(0, LUM_DeInitClient(1)) << mLog.Dump();
        mLog.Clear();
        mayGo.Set();
        other.join();
        EXPECT_EQ(-1, result);
        EXPECT_EQ((Texts{"ClientID : 1 no resource!!\n", "LUM_SendData failed!\n"}), mLog.Texts(4));
        EXPECT_EQ(0, mPlatform.LiveHandles());
    }

    char mText[64] = {};
};

TEST_F(VersionQueryTest, ClientVersionOutlivesTheLastClient) {
    LeaveDuring("GetClientVersion", [this] { return AskClientVersion(); });
}

TEST_F(VersionQueryTest, ServerVersionOutlivesTheLastClient) {
    LeaveDuring("GetServerVersion", [this] { return AskServerVersion(); });
}

TEST_F(VersionQueryTest, LateQueryDoesNotSeeTheClientThatCameAfter) {
    InitClient("viewer");
    Signal inside;
    Signal mayGo = HoldAt("GetClientVersion", "client [1] Enter\n", inside);
    int result = -77;
    std::thread other([&] { result = AskClientVersion(); });
    inside.Wait();
    ASSERT_EQ(0, LUM_DeInitClient(1));
    ASSERT_EQ(1, InitClient("printer"));
    mayGo.Set();
    other.join();
    EXPECT_EQ(-1, result);
    mLog.OnLine(nullptr);
    // The old instance, gone only now, has taken nothing of the new one's along.
    EXPECT_EQ(1U, FindCamera(1));
    EXPECT_EQ(0, AskServerVersion());
    EXPECT_EQ(1, mPlatform.LiveHandles());
}

TEST_F(VersionQueryTest, QueriesDoNotWaitForACallThatHoldsTheApiMutex) {
    InitClient();
    // Leaving the network takes a while; the call holds the API mutex, not the module's.
    bool inExit = false;
    mPlatform.onExit = [this, &inExit] {
        inExit = true;
        std::thread other([this] {
            EXPECT_EQ(-1, AskClientVersion());
            EXPECT_EQ(-1, AskServerVersion());
        });
        other.join();
    };
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitClient(1));
    EXPECT_TRUE(inExit);
    EXPECT_EQ(2, mLog.Count(4, "ClientID : 1 no resource!!\n")) << mLog.Dump();
}

TEST_F(VersionQueryTest, QueriesSucceedWhileAnotherClientWaitsForTheApiMutex) {
    InitClient();
    ASSERT_EQ(2, InitClient());
    // With the API mutex held, before the module's: as far as another client's call has come.
    Signal inside;
    Signal mayGo = HoldAt("DisconnectAiDevice", "DisconnectAiDevice handle = 1 !\n", inside);
    std::thread holder([] { LUM_DisconnectAiDevice(2, 1); });
    inside.Wait();
    EXPECT_EQ(0, AskClientVersion());
    EXPECT_STREQ("1.1.1", mText);
    mayGo.Set();
    holder.join();
}

TEST_F(VersionQueryTest, ServerVersionAnswersWhileTheLastClientWaitsToLeave) {
    InitClient();
    FakeDevice camera = DescribedDevice(ServiceInfo("camera"));
    const auto described = camera.answer;
    Signal asked;
    Signal mayAnswer;
    camera.answer = [=](const Request& request, std::string& reply) {
        if (request.key == "GetVersion") {
            Signal(asked).Set();
            mayAnswer.Wait();
        }
        return described(request, reply);
    };
    mPlatform.devices = {camera};
    LUM_DEVICES_INFO_S found;
    unsigned int handle = 0;
    ASSERT_EQ(0, LUM_GetAiDeviceList("camera", &found));
    ASSERT_EQ(0, LUM_CreateAiDevice(1, "camera", &handle));
    int result = -77;
    std::thread query([&] { result = AskServerVersion(); });
    asked.Wait();
    mLog.Clear();
    std::thread leaving([] { EXPECT_EQ(0, LUM_DeInitClient(1)); });
    EXPECT_TRUE(mLog.WaitFor(0, "Enter\n"));
    mayAnswer.Set();
    query.join();
    leaving.join();
    EXPECT_EQ(0, result) << mLog.Dump();
    EXPECT_STREQ("1.1.1", mText);
}

TEST_F(VersionQueryTest, VersionQueriesLetEveryPositiveIdPass) {
    InitClient();
    char text[64];
    for (const int clientID : {0, 21, 2147483647}) {
        mLog.Clear();
        EXPECT_EQ(-1, LUM_GetClientVersion(clientID, text, sizeof(text)));
        EXPECT_EQ(-1, LUM_GetServerVersion(clientID, 1, text, sizeof(text)));
        EXPECT_EQ(2, mLog.Count(4, "ClientID : " + std::to_string(clientID) + " no resource!!\n"));
        EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_GetClientVersion"));
        EXPECT_EQ(Texts{"4 LUM_SendData failed!\n"}, LogOf("LUM_GetServerVersion"));
    }
}

TEST_F(VersionQueryTest, VersionsArriveTerminatedInAClearedBuffer) {
    InitClient();
    FindCamera(1);
    mLog.Clear();
    const std::string expected = std::string("1.1.1") + std::string(59, '\0');
    char text[64];
    std::memset(text, 0x5a, sizeof(text));
    EXPECT_EQ(0, LUM_GetClientVersion(1, text, sizeof(text)));
    EXPECT_EQ(expected, std::string(text, sizeof(text)));
    std::memset(text, 0x5a, sizeof(text));
    EXPECT_EQ(0, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    EXPECT_EQ(expected, std::string(text, sizeof(text)));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetClientVersion"));
    EXPECT_EQ(Texts{}, LogOf("LUM_GetServerVersion"));
}

class ServerVersionLengthTest : public VersionQueryTest {
protected:
    // What a device that answers with a version of so many characters comes to, in a buffer of 64.
    int AskDeviceOf(std::size_t versionLength) {
        InitClient();
        FindCamera(1);
        FakeDevice device = mPlatform.devices.front();
        const auto described = device.answer;
        device.answer = [described, versionLength](const Request& request, std::string& reply) {
            if (request.key != "GetVersion") {
                return described(request, reply);
            }
            reply = std::string(versionLength, 'v');
            return 0;
        };
        mPlatform.devices = {device};
        LUM_DEVICES_INFO_S found;
        EXPECT_EQ(0, LUM_GetAiDeviceList("camera", &found));
        mLog.Clear();
        std::memset(mText, 0x5a, sizeof(mText));
        return LUM_GetServerVersion(1, 1, mText, sizeof(mText));
    }
};

TEST_F(ServerVersionLengthTest, SixtyThreeCharactersFitIntoSixtyFourBytes) {
    EXPECT_EQ(0, AskDeviceOf(63));
    EXPECT_EQ(std::string(63, 'v'), mText);
}

TEST_F(ServerVersionLengthTest, SixtyFourCharactersAreTooManyAndLeaveTheBufferAlone) {
    EXPECT_EQ(-1, AskDeviceOf(64));
    EXPECT_EQ(Texts{"4 buff is too short!\n"}, LogOf("LUM_GetServerVersion"));
    EXPECT_EQ(std::string(64, 0x5a), std::string(mText, sizeof(mText)));
}

TEST_F(ServerVersionLengthTest, EmptyVersionLeavesAClearedBuffer) {
    EXPECT_EQ(0, AskDeviceOf(0));
    EXPECT_EQ(std::string(64, '\0'), std::string(mText, sizeof(mText)));
}

TEST_F(VersionQueryTest, VersionQueriesReportFailedFillsAndCopies) {
    InitClient();
    FindCamera(1);
    char text[64];
    mLog.Clear();
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, LUM_GetClientVersion(1, text, sizeof(text)));
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, LUM_GetClientVersion(1, text, sizeof(text)));
    EXPECT_EQ((Texts{"4 memset_s failed!\n", "4 memcpy_s failed!\n"}), LogOf("LUM_GetClientVersion"));
    FailBoundedCall(Bounded::MEMSET);
    EXPECT_EQ(-1, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    FailBoundedCall(Bounded::MEMCPY);
    EXPECT_EQ(-1, LUM_GetServerVersion(1, 1, text, sizeof(text)));
    EXPECT_EQ((Texts{"4 memset_s failed!\n", "4 memcpy_s failed!\n"}), LogOf("LUM_GetServerVersion"));
}

}  // namespace
}  // namespace lumora_test
