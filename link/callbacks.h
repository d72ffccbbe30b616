// The interfaces through which the link layer speaks to the modules.
#pragma once

#include <string>

#include "link/device_descriptor.h"

namespace lumoraAiModule {

// Hears of devices that come and go. Called on the platform's event thread.
class LumoraNotifyCallback {
public:
    virtual ~LumoraNotifyCallback() = default;
    virtual int OnAddDevice(unsigned int id, const std::string& addr, int port,
                            const std::string& devType) = 0;
    virtual int OnRemoveDevice(unsigned int id, const std::string& addr, int port,
                               const std::string& devType) = 0;
};

// Answers the requests of other devices. Called on the platform's request threads; 0 means success.
class LumoraCoapCallback {
public:
    virtual ~LumoraCoapCallback() = default;
    virtual int OnCoapGet(const std::string& key, std::string& value) = 0;
    virtual int OnCoapPut(const std::string& key, const std::string& value) = 0;
    virtual int OnCoapPost(const std::string& key, const std::string& value) = 0;
    virtual int OnCoapDelete(const std::string& key, const std::string& value) = 0;
    virtual int OnSetupMediaService(const lumora::LinkDeviceDescriptor::Port& remote, std::string& value) = 0;
};

}  // namespace lumoraAiModule
