#include "link/device_descriptor.h"

#include "library/log.h"

namespace lumora {

bool LinkDeviceDescriptor::OnGet(const Port&, const std::string&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return false;
}

bool LinkDeviceDescriptor::OnPut(const Port&, const std::string&, const std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return false;
}

bool LinkDeviceDescriptor::OnPost(const Port&, const std::string&, const std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return false;
}

bool LinkDeviceDescriptor::OnDelete(const Port&, const std::string&, const std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return false;
}

bool LinkDeviceDescriptor::OnSetupMediaService(const Port&, std::string&) {
    LUMORA_DETAIL("NOT IMPLEMENT\n");
    return false;
}

}  // namespace lumora
