// A handle on the platform: what the application set on it, and its node while it runs.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "link_platform.h"
#include "platform/link/capi/node.h"
#include "platform/link/io/config.h"

namespace lumora_link {

class PlatformHandle {
public:
    PlatformHandle();
    ~PlatformHandle();

    bool Init();
    bool Register(AppResource* resource, DeviceEventFunction onDeviceEvent);
    bool Run();
    // Stops the node; blocks until its threads have ended. False on a thread of the node itself, because the
    // call would wait for its own thread.
    bool Exit();
    AppResourceProxy* Find(const char* deviceType);
    bool IsOwnThread();

private:
    std::shared_ptr<Node> CurrentNode();

    const std::uint64_t mNodeId;
    // Serialises Run and Exit, and is held while a node's threads are started and joined. Those threads never
    // take it; they take mMutex only.
    lumora::Mutex mLifecycle ACQUIRED_BEFORE(mMutex);
    lumora::Mutex mMutex;
    bool mInitialised GUARDED_BY(mMutex) = false;
    Config mConfig GUARDED_BY(mMutex);
    Registration mRegistration GUARDED_BY(mMutex);
    std::shared_ptr<Node> mNode GUARDED_BY(mMutex);
};

}  // namespace lumora_link
