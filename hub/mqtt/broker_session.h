// Keeps a connection to the broker: opens it, waits longer after each failure, and knows what is under way.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "hub/core/block.h"
#include "hub/mqtt/broker_connection.h"
#include "hub/mqtt/topics.h"

namespace lumora_hub {

struct SessionCounts {
    std::uint64_t connections = 0;
    std::uint64_t failures = 0;   // attempts to connect
    std::uint64_t published = 0;  // blocks that the broker (QoS 1) or the socket (QoS 0) has taken
    std::uint64_t publishedBytes = 0;
    std::uint64_t lost = 0;  // blocks that the broker refused, or that a connection took with it
};

// For one thread, which polls Socket for Events.
class BrokerSession : private BrokerConnection::Listener {
public:
    using Clock = std::chrono::steady_clock;

    class Owner {
    public:
        virtual ~Owner() = default;
        virtual void OnSessionBegun() = 0;
        virtual void OnSessionLost() = 0;
        // Must not call back.
        virtual void OnSessionMessage(MqttMessage message) = 0;
    };

    BrokerSession(const MqttSettings& settings, const Topics& topics, Owner& owner);

    int Socket() const { return mConnection != nullptr ? mConnection->Socket() : -1; }
    short Events() const;
    // When CheckTimes has something to do; at most a second from now.
    Clock::time_point NextTime() const;
    void CheckTimes();
    void OnSocket(short events);

    bool IsConnected() const { return mIsConnected; }
    // Whether the broker keeps up. Nothing must be published while it does not.
    bool HasRoom() const;
    bool IsAllAnswered() const { return mUnderWay.empty(); }
    // Blocks that the broker has not answered, or that a lost connection left.
    std::size_t Waiting() const;

    // A block that was under way when a connection was lost. Null if there is none.
    BlockPointer NextAgain();
    void PublishBlock(const BlockPointer& block, const std::string& topic, MqttProperties properties);
    void PublishText(const std::string& topic, const std::string& text, bool isRetained,
                     MqttProperties properties = {});
    // No last will is published.
    void Disconnect();

    const SessionCounts& Counts() const { return mCounts; }

private:
    struct UnderWay {
        int number = 0;
        BlockPointer block;  // null for a text
        std::string topic;   // of a text
    };

    void OnConnected() override;
    void OnPublished(int number, const char* refusal) override;
    void OnSubscribed(int number, const char* refusal) override;
    void OnMessage(MqttMessage message) override;

    void Open();
    void Begin();
    void Lose(const std::string& reason);
    void KeepBlocks();
    void Publish(const MqttPublication& publication, UnderWay entry);
    void Finish(const UnderWay& entry, const char* refusal);
    std::string BrokerName() const;

    const MqttSettings mSettings;
    const Topics& mTopics;
    Owner& mOwner;
    std::unique_ptr<BrokerConnection> mConnection;
    bool mIsConnected = false;   // the broker has consented
    bool mIsAccepted = false;    // it has within the call in progress
    Clock::time_point mSince;    // the connection was opened, or the broker consented
    Clock::time_point mNextTry;  // while there is no connection
    Clock::time_point mNextCheck;
    std::chrono::milliseconds mPause;
    std::deque<UnderWay> mUnderWay;
    std::size_t mBytesUnderWay = 0;
    std::deque<BlockPointer> mAgain;
    int mFinishedNumber = 0;  // of the publication that was finished within Publish
    SessionCounts mCounts;
};

}  // namespace lumora_hub
