#include "hub/mqtt/broker_session.h"

#include <mqtt_protocol.h>
#include <poll.h>

#include <algorithm>
#include <exception>
#include <random>
#include <utility>

#include "hub/mqtt/log.h"

namespace lumora_hub {

namespace {

using std::chrono::milliseconds;

// What the broker has not answered yet. One block is always permitted, whatever its size.
constexpr std::size_t MOST_UNDER_WAY = 32;
constexpr std::size_t MOST_BYTES_UNDER_WAY = std::size_t{8} << 20;
constexpr std::chrono::seconds CHECK_PERIOD{1};
// A connection that ends sooner is a failed one: the pause before the next grows. Two hubs of one name, for
// example, end each other's connections.
constexpr std::chrono::seconds LASTING{10};

// Hubs that lost the same broker do not all come back at the same moment.
milliseconds Scattered(milliseconds pause) {
    static thread_local std::minstd_rand random{std::random_device{}()};
    return pause * std::uniform_int_distribution<int>(75, 125)(random) / 100;
}

}  // namespace

BrokerSession::BrokerSession(const MqttSettings& settings, const Topics& topics, Owner& owner)
    : mSettings(settings), mTopics(topics), mOwner(owner), mPause(settings.firstRetry) {}

short BrokerSession::Events() const {
    return static_cast<short>(mConnection != nullptr && mConnection->WantsWrite() ? POLLIN | POLLOUT
                                                                                  : POLLIN);
}

BrokerSession::Clock::time_point BrokerSession::NextTime() const {
    const auto next = Clock::now() + CHECK_PERIOD;
    return mConnection == nullptr ? std::min(next, mNextTry) : next;
}

void BrokerSession::CheckTimes() {
    const auto now = Clock::now();
    if (mConnection == nullptr) {
        if (now >= mNextTry) {
            Open();
        }
        return;
    }
    if (!mIsConnected && now >= mSince + mSettings.connectLimit) {
        Lose("it does not answer");
    } else if (now >= mNextCheck) {
        mNextCheck = now + CHECK_PERIOD;
        if (!mConnection->CheckTimes()) {
            Lose(mConnection->Reason());
        }
    }
}

void BrokerSession::OnSocket(short events) {
    if (mConnection == nullptr || events == 0) {
        return;
    }
    const bool isReadable = (events & ~POLLOUT) != 0;
    if ((isReadable && !mConnection->Read()) || ((events & POLLOUT) != 0 && !mConnection->Write())) {
        Lose(mConnection->Reason());
    } else if (std::exchange(mIsAccepted, false)) {
        Begin();
    }
}

bool BrokerSession::HasRoom() const {
    return mIsConnected && !mConnection->WantsWrite() && mUnderWay.size() < MOST_UNDER_WAY &&
           mBytesUnderWay < MOST_BYTES_UNDER_WAY;
}

std::size_t BrokerSession::Waiting() const {
    const auto blocks = std::count_if(mUnderWay.begin(), mUnderWay.end(),
                                      [](const UnderWay& entry) { return entry.block != nullptr; });
    return mAgain.size() + static_cast<std::size_t>(blocks);
}

BlockPointer BrokerSession::NextAgain() {
    if (mAgain.empty()) {
        return nullptr;
    }
    BlockPointer block = std::move(mAgain.front());
    mAgain.pop_front();
    return block;
}

void BrokerSession::PublishBlock(const BlockPointer& block, const std::string& topic,
                                 MqttProperties properties) try {
    Publish({topic, block->bytes, mSettings.qos, false, std::move(properties)}, {0, block, ""});
} catch (const std::exception&) {
    ++mCounts.lost;
    throw;
}

void BrokerSession::PublishText(const std::string& topic, const std::string& text, bool isRetained,
                                MqttProperties properties) {
    Publish({topic, text, 1, isRetained, std::move(properties)}, {0, nullptr, topic});
}

void BrokerSession::Disconnect() {
    if (mConnection != nullptr) {
        mConnection->Disconnect();
        mIsConnected = false;
    }
}

// Called by libmosquitto, which must not be called back: Begin does the rest.
void BrokerSession::OnConnected() { mIsAccepted = true; }

void BrokerSession::OnPublished(int number, const char* refusal) {
    const auto place = std::find_if(mUnderWay.begin(), mUnderWay.end(),
                                    [&](const UnderWay& entry) { return entry.number == number; });
    if (place == mUnderWay.end()) {
        mFinishedNumber = number;  // QoS 0, and Publish has not returned
        return;
    }
    const UnderWay entry = std::move(*place);
    mUnderWay.erase(place);
    mBytesUnderWay -= entry.block != nullptr ? entry.block->bytes.size() : 0;
    Finish(entry, refusal);
}

void BrokerSession::OnSubscribed(int, const char* refusal) {
    if (refusal != nullptr) {
        MQTT_LOG(MQTT_WARNING,
                 "the broker %s refuses a subscription: %s; it passes on no commands or blocks\n",
                 BrokerName().c_str(), refusal);
    }
}

void BrokerSession::OnMessage(MqttMessage message) { mOwner.OnSessionMessage(std::move(message)); }

void BrokerSession::Open() {
    mSince = Clock::now();
    try {
        BrokerConnection::Listener& listener = *this;
        mConnection = std::make_unique<BrokerConnection>(mSettings, mTopics.HubOnline(), listener);
    } catch (const std::exception& problem) {
        Lose(problem.what());
        return;
    }
    if (!mConnection->Open()) {
        Lose(mConnection->Reason());
    }
}

void BrokerSession::Begin() {
    constexpr int OURS = MQTT_SUB_OPT_NO_LOCAL;
    constexpr int REQUEST = OURS | MQTT_SUB_OPT_RETAIN_AS_PUBLISHED | MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    int number = 0;
    mIsConnected = true;
    mSince = Clock::now();
    ++mCounts.connections;
    MQTT_LOG(MQTT_STATE, "connected to the broker %s as %s\n", BrokerName().c_str(), mSettings.name.c_str());
    if (!mConnection->Subscribe(mTopics.Commands(), REQUEST, number) ||
        !mConnection->Subscribe(mTopics.Sends(), REQUEST, number) ||
        !mConnection->Subscribe(mTopics.Descriptions(), OURS, number)) {
        Lose(mConnection->Reason());
        return;
    }
    mOwner.OnSessionBegun();
}

void BrokerSession::Lose(const std::string& reason) {
    const auto now = Clock::now();
    // reason is the connection's. It is closed when this function returns.
    const std::unique_ptr<BrokerConnection> ended = std::move(mConnection);
    const bool wasConnected = std::exchange(mIsConnected, false);
    mIsAccepted = false;
    if (wasConnected && now >= mSince + LASTING) {
        mPause = mSettings.firstRetry;
    }
    const milliseconds pause = Scattered(mPause);
    mPause = std::min(mPause * 2, mSettings.lastRetry);
    mNextTry = now + pause;
    KeepBlocks();
    const double seconds = static_cast<double>(pause.count()) / 1000;
    if (!wasConnected) {
        ++mCounts.failures;
        MQTT_LOG(MQTT_ERROR, "cannot connect to the broker %s: %s; next try in %.1f s\n",
                 BrokerName().c_str(), reason.c_str(), seconds);
        return;
    }
    MQTT_LOG(MQTT_WARNING, "lost the broker %s: %s; next try in %.1f s\n", BrokerName().c_str(),
             reason.c_str(), seconds);
    mOwner.OnSessionLost();
}

// With QoS 1, what the broker has not acknowledged is published again. It may have got it nevertheless.
void BrokerSession::KeepBlocks() {
    for (auto entry = mUnderWay.rbegin(); entry != mUnderWay.rend(); ++entry) {
        if (entry->block != nullptr && mSettings.qos == 1) {
            mAgain.push_front(std::move(entry->block));
        } else if (entry->block != nullptr) {
            ++mCounts.lost;
        }
    }
    mUnderWay.clear();
    mBytesUnderWay = 0;
}

void BrokerSession::Publish(const MqttPublication& publication, UnderWay entry) {
    mFinishedNumber = 0;
    const auto result = mConnection->Publish(publication, entry.number);
    if (result == BrokerConnection::Result::IMPOSSIBLE) {
        Finish(entry, mConnection->Reason().c_str());
    } else if (result == BrokerConnection::Result::DONE && mFinishedNumber == entry.number) {
        Finish(entry, nullptr);
    } else {
        mBytesUnderWay += entry.block != nullptr ? entry.block->bytes.size() : 0;
        mUnderWay.push_back(std::move(entry));
    }
    if (result == BrokerConnection::Result::LOST) {
        Lose(mConnection->Reason());
    }
}

void BrokerSession::Finish(const UnderWay& entry, const char* refusal) {
    if (refusal != nullptr) {
        const std::string what =
            entry.block == nullptr ? entry.topic : entry.block->device + '/' + entry.block->service;
        MQTT_LOG_LIMITED(MQTT_WARNING, "the broker %s does not take %s: %s\n", BrokerName().c_str(),
                         ReadableText(what).c_str(), refusal);
    }
    if (entry.block == nullptr) {
        return;
    }
    if (refusal != nullptr) {
        ++mCounts.lost;
    } else {
        ++mCounts.published;
        mCounts.publishedBytes += entry.block->bytes.size();
    }
}

std::string BrokerSession::BrokerName() const {
    return mSettings.port != 0 ? mSettings.host + ':' + std::to_string(mSettings.port) : mSettings.host;
}

}  // namespace lumora_hub
