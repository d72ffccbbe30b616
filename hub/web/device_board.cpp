#include "hub/web/device_board.h"

#include "hub/web/json_texts.h"

namespace lumora_hub {

void DeviceBoard::Take(const std::map<std::string, DeviceEvent>& events) {
    for (const auto& [id, event] : events) {
        for (DeviceFlow* const flow : mFlows) {
            flow->mChanged[id] = event;
        }
    }
}

void DeviceBoard::TakeCounts() {
    if (mFlows.empty()) {
        return;
    }
    mCounts = CountsMessage(mHub.Devices());
    for (DeviceFlow* const flow : mFlows) {
        flow->mNeedsCounts = true;
    }
}

DeviceFlow::DeviceFlow(DeviceBoard& board, Framing framing) : mBoard(board), mFraming(framing) {
    mBoard.mFlows.insert(this);
}

DeviceFlow::~DeviceFlow() { mBoard.mFlows.erase(this); }

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
        Begin("devices", ListMessage(mBoard.mHub.Devices()));
    } else if (!mChanged.empty()) {
        Begin("device", ChangeMessage(mChanged.begin()->second));
        mChanged.erase(mChanged.begin());
    } else if (mNeedsCounts) {
        mNeedsCounts = false;
        Begin("counts", mBoard.mCounts);
    } else {
        return false;
    }
    return true;
}

void DeviceFlow::Begin(const char* name, const std::string& text) {
    mMessage = Message(mFraming == Framing::WEB_SOCKET ? text : ServerSentEvent(name, "", text));
}

}  // namespace lumora_hub
