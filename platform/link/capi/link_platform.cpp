// The five exported functions and the table of operations. They check arguments and let no exception reach C.
#include "link_platform.h"

#include "platform/link/capi/platform_handle.h"
#include "platform/link/capi/resource_proxy.h"
#include "platform/link/capi/security.h"
#include "platform/link/io/coap_port.h"
#include "platform/link/log.h"

#define LINK_EXPORT __attribute__((visibility("default")))

namespace {

using lumora_link::PlatformHandle;

// LinkPlatform is the first base, so a LinkPlatform* can be cast to Handle*.
struct Handle : LinkPlatform {
    PlatformHandle own;
};

template <typename Work>
// 0 if the work succeeds, otherwise -1. An exception here is std::bad_alloc or std::system_error of a thread.
int ResultOf(LinkPlatform* platform, const Work& work) noexcept {
    if (platform == nullptr) {
        return -1;
    }
    try {
        return work(static_cast<Handle*>(platform)->own) ? 0 : -1;
    } catch (...) {
        LINK_LOG(lumora_link::LEVEL_ERROR, "the system lacks memory or threads\n");
        return -1;
    }
}

extern "C" {

static int PlatformInit(LinkPlatform* platform) {
    return ResultOf(platform, [](PlatformHandle& own) { return own.Init(); });
}

static void PlatformReserved() {}

static int PlatformSetDebugLevel(LinkPlatform* platform, int level) {
    return ResultOf(platform, [level](PlatformHandle&) {
        lumora_link::CoapPort::SetLogLevel(level);
        return true;
    });
}

static int PlatformRegisterResource(LinkPlatform* platform, AppResource* resource,
                                    DeviceEventFunction onDeviceEvent) {
    return ResultOf(platform, [=](PlatformHandle& own) { return own.Register(resource, onDeviceEvent); });
}

static int PlatformRun(LinkPlatform* platform) {
    return ResultOf(platform, [](PlatformHandle& own) { return own.Run(); });
}

static int PlatformExit(LinkPlatform* platform) {
    return ResultOf(platform, [](PlatformHandle& own) { return own.Exit(); });
}

static AppResourceProxy* PlatformFindResource(LinkPlatform* platform, const char* devType) {
    AppResourceProxy* first = nullptr;
    ResultOf(platform, [&](PlatformHandle& own) {
        first = own.Find(devType);
        return true;
    });
    return first;
}

}  // extern "C"

}  // namespace

extern "C" {

LINK_EXPORT LinkPlatform* GetLinkPlatform(void) {
    try {
        // FreeLinkPlatform deletes it.
        auto handle = std::make_unique<Handle>();
        static_cast<LinkPlatform&>(*handle) = {
            PlatformInit,     PlatformReserved, PlatformSetDebugLevel, PlatformRegisterResource,
            PlatformReserved, PlatformRun,      PlatformExit,          PlatformFindResource};
        return handle.release();
    } catch (...) {
        return nullptr;
    }
}

LINK_EXPORT void FreeLinkPlatform(LinkPlatform* platform) {
    ResultOf(platform, [platform](PlatformHandle& own) {
        if (!own.Exit()) {
            // Called on a thread of the node: the threads still use the handle. Leaking it is safer than a
            // crash.
            return false;
        }
        const std::unique_ptr<Handle> owner(static_cast<Handle*>(platform));
        return true;
    });
}

LINK_EXPORT AppResourceProxy* GetNextAppResourceProxy(AppResourceProxy* proxy) {
    return lumora_link::NextOf(proxy);
}

LINK_EXPORT void FreeAppResourceProxy2(AppResourceProxy* proxy) { lumora_link::FreeProxy(proxy); }

LINK_EXPORT const LinkSecurity* GetLinkSecurity(void) { return &lumora_link::SecurityOperations(); }

}  // extern "C"
