#include "platform_handle.h"

#include <cstdlib>
#include <cstring>

#include "log.h"
#include "resource_proxy.h"

namespace lumora_link {

PlatformHandle::PlatformHandle() : nodeId_(RandomNumber()) {}

PlatformHandle::~PlatformHandle() { Exit(); }

bool PlatformHandle::Init() {
    Config config = ReadConfig([](const char* name) -> const char* { return std::getenv(name); });
    MutexLock lock(mutex_);
    if (!initialised_) {
        config_ = std::move(config);
        initialised_ = true;
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
        if (strnlen(text, kMaxTextBytes + 1) > kMaxTextBytes) {
            LINK_LOG(kLogError, "a device type has at most %zu bytes\n", kMaxTextBytes);
            return false;
        }
        registration.deviceType = text;
    }
    std::shared_ptr<Node> node;
    {
        MutexLock lock(mutex_);
        registration_ = registration;
        node = node_;
    }
    if (node != nullptr) {
        node->Register(std::move(registration));
    }
    return true;
}

bool PlatformHandle::Run() {
    MutexLock lifecycle(lifecycle_);
    Config config;
    Registration registration;
    {
        MutexLock lock(mutex_);
        if (!initialised_) {
            LINK_LOG(kLogError, "Run before Init\n");
            return false;
        }
        if (node_ != nullptr) {
            return true;
        }
        config = config_;
        registration = registration_;
    }
    const NodeIdentity identity{nodeId_, static_cast<std::uint32_t>(RandomNumber())};
    auto node = std::make_shared<Node>(std::move(config), identity, std::move(registration));
    if (!node->Start()) {
        return false;
    }
    MutexLock lock(mutex_);
    node_ = std::move(node);
    return true;
}

bool PlatformHandle::Exit() {
    if (IsOwnThread()) {
        LINK_LOG(kLogError, "Exit was called by a handler or a device event, for which it would wait\n");
        return false;
    }
    MutexLock lifecycle(lifecycle_);
    const std::shared_ptr<Node> node = CurrentNode();
    if (node == nullptr) {
        return true;
    }
    node->Stop();
    MutexLock lock(mutex_);
    node_.reset();
    return true;
}

AppResourceProxy* PlatformHandle::Find(const char* deviceType) {
    const std::shared_ptr<Node> node = CurrentNode();
    if (node == nullptr || deviceType == nullptr || strnlen(deviceType, kMaxTextBytes + 1) > kMaxTextBytes) {
        return nullptr;
    }
    return MakeProxyChain(node, node->Find(deviceType));
}

bool PlatformHandle::IsOwnThread() {
    const std::shared_ptr<Node> node = CurrentNode();
    return node != nullptr && node->IsOwnThread();
}

std::shared_ptr<Node> PlatformHandle::CurrentNode() {
    MutexLock lock(mutex_);
    return node_;
}

}  // namespace lumora_link
