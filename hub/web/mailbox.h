// What threads of the hub leave for the service thread of the web face.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "hub/core/device_hub.h"

namespace lumora_hub::web {

// Any thread may call its functions. Callbacks of the hub hold a reference, so it may outlive the web face.
class Mailbox {
public:
    struct Mail {
        std::set<std::uint64_t> ready;                            // consumers with blocks
        std::vector<std::pair<std::uint64_t, Outcome>> outcomes;  // of requests
        std::map<std::string, DeviceEvent> events;  // of each device the latest: older ones no longer matter
    };

    void PutReady(std::uint64_t consumer);
    void PutOutcome(std::uint64_t request, Outcome outcome);
    void PutEvent(const DeviceEvent& event);
    Mail TakeAll();

    // wake is called when something comes into the empty mailbox. It must return at once.
    void Open(std::function<void()> wake);
    // wake is called no more, and what comes is dropped.
    void Close();

private:
    void Wake() REQUIRES(mMutex);

    lumora::Mutex mMutex;  // a leaf lock but for the wake-up, which writes to a pipe
    std::function<void()> mWake GUARDED_BY(mMutex);
    bool mIsAwake GUARDED_BY(mMutex) = false;  // woken, and has not taken the mail yet
    Mail mMail GUARDED_BY(mMutex);
};

}  // namespace lumora_hub::web
