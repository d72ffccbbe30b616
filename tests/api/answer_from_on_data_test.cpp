// LUM_SendDataToClient from inside OnData: it works, and waits for no thread that waits for OnData.
#include <thread>

#include "tests/api/api_fixture.h"

namespace lumora_test {
namespace {

const char* const BEING_STOPPED = "called from OnData while the transport is being stopped.\n";
// Logged by the thread that stops the transport once nothing can be sent any more, before it waits for
// OnData.
const char* const STOP_WAITS_FOR_ON_DATA = "joinable will join.\n";

class AnswerFromOnDataTest : public ApiTest {
protected:
    // Makes OnData wait for the signal and answer then.
    void AnswerAfter(const Signal& signal) {
        Reactions reactions;
        reactions.data = [this, signal](int, const std::string& data) {
            mInOnData.Set();
            signal.Wait();
            unsigned int sent = 77;
            mResult =
                LUM_SendDataToClient("face", data.data(), static_cast<unsigned int>(data.size()), &sent, 100);
            mSent = sent;
            mAnswered.Set();
        };
        React(reactions);
    }

    // A client asks, and the device's OnData has begun.
    void Ask() {
        mToServer.Send(ClientFrame(3, "echo"));
        mInOnData.Wait();
    }

    // Set when a function logs a text for the next time.
    Signal WhenLogged(const std::string& function, const std::string& text) {
        Signal atOnce;
        atOnce.Set();
        return HoldWhenLogged(function, text, atOnce);
    }
    // The same, and the thread that logs it waits there.
    Signal HoldWhenLogged(const std::string& function, const std::string& text, const Signal& until) {
        const Signal signal;
        mWatched.push_back({function, text, signal, until});
        const std::vector<Watched> watched = mWatched;
        mLog.OnLine([watched](const LogLine& line) {
            for (const Watched& one : watched) {
                if (line.text == one.text && (one.function.empty() || line.function == one.function)) {
                    Signal(one.signal).Set();
                    one.until.Wait();
                }
            }
        });
        return signal;
    }

    void ExpectRefusedForTheStop() {
        mAnswered.Wait();
        EXPECT_EQ(-1, mResult);
        EXPECT_EQ((Texts{"0 Enter\n", std::string("4 ") + BEING_STOPPED}), LogOf("LUM_SendDataToClient"));
        EXPECT_EQ(77U, mSent);
    }

    void ExpectNoSocketFound() {
        mAnswered.Wait();
        EXPECT_EQ(-1, mResult);
        EXPECT_EQ((Texts{"0 Enter\n", "4 SendDataToClient failed!\n"}), LogOf("LUM_SendDataToClient"));
        EXPECT_TRUE(mLog.Has(4, "No transport channel created, please connect first.\n")) << mLog.Dump();
        EXPECT_EQ(0U, mSent);
    }

    // Every way to end leaves a server that serves again.
    void ExpectServesAgain() {
        mLog.OnLine(nullptr);
        React(Reactions());
        mFromServer.Close();
        OpenChannel();
        unsigned int sent = 0;
        EXPECT_EQ(0, LUM_SendDataToClient("face", "data", 4, &sent, 100)) << mLog.Dump();
    }

    Signal mInOnData;
    Signal mAnswered;
    int mResult = -77;
    unsigned int mSent = 77;

private:
    struct Watched {
        std::string function;
        std::string text;
        Signal signal;
        Signal until;
    };
    std::vector<Watched> mWatched;
};

TEST_F(AnswerFromOnDataTest, AnswerArrives) {
    BeServingDevice();
    Signal now;
    now.Set();
    AnswerAfter(now);
    Ask();
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "echo"), mFromServer.Receive(16));
    mAnswered.Wait();
    EXPECT_EQ(0, mResult) << mLog.Dump();
    EXPECT_EQ(4U, mSent);
}

TEST_F(AnswerFromOnDataTest, AnswerWaitsForAnotherThreadsSend) {
    BeServingDevice();
    Signal otherInside;
    Signal answerBegun;
    AnswerAfter(otherInside);
    const std::thread::id self = std::this_thread::get_id();
    mLog.OnLine([=](const LogLine& line) {
        if (line.text != "Enter\n") {
            return;
        }
        if (std::this_thread::get_id() != self && line.function == "LUM_SendDataToClient") {
            Signal(answerBegun).Set();
        } else if (std::this_thread::get_id() == self && line.function == "SendDataToClient") {
            // Inside, with the API mutex: until OnData is about to take it.
            Signal(otherInside).Set();
            answerBegun.Wait();
        }
    });
    Ask();
    unsigned int sent = 0;
    EXPECT_EQ(0, LUM_SendDataToClient("face", "data", 4, &sent, 100)) << mLog.Dump();
    mAnswered.Wait();
    EXPECT_EQ(0, mResult) << mLog.Dump();
    EXPECT_EQ(ServerFrameBytes("\x03", "face", "data") + ServerFrameBytes("\x03", "face", "echo"),
              mFromServer.Receive(32));
}

TEST_F(AnswerFromOnDataTest, AnswerFailsOnceDeInitHasBegun) {
    BeServingDevice();
    const Signal deInitRuns = WhenLogged("DeInitLumoraModule", "Clear coap resourse success.\n");
    AnswerAfter(deInitRuns);
    Ask();
    mLog.Clear();
    EXPECT_EQ(0, LUM_DeInitServer());
    ExpectRefusedForTheStop();
}

TEST_F(AnswerFromOnDataTest, AnswerFailsOnceAStopRequestHasTakenTheSocket) {
    BeServingDevice();
    AnswerAfter(WhenLogged("", STOP_WAITS_FOR_ON_DATA));
    Ask();
    mLog.Clear();
    EXPECT_EQ(0, mPlatform.Put("StopTransport"));
    ExpectNoSocketFound();
    ExpectServesAgain();
}

TEST_F(AnswerFromOnDataTest, AnswerFailsOnceANewSetupHasBegun) {
    BeServingDevice();
    AnswerAfter(WhenLogged("", STOP_WAITS_FOR_ON_DATA));
    Ask();
    mLog.Clear();
    AskForChannel();
    ExpectNoSocketFound();
    mFromServer = mClientListener->Accept();  // of the first channel
    ExpectServesAgain();
}

TEST_F(AnswerFromOnDataTest, AnswerFailsOnceTheClientsDeviceHasLeft) {
    BeServingDevice();
    AnswerAfter(WhenLogged("", STOP_WAITS_FOR_ON_DATA));
    Ask();
    mLog.Clear();
    RemoveCamera();
    ExpectNoSocketFound();
    ExpectServesAgain();
}

TEST_F(AnswerFromOnDataTest, AnswerFailsOnceTheLastClientHasLeft) {
    BeServingDevice();
    EXPECT_EQ(0, mPlatform.Post("Connect", "3"));
    AnswerAfter(WhenLogged("", STOP_WAITS_FOR_ON_DATA));
    Ask();
    mLog.Clear();
    EXPECT_EQ(0, mPlatform.Post("Destroy", "3"));
    ExpectNoSocketFound();
}

// The registration has the API mutex and goes on after OnData: the answer must not wait for it.
TEST_F(AnswerFromOnDataTest, AnswerFailsWhileARegistrationIsInProgressAndAStopRequestWaits) {
    BeServingDevice();
    const Signal stopWaits = WhenLogged("", STOP_WAITS_FOR_ON_DATA);
    AnswerAfter(HoldWhenLogged("RegisterLocalDeviceInfo", "Enter\n", mAnswered));
    Ask();
    mLog.Clear();
    int stopped = -77;
    std::thread request([&] { stopped = mPlatform.Put("StopTransport"); });
    stopWaits.Wait();
    Register();
    request.join();
    EXPECT_EQ(0, stopped);
    ExpectRefusedForTheStop();
    ExpectServesAgain();
}

TEST_F(AnswerFromOnDataTest, AnswerFailsWhileARegistrationIsInProgressAndANewSetupWaits) {
    BeServingDevice();
    const Signal setupWaits = WhenLogged("", STOP_WAITS_FOR_ON_DATA);
    AnswerAfter(HoldWhenLogged("RegisterLocalDeviceInfo", "Enter\n", mAnswered));
    Ask();
    mLog.Clear();
    std::thread request([&] { AskForChannel(); });
    setupWaits.Wait();
    Register();
    request.join();
    ExpectRefusedForTheStop();
}

// The registration returns while the stop still waits for OnData, which goes on after the registration.
TEST_F(AnswerFromOnDataTest, RegistrationDoesNotWaitForAStopRequest) {
    BeServingDevice();
    const Signal stopWaits = WhenLogged("", STOP_WAITS_FOR_ON_DATA);
    Signal registered;
    AnswerAfter(registered);
    Ask();
    mLog.Clear();
    int stopped = -77;
    std::thread request([&] { stopped = mPlatform.Put("StopTransport"); });
    stopWaits.Wait();
    Register();
    registered.Set();
    request.join();
    EXPECT_EQ(0, stopped);
    ExpectNoSocketFound();
    ExpectServesAgain();
}

// The stop begins when OnData already waits for the API mutex.
TEST_F(AnswerFromOnDataTest, WaitingAnswerGivesUpWhenAStopBegins) {
    BeServingDevice();
    Signal senderInside;
    Signal senderMayGo;
    AnswerAfter(senderInside);
    const Signal answerBegun;
    const std::thread::id self = std::this_thread::get_id();
    mLog.OnLine([=](const LogLine& line) {
        if (line.text != "Enter\n") {
            return;
        }
        if (std::this_thread::get_id() == self && line.function == "SendDataToClient") {
            Signal(senderInside).Set();
            senderMayGo.Wait();
        } else if (std::this_thread::get_id() != self && line.function == "LUM_SendDataToClient") {
            Signal(answerBegun).Set();
        }
    });
    Ask();
    int stopped = -77;
    std::thread request([&] {
        answerBegun.Wait();
        stopped = mPlatform.Put("StopTransport");
        senderMayGo.Set();
    });
    unsigned int sent = 0;
    LUM_SendDataToClient("face", "data", 4, &sent, 100);
    request.join();
    EXPECT_EQ(0, stopped);
    mAnswered.Wait();
    EXPECT_EQ(-1, mResult);
    EXPECT_TRUE(mLog.Has(4, BEING_STOPPED)) << mLog.Dump();
}

}  // namespace
}  // namespace lumora_test
