#include "hub/web/device_news.h"

#include "hub/web/json_texts.h"

namespace lumora_hub::web {

void DeviceNews::Take(const std::map<std::string, DeviceEvent>& events) {
    for (const auto& [id, event] : events) {
        const auto shared = mFlows.empty() ? nullptr : std::make_shared<const DeviceEvent>(event);
        for (DeviceFlow* const flow : mFlows) {
            flow->mChanged[id] = shared;
        }
    }
}

void DeviceNews::TakeCounts() {
    if (mFlows.empty()) {
        return;
    }
    mCounts = CountsMessage(mHub.Devices());
    for (DeviceFlow* const flow : mFlows) {
        flow->mNeedsCounts = true;
    }
}

DeviceFlow::DeviceFlow(DeviceNews& news, Framing framing, Quota::Share share)
    : mNews(news), mFraming(framing), mShare(std::move(share)), mMessage(Greeting(framing)) {
    mNews.mFlows.insert(this);
}

DeviceFlow::~DeviceFlow() { mNews.mFlows.erase(this); }

Piece DeviceFlow::Fill(char* room, std::size_t size) {
    if (mMessage.IsRead() && !Next()) {
        return {};
    }
    return mMessage.Read(room, size);
}

// Changes that come before the list is made are part of it.
bool DeviceFlow::Next() {
    if (!mHasList) {
        mHasList = true;
        Begin("devices", ListMessage(mNews.mHub.Devices()));
    } else if (!mChanged.empty()) {
        Begin("device", ChangeMessage(*mChanged.begin()->second));
        mChanged.erase(mChanged.begin());
    } else if (mNeedsCounts) {
        mNeedsCounts = false;
        Begin("counts", mNews.mCounts);
    } else {
        return false;
    }
    return true;
}

void DeviceFlow::Begin(const char* name, const std::string& text) {
    mMessage = Message(mFraming == Framing::WEB_SOCKET ? text : ServerSentEvent(name, "", text));
}

}  // namespace lumora_hub::web
