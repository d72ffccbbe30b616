// Peers that leave at the worst moment, crawl, or are not the ones that were meant, played byte by byte. Each
// fault happens twice in one process: what it leaves behind shows at the second connection. SIGPIPE has its
// default disposition.
#include <csignal>
#include <thread>

#include "tests/api/api_fixture.h"
#include "tests/support/eventually.h"

namespace lumora_test {
namespace {

using std::chrono::milliseconds;

// Longer than receive threads select for.
constexpr auto LONG_SILENCE = milliseconds(600);

bool PipeSignalIsDefault() {
    struct sigaction disposition = {};
    sigaction(SIGPIPE, nullptr, &disposition);
    return disposition.sa_handler == SIG_DFL;
}

void SendSlowly(RawConnection& connection, const Bytes& bytes) {
    for (const char byte : bytes) {
        std::this_thread::sleep_for(LONG_SILENCE);
        connection.Send(Bytes(1, byte));
    }
}

class Crawler {
public:
    // Reads one byte now and then, until the end of this.
    explicit Crawler(RawConnection& connection) {
        connection.SetReceiveBuffer(4096);
        mThread = std::thread([this, &connection] {
            while (!mEnd.IsSet()) {
                connection.Receive(1);
                std::this_thread::sleep_for(milliseconds(100));
            }
        });
    }
    ~Crawler() {
        mEnd.Set();
        mThread.join();
    }
    Crawler(const Crawler&) = delete;
    Crawler& operator=(const Crawler&) = delete;

private:
    Signal mEnd;
    std::thread mThread;
};

class PeerFaultsTest : public ApiTest {
protected:
    PeerFaultsTest() {
        Reactions reactions;
        reactions.deviceEvent = [this](const LUM_DEVICE_EVENT_S& event) {
            Note(std::string(event.data, event.dataLen));
        };
        reactions.data = [this](int, const std::string& data) { Note(data); };
        React(reactions);
    }
    void TearDown() override {
        ApiTest::TearDown();
        React(Reactions());
        EXPECT_TRUE(PipeSignalIsDefault());
    }

    void Note(const std::string& data) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReceived.push_back(data);
    }
    bool HasReceived(const Texts& expected) {
        return Eventually([&] {
            const std::lock_guard<std::mutex> lock(mMutex);
            return mReceived == expected;
        });
    }
    void ForgetReceived() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mReceived.clear();
    }

private:
    std::mutex mMutex;
    Texts mReceived;
};

// ---- A client, and its device ----

class DeviceFaultsTest : public PeerFaultsTest {
protected:
    void SetUp() override {
        ASSERT_EQ(1, InitClient());
        Connect();
        mFromServer = RawConnection::To(CLIENT_PORT);
    }

    void Connect() {
        ASSERT_EQ(1U, FindCamera(1));
        ASSERT_EQ(0, LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent));
        mDeviceListener.reset();
        ConnectCamera(1, 1);
    }
    static Bytes FrameOf(const std::string& payload) { return ServerFrameBytes("\x01", "face", payload); }
    int Send(const std::string& payload) {
        mSent = 4711;
        return LUM_SendData(1, 1, payload.data(), static_cast<unsigned int>(payload.size()), &mSent, 0);
    }
    void DeviceLeaves() {
        mFromServer.Close();
        mDevice.Close();
    }

    void ExpectWorking() {
        ForgetReceived();
        EXPECT_EQ(0, Send("to the device"));
        EXPECT_EQ(13U, mSent);
        EXPECT_EQ(ClientFrame(1, "to the device"), mDevice.Receive(19));
        mFromServer.Send(FrameOf("to the client"));
        EXPECT_TRUE(HasReceived({"to the client"})) << mLog.Dump();
    }
    // After the connection is lost the device is forgotten; nothing more is needed than to find it again.
    void ExpectLostAndConnectAgain() {
        ASSERT_TRUE(Eventually([] { return LUM_ConnectAiDevice(1, 1) == -1; })) << mLog.Dump();
        DeviceLeaves();
        Connect();
        mFromServer = RawConnection::To(CLIENT_PORT);
        ExpectWorking();
    }
    template <typename Fault>
    void HappensTwice(Fault fault) {
        for (int round = 1; round <= 2; ++round) {
            ASSERT_NO_FATAL_FAILURE(ExpectWorking());
            fault();
            ASSERT_NO_FATAL_FAILURE(ExpectLostAndConnectAgain());
        }
    }

    unsigned int mSent = 0;
};

TEST_F(DeviceFaultsTest, LeavesBetweenFrames) {
    HappensTwice([this] {
        mFromServer.Send(FrameOf("the last one"));
        DeviceLeaves();
        EXPECT_TRUE(HasReceived({"to the client", "the last one"}));
    });
}

TEST_F(DeviceFaultsTest, LeavesInAHead) {
    for (const size_t length : {1U, 4U, 5U, 8U}) {
        SCOPED_TRACE(length);
        HappensTwice([&] {
            mFromServer.Send(FrameOf("never whole").substr(0, length));
            DeviceLeaves();
        });
    }
}

TEST_F(DeviceFaultsTest, LeavesInAPayload) {
    HappensTwice([this] {
        const Bytes frame = FrameOf("never whole");
        mFromServer.Send(FrameOf("whole") + frame.substr(0, frame.size() - 1));
        DeviceLeaves();
        EXPECT_TRUE(HasReceived({"to the client", "whole"}));
    });
}

TEST_F(DeviceFaultsTest, LeavesWhileItIsWrittenTo) {
    HappensTwice([this] {
        std::thread device([this] {
            mDevice.Receive(1000);
            mFromServer.Reset();
            mDevice.Reset();
        });
        const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'b');
        while (Send(block) == 0 && mSent == block.size()) {
        }
        device.join();
        EXPECT_EQ(-1, Send("one more"));
    });
}

TEST_F(DeviceFaultsTest, LeavesRightAfterItWasAccepted) {
    for (int round = 1; round <= 2; ++round) {
        mFromServer.Close();
        ASSERT_NO_FATAL_FAILURE(ExpectLostAndConnectAgain());
        DeviceLeaves();
        ASSERT_TRUE(Eventually([] { return LUM_ConnectAiDevice(1, 1) == -1; }));
        Connect();
        mFromServer = RawConnection::To(CLIENT_PORT);
        mFromServer.Close();
        mDevice.Close();
    }
}

TEST_F(DeviceFaultsTest, NeverConnects) {
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(0, LUM_DeInitClient(1));
        DeviceLeaves();
        ASSERT_EQ(1, InitClient());
        Connect();
        EXPECT_EQ(0, Send("not connected yet"));
        mDevice.Receive(23);
    }
    mFromServer = RawConnection::To(CLIENT_PORT);
    ExpectWorking();
}

TEST_F(DeviceFaultsTest, ConnectsAndSaysNothing) {
    for (int round = 1; round <= 2; ++round) {
        std::this_thread::sleep_for(LONG_SILENCE);
        ExpectWorking();
    }
}

TEST_F(DeviceFaultsTest, ConnectsTwice) {
    HappensTwice([this] {
        RawConnection second = RawConnection::To(CLIENT_PORT);
        second.Send(FrameOf("not heard"));
        second.Close();
        ExpectWorking();
        DeviceLeaves();
    });
}

TEST_F(DeviceFaultsTest, StrangerConnectsFirst) {
    for (int round = 1; round <= 2; ++round) {
        DeviceLeaves();
        ASSERT_TRUE(Eventually([] { return LUM_ConnectAiDevice(1, 1) == -1; }));
        Connect();
        RawConnection stranger = RawConnection::To(CLIENT_PORT);
        mFromServer = RawConnection::To(CLIENT_PORT);
        stranger.Send(Bytes(100, '\xff'));
        stranger.Close();
        ASSERT_NO_FATAL_FAILURE(ExpectLostAndConnectAgain());
    }
}

TEST_F(DeviceFaultsTest, SendsAFrameByteByByte) {
    HappensTwice([this] {
        const Bytes frame = FrameOf("slow");
        mFromServer.Send(frame.substr(0, frame.size() - 1));
        SendSlowly(mFromServer, frame.substr(frame.size() - 1));
        EXPECT_TRUE(HasReceived({"to the client", "slow"}));
        DeviceLeaves();
    });
}

TEST_F(DeviceFaultsTest, ReadsByteByByte) {
    HappensTwice([this] {
        {
            const Crawler crawler(mDevice);
            const std::string block(LUM_MAX_CLIENT_DATA_LENGTH, 'b');
            EXPECT_EQ(0, Send(block));
            EXPECT_GT(block.size(), mSent);
            mLog.Clear();
            EXPECT_EQ(-1, Send("one more"));
            EXPECT_EQ(1, mLog.Count(4, "No transport channel created, please connect first.\n"));
        }
        // A send that timed out is no disconnect: this is the end that the device sees.
        EXPECT_EQ(0, LUM_DeInitClient(1));
        ASSERT_EQ(1, InitClient());
    });
}

// ---- A device, and its client ----

class ClientFaultsTest : public PeerFaultsTest {
protected:
    void SetUp() override { BeServingDevice(); }

    void ClientLeaves() {
        mToServer.Close();
        mFromServer.Close();
    }
    int Send(const std::string& payload) {
        mSent = 4711;
        return LUM_SendDataToClient("face", payload.data(), static_cast<unsigned int>(payload.size()), &mSent,
                                    0);
    }
    static Bytes FrameOf(const std::string& payload) { return ClientFrame(3, payload); }

    void ExpectWorking() {
        ForgetReceived();
        EXPECT_EQ(0, Send("to the client"));
        EXPECT_EQ(13U, mSent);
        const Bytes frame = ServerFrameBytes("\x03", "face", "to the client");
        EXPECT_EQ(frame, mFromServer.Receive(frame.size()));
        mToServer.Send(FrameOf("to the device"));
        EXPECT_TRUE(HasReceived({"to the device"})) << mLog.Dump();
    }
    template <typename Fault>
    void HappensTwice(Fault fault) {
        for (int round = 1; round <= 2; ++round) {
            ASSERT_NO_FATAL_FAILURE(ExpectWorking());
            fault();
            ClientLeaves();
            OpenChannel();
            ASSERT_NO_FATAL_FAILURE(ExpectWorking());
        }
    }

    unsigned int mSent = 0;
};

TEST_F(ClientFaultsTest, LeavesBetweenFrames) {
    HappensTwice([this] {
        mToServer.Send(FrameOf("the last one"));
        ClientLeaves();
        EXPECT_TRUE(HasReceived({"to the device", "the last one"}));
    });
}

TEST_F(ClientFaultsTest, LeavesInAHead) {
    for (const size_t length : {1U, 4U, 5U}) {
        SCOPED_TRACE(length);
        HappensTwice([&] { mToServer.Send(FrameOf("never whole").substr(0, length)); });
    }
}

TEST_F(ClientFaultsTest, LeavesInAPayload) {
    HappensTwice([this] {
        const Bytes frame = FrameOf("never whole");
        mToServer.Send(FrameOf("whole") + frame.substr(0, frame.size() - 1));
        EXPECT_TRUE(HasReceived({"to the device", "whole"}));
    });
}

TEST_F(ClientFaultsTest, LeavesWhileItIsWrittenTo) {
    HappensTwice([this] {
        std::thread client([this] {
            mFromServer.Receive(1000);
            mFromServer.Reset();
            mToServer.Reset();
        });
        const std::string block(LUM_MAX_SERVER_DATA_LENGTH, 'b');
        while (Send(block) == 0 && mSent == block.size()) {
        }
        client.join();
        EXPECT_EQ(-1, Send("one more"));
        EXPECT_EQ(0U, mSent);
    });
}

TEST_F(ClientFaultsTest, LeavesRightAfterItWasAccepted) {
    HappensTwice([this] {
        for (int time = 1; time <= 2; ++time) {
            ClientLeaves();
            OpenChannel();
        }
    });
}

TEST_F(ClientFaultsTest, NeverConnects) {
    HappensTwice([this] {
        ClientLeaves();
        AskForChannel();
        mFromServer = mClientListener->Accept();
        EXPECT_EQ(0, Send("the client may listen only"));
    });
}

TEST_F(ClientFaultsTest, ConnectsAndSaysNothing) {
    for (int round = 1; round <= 2; ++round) {
        std::this_thread::sleep_for(LONG_SILENCE);
        ExpectWorking();
    }
}

TEST_F(ClientFaultsTest, ConnectsTwice) {
    HappensTwice([this] {
        RawConnection second = RawConnection::To(DEVICE_PORT);
        second.Send(FrameOf("not heard"));
        second.Close();
        ExpectWorking();
    });
}

TEST_F(ClientFaultsTest, StrangerConnectsFirst) {
    HappensTwice([this] {
        ClientLeaves();
        AskForChannel();
        mFromServer = mClientListener->Accept();
        RawConnection stranger = RawConnection::To(DEVICE_PORT);
        stranger.Send(Bytes(100, '\xff'));
        mToServer = RawConnection::To(DEVICE_PORT);
        stranger.Close();
        EXPECT_TRUE(mToServer.SeesEnd());
    });
}

TEST_F(ClientFaultsTest, SendsAFrameByteByByte) {
    HappensTwice([this] {
        const Bytes frame = FrameOf("slow");
        mToServer.Send(frame.substr(0, frame.size() - 1));
        SendSlowly(mToServer, frame.substr(frame.size() - 1));
        EXPECT_TRUE(HasReceived({"to the device", "slow"}));
    });
}

TEST_F(ClientFaultsTest, ReadsByteByByte) {
    HappensTwice([this] {
        const Crawler crawler(mFromServer);
        const std::string block(LUM_MAX_SERVER_DATA_LENGTH, 'b');
        while (Send(block) == 0 && mSent == block.size()) {
        }
        EXPECT_GT(block.size(), mSent);
        mLog.Clear();
        EXPECT_EQ(-1, Send("one more"));
        EXPECT_EQ(1, mLog.Count(4, "No transport channel created, please connect first.\n"));
    });
}

}  // namespace
}  // namespace lumora_test
