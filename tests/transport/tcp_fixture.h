// A TCP transport of either side between two peers of the test: one that it hears, one that hears it.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/support/captured_log.h"
#include "tests/support/raw_peer.h"
#include "tests/support/system_faults.h"
#include "tests/transport/open_transport.h"

namespace lumora_test {

constexpr unsigned int HANDLE = 9;
constexpr char NO_CHANNEL[] = "No transport channel created, please connect first.\n";

struct ClientSide {
    static constexpr char NAME[] = "Client";
    using Transport = OpenClient;
    static constexpr auto RECEIVE = lumoraAiModule::TransType::CLIENT_RECEIVE;
    static constexpr auto SEND = lumoraAiModule::TransType::CLIENT_SEND;
    static constexpr auto OTHER_RECEIVE = lumoraAiModule::TransType::SERVER_RECEIVE;
    static constexpr auto OTHER_SEND = lumoraAiModule::TransType::SERVER_SEND;
    static constexpr unsigned int REASSEMBLY_SIZE = 2072676;
    static constexpr char EXIT[] = "The client reveived thread exit.\n";
    static constexpr bool CLOSE_BREAKS = true;  // whether an orderly close by the peer sets the broken flag

    std::shared_ptr<Transport> Make() { return std::make_shared<Transport>(mCallback, HANDLE); }
    // Bytes on the wire, and what they are delivered as.
    static Bytes Frame(const Bytes& payload) { return ServerFrameBytes("\x01", "text", payload); }
    static std::string Item(const Bytes& payload) { return Frame(payload); }
    const Inbox& Delivered() const { return mCallback.mFrames; }
    void OnDelivery(std::function<void()> hook) {
        mCallback.mOnData = [hook = std::move(hook)](char*, unsigned int) { hook(); };
    }

    RecordingCallback mCallback;
    lumoraAiModule::LUM_OBSERVER_S mObserver;
};

struct ServerSide {
    static constexpr char NAME[] = "Server";
    using Transport = OpenServer;
    static constexpr auto RECEIVE = lumoraAiModule::TransType::SERVER_RECEIVE;
    static constexpr auto SEND = lumoraAiModule::TransType::SERVER_SEND;
    static constexpr auto OTHER_RECEIVE = lumoraAiModule::TransType::CLIENT_RECEIVE;
    static constexpr auto OTHER_SEND = lumoraAiModule::TransType::CLIENT_SEND;
    static constexpr unsigned int REASSEMBLY_SIZE = 6291462;
    static constexpr char EXIT[] = "The server reveived thread exit.\n";
    static constexpr bool CLOSE_BREAKS = false;

    std::shared_ptr<Transport> Make() { return std::make_shared<Transport>(); }
    static Bytes Frame(const Bytes& payload) { return ClientFrame(3, payload); }
    static std::string Item(const Bytes& payload) { return RecordingObserver::Item(3, payload); }
    const Inbox& Delivered() const { return mRecorder.mBlocks; }
    void OnDelivery(std::function<void()> hook) {
        mRecorder.mOnData = [hook = std::move(hook)](const char*, unsigned int) { hook(); };
    }

    RecordingObserver mRecorder;
    lumoraAiModule::LUM_OBSERVER_S mObserver = RecordingObserver::Functions();
};

// The descriptors of this process.
std::set<int> OpenDescriptors();
// Those of them that are sockets.
std::set<int> OpenSockets();
void ForgetAllFaults();
// Ends the test program when action does not end: a thread that waits for itself would wait for ever.
void WithinSeconds(const std::function<void()>& action);

// Afterwards no descriptor may be left over.
template <typename Side>
class TcpFixture : public testing::Test {
protected:
    using Transport = typename Side::Transport;

    TcpFixture() : mDescriptorsBefore(OpenDescriptors()) {
        ForgetAllFaults();
        mTransport->Pending() = false;
    }
    ~TcpFixture() override {
        if (mTransport != nullptr) {
            Stop();
            mTransport->Pending() = false;
            mTransport.reset();
        }
        ForgetAllFaults();
        mPeer.Close();
        mSinkPeer.Close();
        mSink.Close();
        Eventually([this] { return OpenDescriptors() == mDescriptorsBefore; });
        EXPECT_EQ(mDescriptorsBefore, OpenDescriptors());
    }

    int Create(lumoraAiModule::TransType type, const std::string& addr, int port) {
        return mTransport->CreateTransports(type, addr, port, mSide.mObserver);
    }
    int CreateReceiving() { return Create(Side::RECEIVE, "", mPort); }
    int CreateSending() { return Create(Side::SEND, "127.0.0.1", mSink.Port()); }

    // The receiving direction with its peer connected, and the thread selecting.
    void Receive() {
        ASSERT_EQ(0, CreateReceiving()) << mLog.Dump();
        mPeer = RawConnection::To(mPort);
        ASSERT_TRUE(Eventually([] { return SystemCallCount(SystemCall::SELECT) > 0; }));
    }
    void ConnectSending() {
        ASSERT_EQ(0, CreateSending()) << mLog.Dump();
        mSinkPeer = mSink.Accept();
    }
    void Connect() {
        ASSERT_NO_FATAL_FAILURE(Receive());
        ASSERT_NO_FATAL_FAILURE(ConnectSending());
    }

    int Send(const Bytes& bytes) {
        return mTransport->SendData(bytes.data(), static_cast<unsigned int>(bytes.size()), &mWritten, 0);
    }
    // Each piece comes as one read.
    void Feed(const std::vector<Bytes>& pieces) {
        FeedReads(pieces);
        mPeer.Send(Bytes(pieces.size(), '.'));
    }
    bool Delivers(const std::vector<Bytes>& payloads) {
        std::vector<std::string> items;
        for (const Bytes& payload : payloads) {
            items.push_back(Side::Item(payload));
        }
        mSide.Delivered().WaitForCount(items.size());
        return mSide.Delivered().Items() == items;
    }
    void Stop() {
        WithinSeconds([this] { mTransport->StopTransports(); });
    }
    bool ThreadExits() { return mLog.WaitFor(2, Side::EXIT); }

    const std::set<int> mDescriptorsBefore;
    CapturedLog mLog;
    Side mSide;
    std::shared_ptr<Transport> mTransport = mSide.Make();
    RawListener mSink{0};
    const int mPort = FreePort();
    RawConnection mPeer;      // is received from
    RawConnection mSinkPeer;  // is sent to
    unsigned int mWritten = 4711;
};

using Sides = testing::Types<ClientSide, ServerSide>;

struct SideNames {
    template <typename Side>
    static std::string GetName(int) {
        return Side::NAME;
    }
};

}  // namespace lumora_test
