// The link mode that does the work: it finds others and can be found.
#pragma once

#include <memory>
#include <string>

#include "base/mutex.h"
#include "base/never_destroyed.h"
#include "link/callback_slot.h"
#include "link/smart_home_link.h"
#include "link_platform.h"

namespace lumora {

class SmartHomeLinkHybird : public SmartHomeLink {
public:
    SmartHomeLinkHybird() = default;
    ~SmartHomeLinkHybird() override;
    SmartHomeLinkHybird(const SmartHomeLinkHybird&) = delete;
    SmartHomeLinkHybird& operator=(const SmartHomeLinkHybird&) = delete;

    static std::shared_ptr<SmartHomeLink> Get();
    bool Initialize();

    bool RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor> descriptor,
                                  lumoraAiModule::LumoraNotifyCallback* callback) override;
    bool FindDevice(std::string& devType, std::list<std::shared_ptr<LinkDevice>>& devices) override;
    bool Dbg(int level) override;
    bool Run() override;
    bool Exit() override;
    bool SetConnectDevice(std::string& addr, int port) override;

    // Hands an event of the connected device to the callback that registered last.
    static int NotifyCallback(NotifyDeviceInfo* info);

    // Unregisters a callback before it is destroyed. Returns when no event is being handed to it any more.
    static void WithdrawNotifyCallback(lumoraAiModule::LumoraNotifyCallback* callback);

private:
    static std::string ConnectAddr();

    LinkPlatform* mPlatform = nullptr;
    // Outlives the handle, which passes its address back.
    std::shared_ptr<AppResource> mRecord;

    // Shared by every link of the process: events come from the platform's threads, also when the link
    // that registered for them is gone.
    static Mutex g_mConnectMutex;  // a leaf lock
    static NeverDestroyed<std::string> g_mConnectAddr GUARDED_BY(g_mConnectMutex);
    static int g_mConnectPort GUARDED_BY(g_mConnectMutex);
    static NeverDestroyed<CallbackSlot<lumoraAiModule::LumoraNotifyCallback>> g_mNotifyCallback;
};

// The function that the platform is given for device events.
int RemoteDeviceNotifyCallback(NotifyDeviceInfo* info);

}  // namespace lumora
