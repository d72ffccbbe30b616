// Transports whose inside can be seen, and what they deliver to.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "protocol/data_frame.h"
#include "tests/support/eventually.h"
#include "tests/support/raw_peer.h"
#include "tests/support/system_faults.h"
#include "transport/tcp_client_transport.h"
#include "transport/tcp_server_transport.h"

namespace lumora_test {

// What arrived, on whichever thread.
class Inbox {
public:
    void Put(std::string item) {
        const AllocationFaultsPaused paused;
        const std::lock_guard<std::mutex> lock(mMutex);
        mItems.push_back(std::move(item));
    }
    std::vector<std::string> Items() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mItems;
    }
    size_t Count() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mItems.size();
    }
    // Leaves nothing.
    std::vector<std::string> Take() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return std::exchange(mItems, {});
    }
    bool WaitForCount(size_t count) const {
        return Eventually([&] { return Count() >= count; });
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mItems;
};

// Keeps whole server frames. The hooks run on the receive thread; set them before it starts.
class RecordingCallback : public lumoraAiModule::LumoraTransCallback {
public:
    int OnRecvData(char* data, unsigned int length) override {
        Keep(data, length);
        if (mOnData) {
            mOnData(data, length);
        }
        return mResult;
    }
    int OnDisconnect(unsigned int handle) override {
        mDisconnects.Put(std::to_string(handle));
        if (mOnDisconnect) {
            mOnDisconnect();
        }
        return mResult;
    }

    Inbox mFrames;
    Inbox mDisconnects;
    std::function<void(char*, unsigned int)> mOnData;
    std::function<void()> mOnDisconnect;
    int mResult = 0;

private:
    void Keep(const char* data, unsigned int length) {
        const AllocationFaultsPaused paused;
        mFrames.Put(std::string(data, length));
    }
};

// Keeps what the plain function of an observer gets: the client ID as one byte, then the payload.
class RecordingObserver {
public:
    RecordingObserver() { Current() = this; }
    ~RecordingObserver() { Current() = nullptr; }
    RecordingObserver(const RecordingObserver&) = delete;
    RecordingObserver& operator=(const RecordingObserver&) = delete;

    static lumoraAiModule::LUM_OBSERVER_S Functions() {
        lumoraAiModule::LUM_OBSERVER_S functions;
        functions.OnData = &OnData;
        return functions;
    }
    static std::string Item(int clientID, const Bytes& payload) {
        return std::string(1, static_cast<char>(clientID)) + payload;
    }

    Inbox mBlocks;
    std::function<void(const char*, unsigned int)> mOnData;
    int mResult = 0;

private:
    void Keep(int clientID, const char* data, unsigned int length) {
        const AllocationFaultsPaused paused;
        mBlocks.Put(Item(clientID, Bytes(data, length)));
    }
    static RecordingObserver*& Current() {
        static RecordingObserver* current = nullptr;
        return current;
    }
    static int OnData(int clientID, const char* data, unsigned int length) {
        RecordingObserver& self = *Current();
        self.Keep(clientID, data, length);
        if (self.mOnData) {
            self.mOnData(data, length);
        }
        return self.mResult;
    }
};

template <typename Transport>
class OpenTransport : public Transport {
public:
    using Transport::CutFrames;
    using Transport::ParseAndSendData;
    using Transport::Transport;

    lumoraAiModule::Reassembly& Held() { return Transport::mStream.Held(); }
    bool AllocateReassembly() { return Held().Allocate(); }
    unsigned int BufferedLength() { return Held().Length(); }
    std::string Buffered() { return std::string(Held().Data(), BufferedLength()); }
    bool IsRunning() const { return Transport::mState.running; }
    bool IsBroken() const { return Transport::mState.broken; }
    bool HasSendSocket() { return Transport::mSender.Socket() != nullptr; }
    // The flag of all transports of this side.
    static std::atomic<bool>& Pending() { return Transport::mLeftOverPending; }
};

using OpenClient = OpenTransport<lumoraAiModule::LumoraTCPTransClient>;
using OpenServer = OpenTransport<lumoraAiModule::LumoraTCPTransServer>;

// Received bytes as the receive loop holds them: behind them come the spare zeroed ones.
class ReceivedBytes {
public:
    explicit ReceivedBytes(const Bytes& bytes)
        : mBytes(bytes.begin(), bytes.end()), mLength(static_cast<unsigned int>(bytes.size())) {
        mBytes.resize(bytes.size() + lumoraAiModule::FRAME_SPARE_LENGTH, '\0');
    }
    char* Data() { return mBytes.data(); }
    unsigned int Length() const { return mLength; }

private:
    std::vector<char> mBytes;
    unsigned int mLength;
};

}  // namespace lumora_test
