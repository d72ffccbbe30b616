#include "hub/mqtt/retained_topics.h"

#include <iterator>
#include <utility>

namespace lumora_hub {

void RetainedTopics::Set(const std::string& topic, std::string payload) {
    const auto place = mPayloads.find(topic);
    if (place != mPayloads.end() && place->second == payload) {
        return;
    }
    mPayloads.insert_or_assign(topic, std::move(payload));
    Wait(topic);
}

void RetainedTopics::Clear(const std::string& topic) {
    mPayloads.erase(topic);
    Wait(topic);
}

void RetainedTopics::Connected() {
    Lost();
    mIsConnected = true;
    for (const auto& entry : mPayloads) {
        Wait(entry.first);
    }
}

void RetainedTopics::Lost() {
    mIsConnected = false;
    mPlaces.clear();
    mWaiting.clear();
}

std::optional<RetainedTopics::Message> RetainedTopics::Next() {
    if (mWaiting.empty()) {
        return std::nullopt;
    }
    Message message;
    message.topic = std::move(mWaiting.front());
    mWaiting.pop_front();
    mPlaces.erase(message.topic);
    const auto payload = mPayloads.find(message.topic);
    if (payload != mPayloads.end()) {
        message.payload = payload->second;
    }
    return message;
}

// A topic that waits already goes to the end: what must be sent last is.
void RetainedTopics::Wait(const std::string& topic) {
    if (!mIsConnected) {
        return;
    }
    const auto place = mPlaces.find(topic);
    if (place != mPlaces.end()) {
        mWaiting.splice(mWaiting.end(), mWaiting, place->second);
        return;
    }
    mWaiting.push_back(topic);
    mPlaces[topic] = std::prev(mWaiting.end());
}

}  // namespace lumora_hub
