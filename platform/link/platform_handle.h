// A handle on the platform: what the application set on it, and its node while it runs.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "link_platform.h"
#include "mutex.h"
#include "node.h"

namespace lumora_link {

class PlatformHandle {
public:
    PlatformHandle();
    ~PlatformHandle();

    bool Init();
    bool Register(AppResource* resource, DeviceEventFunction onDeviceEvent);
    bool Run();
    // False on a thread that it would wait for.
    bool Exit();
    AppResourceProxy* Find(const char* deviceType);
    bool IsOwnThread();

private:
    std::shared_ptr<Node> CurrentNode();

    const std::uint64_t nodeId_;
    Mutex lifecycle_;  // held while a node starts or stops; never asked for by its threads
    Mutex mutex_;
    bool initialised_ LINK_GUARDED_BY(mutex_) = false;
    Config config_ LINK_GUARDED_BY(mutex_);
    Registration registration_ LINK_GUARDED_BY(mutex_);
    std::shared_ptr<Node> node_ LINK_GUARDED_BY(mutex_);
};

}  // namespace lumora_link
