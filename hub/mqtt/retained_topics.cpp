#include "hub/mqtt/retained_topics.h"

namespace lumora_hub {

void RetainedTopics::Set(const std::string& topic, std::string payload) {
    const auto place = mPayloads.find(topic);
    if (place != mPayloads.end() && place->second == payload) {
        return;
    }
    mPayloads.insert_or_assign(topic, std::move(payload));
    if (mIsConnected) {
        mWaiting.push_back(topic);
    }
}

void RetainedTopics::Clear(const std::string& topic) {
    mPayloads.erase(topic);
    if (mIsConnected) {
        mWaiting.push_back(topic);
    }
}

void RetainedTopics::Connected() {
    mIsConnected = true;
    mWaiting.clear();
    for (const auto& entry : mPayloads) {
        mWaiting.push_back(entry.first);
    }
}

void RetainedTopics::Lost() {
    mIsConnected = false;
    mWaiting.clear();
}

std::optional<RetainedTopics::Message> RetainedTopics::Next() {
    if (mWaiting.empty()) {
        return std::nullopt;
    }
    Message message;
    message.topic = std::move(mWaiting.front());
    mWaiting.pop_front();
    const auto place = mPayloads.find(message.topic);
    if (place != mPayloads.end()) {
        message.payload = place->second;
    }
    return message;
}

}  // namespace lumora_hub
