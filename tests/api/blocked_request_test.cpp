// While a request's handler takes its time, the data channel goes on: nothing of it needs the module's mutex.
#include <thread>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

class BlockedRequestTest : public ApiTest {
protected:
    // A client's command is being handled, and OnCommand returns when the test has ended.
    BlockedRequestTest() {
        BeServingDevice();
        Reactions reactions;
        reactions.command = [this](const std::string&, const std::string&) {
            mInOnCommand.Set();
            mMayReturn.Wait();
        };
        reactions.data = [this](int, const std::string&) { mInOnData.Set(); };
        React(reactions);
        mRequest =
            std::thread([this] { mPlatform.Post("Command", R"({"ClientID":3,"cmd":"Slow","param":""})"); });
        mInOnCommand.Wait();
    }
    void TearDown() override {
        mMayReturn.Set();
        mRequest.join();
        ApiTest::TearDown();
    }

    Signal mInOnCommand;
    Signal mInOnData;
    Signal mMayReturn;
    std::thread mRequest;
};

TEST_F(BlockedRequestTest, DataArrives) {
    mToServer.Send(ClientFrame(3, "data"));
    mInOnData.Wait();
}

TEST_F(BlockedRequestTest, DataIsSent) {
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendDataToClient("face", "data", 4, &sent, 100));
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "data"), mFromServer.Receive(16));
}

TEST_F(BlockedRequestTest, EndOfTheClientIsNoticed) {
    mToServer.Close();
    EXPECT_TRUE(mLog.WaitFor(2, "The server reveived thread exit.\n"));
    unsigned int sent = 77;
    EXPECT_EQ(0, LUM_SendDataToClient("face", "data", 4, &sent, 100));
    EXPECT_EQ(0U, sent);
}

}  // namespace
}  // namespace lumora_test
