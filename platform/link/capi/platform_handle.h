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
    // False on a thread that it would wait for.
    bool Exit();
    AppResourceProxy* Find(const char* deviceType);
    bool IsOwnThread();

private:
    std::shared_ptr<Node> CurrentNode();

    const std::uint64_t mNodeId;
    lumora::Mutex mLifecycle;  // held while a node starts or stops; never asked for by its threads
    lumora::Mutex mMutex;
    bool mInitialised GUARDED_BY(mMutex) = false;
    Config mConfig GUARDED_BY(mMutex);
    Registration mRegistration GUARDED_BY(mMutex);
    std::shared_ptr<Node> mNode GUARDED_BY(mMutex);
};

}  // namespace lumora_link
