#include "platform/link/capi/platform_handle.h"

#include <cstdlib>
#include <cstring>

#include "platform/link/capi/resource_proxy.h"
#include "platform/link/io/system_random.h"
#include "platform/link/log.h"

namespace lumora_link {

PlatformHandle::PlatformHandle() : mNodeId(SystemRandom().Next()) {}

PlatformHandle::~PlatformHandle() { Exit(); }

bool PlatformHandle::Init() {
    // secure_getenv: a program with more rights than its caller ignores the caller's environment.
    Config config = ReadConfig([](const char* name) -> const char* { return secure_getenv(name); });
    lumora::MutexLock lock(mMutex);
    if (!mInitialised) {
        mConfig = std::move(config);
        mInitialised = true;
    }
    return true;
}

bool PlatformHandle::Register(AppResource* resource, DeviceEventFunction onDeviceEvent) {
    if (resource == nullptr) {
        return false;
    }
    Registration registration;
    registration.resource = resource;
    registration.handlers = *resource;
    registration.onDeviceEvent = onDeviceEvent;
    const auto describe = registration.handlers.DoGetDescriptor;
    if (const char* text = describe == nullptr ? nullptr : describe(resource)) {
        // strnlen: the application's text may lack a terminator.
        if (strnlen(text, MAX_TEXT_BYTES + 1) > MAX_TEXT_BYTES) {
            LINK_LOG(LEVEL_ERROR, "a device type has at most %zu bytes\n", MAX_TEXT_BYTES);
            return false;
        }
        registration.deviceType = text;
    }
    std::shared_ptr<Node> node;
    {
        lumora::MutexLock lock(mMutex);
        mRegistration = registration;
        node = mNode;
    }
    // Without mMutex: the node posts to its I/O thread.
    if (node != nullptr) {
        node->Register(std::move(registration));
    }
    return true;
}

bool PlatformHandle::Run() {
    lumora::MutexLock lifecycle(mLifecycle);
    Config config;
    Registration registration;
    {
        lumora::MutexLock lock(mMutex);
        if (!mInitialised) {
            LINK_LOG(LEVEL_ERROR, "Run before Init\n");
            return false;
        }
        if (mNode != nullptr) {
            return true;
        }
        config = mConfig;
        registration = mRegistration;
    }
    // A node that starts again has the same id and a new number of its life, so that peers tell it from the
    // old one.
    const NodeIdentity identity{mNodeId, static_cast<std::uint32_t>(SystemRandom().Next())};
    auto node = std::make_shared<Node>(std::move(config), identity, std::move(registration));
    // Without mMutex, because Start waits for the I/O thread.
    if (!node->Start()) {
        return false;
    }
    lumora::MutexLock lock(mMutex);
    mNode = std::move(node);
    return true;
}

bool PlatformHandle::Exit() {
    if (IsOwnThread()) {
        LINK_LOG(LEVEL_ERROR, "Exit was called by a handler or a device event, for which it would wait\n");
        return false;
    }
    lumora::MutexLock lifecycle(mLifecycle);
    const std::shared_ptr<Node> node = CurrentNode();
    if (node == nullptr) {
        return true;
    }
    // Without mMutex: Stop joins threads whose handlers may call Find, which takes mMutex.
    node->Stop();
    lumora::MutexLock lock(mMutex);
    mNode.reset();
    return true;
}

AppResourceProxy* PlatformHandle::Find(const char* deviceType) {
    const std::shared_ptr<Node> node = CurrentNode();
    if (node == nullptr || deviceType == nullptr ||
        strnlen(deviceType, MAX_TEXT_BYTES + 1) > MAX_TEXT_BYTES) {
        return nullptr;
    }
    return MakeProxyChain(node, node->Find(deviceType));
}

bool PlatformHandle::IsOwnThread() {
    const std::shared_ptr<Node> node = CurrentNode();
    return node != nullptr && node->IsOwnThread();
}

std::shared_ptr<Node> PlatformHandle::CurrentNode() {
    lumora::MutexLock lock(mMutex);
    return mNode;
}

}  // namespace lumora_link
