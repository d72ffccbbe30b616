// The list of devices as it changes, and the streams that tell of it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hub/core/device_hub.h"
#include "hub/core/quota.h"
#include "hub/web/flow.h"

namespace lumora_hub::web {

class DeviceFlow;

// All streams share one.
using EventPointer = std::shared_ptr<const DeviceEvent>;

// Belongs to the service thread.
class DeviceNews {
public:
    explicit DeviceNews(const DeviceHub& hub) : mHub(hub) {}

    void Take(const std::map<std::string, DeviceEvent>& events);
    // New counts for all streams; nothing if there are none.
    void TakeCounts();

private:
    friend class DeviceFlow;

    const DeviceHub& mHub;
    std::set<DeviceFlow*> mFlows;
    std::string mCounts;
};

// Begins with the whole list. A slow client gets the latest state of each device, not each of its changes:
// what waits for it is not more than the list.
class DeviceFlow final : public Flow {
public:
    DeviceFlow(DeviceNews& news, Framing framing, Quota::Share share);
    ~DeviceFlow() override;
    DeviceFlow(const DeviceFlow&) = delete;
    DeviceFlow& operator=(const DeviceFlow&) = delete;

    Piece Fill(char* room, std::size_t size) override;

private:
    friend class DeviceNews;

    bool Next();
    void Begin(const char* name, const std::string& text);

    DeviceNews& mNews;
    const Framing mFraming;
    const Quota::Share mShare;
    bool mHasList = false;
    bool mNeedsCounts = false;
    std::map<std::string, EventPointer> mChanged;
    Message mMessage;
};

}  // namespace lumora_hub::web
