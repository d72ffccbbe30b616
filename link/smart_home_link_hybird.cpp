#include "link/smart_home_link_hybird.h"

#include <utility>

#include "library/log.h"
#include "link/descriptor_registry.h"

namespace lumora {

using lumoraAiModule::LumoraNotifyCallback;

namespace {

// The found devices that have no handle yet: they are freed when memory runs out half-way.
struct ProxyChainDeleter {
    void operator()(AppResourceProxy* proxy) const {
        while (proxy != nullptr) {
            AppResourceProxy* next = GetNextAppResourceProxy(proxy);
            FreeAppResourceProxy2(proxy);
            proxy = next;
        }
    }
};
using ProxyChain = std::unique_ptr<AppResourceProxy, ProxyChainDeleter>;

// The platform is a vendor's file that is replaced without a rebuild: one of another version, or an
// unfinished one, may leave an operation out. These are the operations that this library calls; null if all
// are there.
const char* MissingOperation(const LinkPlatform& table) {
    return table.Init == nullptr               ? "Init"
           : table.RegisterResource == nullptr ? "RegisterResource"
           : table.Run == nullptr              ? "Run"
           : table.Exit == nullptr             ? "Exit"
           : table.FindResource == nullptr     ? "FindResource"
                                               : nullptr;
}

const char* MissingOperation(const AppResourceProxy& table) {
    return table.Get == nullptr          ? "Get"
           : table.Put == nullptr        ? "Put"
           : table.Post == nullptr       ? "Post"
           : table.GetAddress == nullptr ? "GetAddress"
           : table.GetPort == nullptr    ? "GetPort"
                                         : nullptr;
}

// The platform is a vendor's file: an event without its texts must not end the process. `function` names the
// caller in the log.
bool LacksText(const NotifyDeviceInfo& info, const char* function) {
    if (info.addr != nullptr && info.devType != nullptr) {
        return false;
    }
    LUMORA_LOG_AS(LOG_WARNING, function, "a device event without an address or a type is ignored\n");
    return true;
}

template <typename Table>
bool IsComplete(const Table& table, const char* name) {
    const char* const missing = MissingOperation(table);
    if (missing == nullptr) {
        return true;
    }
    LUMORA_ERROR("liblumora.so does not fit this library: its %s has no %s.\n", name, missing);
    return false;
}

}  // namespace

Mutex SmartHomeLinkHybird::g_mConnectMutex;
NeverDestroyed<std::string> SmartHomeLinkHybird::g_mConnectAddr("0");
int SmartHomeLinkHybird::g_mConnectPort = -1;
NeverDestroyed<CallbackSlot<LumoraNotifyCallback>> SmartHomeLinkHybird::g_mNotifyCallback;

// The handle is freed before the members die: the platform may use mRecord until then.
SmartHomeLinkHybird::~SmartHomeLinkHybird() {
    if (mPlatform != nullptr) {
        FreeLinkPlatform(mPlatform);
        mPlatform = nullptr;
    }
}

std::shared_ptr<SmartHomeLink> SmartHomeLinkHybird::Get() {
    auto link = std::make_shared<SmartHomeLinkHybird>();
    if (!link->Initialize()) {
        LUMORA_DETAIL("SmartHomeLinkHybird is null\n");
        return nullptr;
    }
    return link;
}

// A platform that lacks an operation is refused here with one clear message, instead of a crash at its first
// use.
bool SmartHomeLinkHybird::Initialize() {
    mPlatform = GetLinkPlatform();
    if (mPlatform == nullptr) {
        LUMORA_DETAIL("LinkPlatform_get failure\n");
        return false;
    }
    return IsComplete(*mPlatform, "LinkPlatform") && mPlatform->Init(mPlatform) == 0;
}

// The record is kept also if the platform refuses: it may have stored the address before it failed. An
// earlier record is released only after the platform has got the new one.
bool SmartHomeLinkHybird::RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor> descriptor,
                                                   LumoraNotifyCallback* callback) {
    const std::shared_ptr<AppResource> record =
        LinkDeviceDescriptorWrapper::Get()->RegisterDeviceDescriptor(descriptor);
    if (record == nullptr) {
        LUMORA_DETAIL("Register device descriptor failure\n");
        return false;
    }
    int ret = 0;
    if (mPlatform != nullptr) {
        ret = mPlatform->RegisterResource(mPlatform, record.get(), RemoteDeviceNotifyCallback);
    }
    mRecord = record;
    g_mNotifyCallback->Set(callback);
    return ret == 0;
}

// The platform gives a chain of proxies. Each is cut off when its owner has been made, so every proxy has
// exactly one owner if memory runs out half-way. A proxy that lacks an operation is freed and left out.
bool SmartHomeLinkHybird::FindDevice(std::string& devType, std::list<std::shared_ptr<LinkDevice>>& devices) {
    ProxyChain rest(mPlatform != nullptr ? mPlatform->FindResource(mPlatform, devType.c_str()) : nullptr);
    while (rest != nullptr) {
        const bool usable = IsComplete(*rest, "AppResourceProxy");
        auto device = std::make_shared<LinkDeviceImpl>(*rest);
        rest.reset(GetNextAppResourceProxy(rest.release()));
        if (usable) {
            devices.push_back(std::move(device));
        }
    }
    return !devices.empty();
}

bool SmartHomeLinkHybird::Dbg(int level) {
    if (mPlatform != nullptr && mPlatform->SetDebugLevel != nullptr) {
        mPlatform->SetDebugLevel(mPlatform, level);
    }
    return true;
}

bool SmartHomeLinkHybird::Run() { return mPlatform == nullptr || mPlatform->Run(mPlatform) == 0; }

bool SmartHomeLinkHybird::Exit() {
    LUMORA_DETAIL("Stop SmartHomeLinkHybird\n");
    return mPlatform == nullptr || mPlatform->Exit(mPlatform) == 0;
}

// Returns false also on success; callers do not look.
bool SmartHomeLinkHybird::SetConnectDevice(std::string& addr, int port) {
    {
        const MutexLock lock(g_mConnectMutex);
        *g_mConnectAddr = addr;
        g_mConnectPort = port;
    }
    LUMORA_DETAIL("Set connect addr = %s, port = %d\n", addr.c_str(), port);
    return false;
}

std::string SmartHomeLinkHybird::ConnectAddr() {
    const MutexLock lock(g_mConnectMutex);
    return *g_mConnectAddr;
}

// Any host can join and leave, so events of hosts other than the connected one go no further. The strings are
// copied before the call: the platform's record is valid only during this function, and a callback may take
// long. The callback may be withdrawn after IsSet; Call then returns -1.
int SmartHomeLinkHybird::NotifyCallback(NotifyDeviceInfo* info) {
    if (info == nullptr) {
        LUMORA_DETAIL("devInfo is nullptr, on callback information!\n");
        return -1;
    }
    if (!g_mNotifyCallback->IsSet()) {
        LUMORA_DETAIL("g_mNotifyCallback is nullptr, can't callback!\n");
        return -1;
    }
    if (LacksText(*info, __func__)) {
        return -1;
    }
    if (ConnectAddr() != info->addr) {
        return 0;
    }
    LUMORA_DETAIL("we receive devType: %s , addr: %s, id = %d, port = %d\n", info->devType, info->addr,
                  static_cast<int>(info->id), info->port);
    const std::string addr = info->addr;
    const std::string devType = info->devType;
    return g_mNotifyCallback->Call(
        [&](LumoraNotifyCallback& callback) {
            return info->event == NOTIFY_DEVICE_ADDED
                       ? callback.OnAddDevice(info->id, addr, info->port, devType)
                       : callback.OnRemoveDevice(info->id, addr, info->port, devType);
        },
        -1);
}

void SmartHomeLinkHybird::WithdrawNotifyCallback(LumoraNotifyCallback* callback) {
    g_mNotifyCallback->Withdraw(callback);
}

// Called by the platform's event thread, which is C code.
int RemoteDeviceNotifyCallback(NotifyDeviceInfo* info) {
    if (info == nullptr) {
        return 0;
    }
    if (LacksText(*info, __func__)) {
        return -1;
    }
    if (info->event == NOTIFY_DEVICE_ADDED) {
        LUMORA_STATE("Remote Device Notify : add device id (%u), devType (%s), addr (%s), port (%d)\n",
                     info->id, info->devType, info->addr, info->port);
    } else {
        LUMORA_STATE("Remote Device Notify : remove device id (%u), devType (%s), addr (%s), port (%d)\n",
                     info->id, info->devType, info->addr, info->port);
    }
    try {
        return SmartHomeLinkHybird::NotifyCallback(info);
    } catch (...) {
        return -1;  // the caller is a C library
    }
}

}  // namespace lumora
