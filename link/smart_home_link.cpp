#include "link/smart_home_link.h"

#include "library/log.h"
#include "link/smart_home_link_hybird.h"

namespace lumora {

namespace {

bool NotImplemented(const char* function, int line) {
    LUMORA_LOG_AT(LOG_DETAIL, function, line, "=====NOT IMPLEMENT=====");
    return false;
}

}  // namespace

std::shared_ptr<SmartHomeLink> SmartHomeLink::Create(LinkMode mode) {
    switch (mode) {
        case LINK_CLIENT:
            return SmartHomeLinkClient::Get();
        case LINK_HYBIRD:
            return SmartHomeLinkHybird::Get();
        case LINK_ROUTER:
            return SmartHomeLinkRouter::Get();
    }
    return nullptr;
}

bool SmartHomeLinkPlaceholder::Initialize() { return NotImplemented(__func__, __LINE__); }

bool SmartHomeLinkPlaceholder::RegisterDeviceDescriptor(std::shared_ptr<LinkDeviceDescriptor>,
                                                        lumoraAiModule::LumoraNotifyCallback*) {
    return NotImplemented(__func__, __LINE__);
}

bool SmartHomeLinkPlaceholder::FindDevice(std::string&, std::list<std::shared_ptr<LinkDevice>>&) {
    return NotImplemented(__func__, __LINE__);
}

bool SmartHomeLinkPlaceholder::Dbg(int) { return NotImplemented(__func__, __LINE__); }
bool SmartHomeLinkPlaceholder::Run() { return NotImplemented(__func__, __LINE__); }
bool SmartHomeLinkPlaceholder::Exit() { return NotImplemented(__func__, __LINE__); }
bool SmartHomeLinkPlaceholder::SetConnectDevice(std::string&, int) {
    return NotImplemented(__func__, __LINE__);
}

std::shared_ptr<SmartHomeLink> SmartHomeLinkClient::Get() {
    auto link = std::make_shared<SmartHomeLinkClient>();
    if (!link->Initialize()) {
        LUMORA_DETAIL("SmartHomeLinkClient is null\n");
        return nullptr;
    }
    return link;
}

std::shared_ptr<SmartHomeLink> SmartHomeLinkRouter::Get() {
    auto link = std::make_shared<SmartHomeLinkRouter>();
    if (!link->Initialize()) {
        LUMORA_DETAIL("SmartHomeLinkRouter is null\n");
        return nullptr;
    }
    return link;
}

}  // namespace lumora
