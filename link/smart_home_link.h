// The one object through which a module reaches the link platform.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "link/callbacks.h"
#include "link/device_descriptor.h"
#include "link/link_device.h"

namespace lumora {

enum LinkMode : int { LINK_ROUTER = 0, LINK_CLIENT = 1, LINK_HYBIRD = 2 };

// Operations return true on success, except SetConnectDevice.
class SmartHomeLink {
public:
    virtual ~SmartHomeLink() = default;
    virtual bool RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor> descriptor,
                                          lumoraAiModule::LumoraNotifyCallback* callback) = 0;
    // Appends what the search found to devices; false when devices is empty afterwards.
    virtual bool FindDevice(std::string& devType, std::list<std::shared_ptr<LinkDevice>>& devices) = 0;
    virtual bool Dbg(int level) = 0;
    virtual bool Run() = 0;
    virtual bool Exit() = 0;
    // From now on events of devices at addr are forwarded, and no others. The result means nothing.
    virtual bool SetConnectDevice(std::string& addr, int port) = 0;

    // A new, initialised link. Empty when the mode does no work, is unknown, or could not be initialised.
    static std::shared_ptr<SmartHomeLink> Create(LinkMode mode);
};

// A mode that has a name and no work: every operation fails, so none is ever handed out.
class SmartHomeLinkPlaceholder : public SmartHomeLink {
public:
    bool RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor> descriptor,
                                  lumoraAiModule::LumoraNotifyCallback* callback) override;
    bool FindDevice(std::string& devType, std::list<std::shared_ptr<LinkDevice>>& devices) override;
    bool Dbg(int level) override;
    bool Run() override;
    bool Exit() override;
    bool SetConnectDevice(std::string& addr, int port) override;
    bool Initialize();
};

class SmartHomeLinkClient : public SmartHomeLinkPlaceholder {
public:
    static std::shared_ptr<SmartHomeLink> Get();
};

class SmartHomeLinkRouter : public SmartHomeLinkPlaceholder {
public:
    static std::shared_ptr<SmartHomeLink> Get();
};

}  // namespace lumora
