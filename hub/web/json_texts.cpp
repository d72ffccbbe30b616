#include "hub/web/json_texts.h"

#include <array>

#include "base/json.h"
#include "hub/core/text.h"

namespace lumora_hub::web {
namespace {

double Milliseconds(std::chrono::system_clock::time_point time) {
    using std::chrono::milliseconds;
    return static_cast<double>(std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count());
}

// Names come from devices: what is not UTF-8 in them would make the document unreadable.
void AddText(cJSON* object, const char* key, const std::string& text) {
    cJSON_AddStringToObject(object, key, Utf8(text).c_str());
}

void AddNumber(cJSON* object, const char* key, std::uint64_t number) {
    cJSON_AddNumberToObject(object, key, static_cast<double>(number));
}

const char* KindName(DeviceEvent::Kind kind) {
    static constexpr std::array<const char*, 4> NAMES = {"appeared", "changed", "left", "forgotten"};
    return NAMES.at(static_cast<std::size_t>(kind));
}

void AddCounts(cJSON* object, const ServiceState& service) {
    AddNumber(object, "blocks", service.blocks);
    AddNumber(object, "bytes", service.bytes);
    AddNumber(object, "consumers", service.consumers);
}

void FillDevice(cJSON* object, const DeviceState& device) {
    AddText(object, "id", device.id);
    AddText(object, "type", device.type);
    AddText(object, "address", device.address);
    cJSON_AddNumberToObject(object, "port", device.port);
    AddText(object, "version", device.version);
    cJSON_AddBoolToObject(object, "present", device.isPresent);
    AddText(object, "channel", NameOf(device.channel));
    AddText(object, "trouble", device.trouble);
    cJSON_AddBoolToObject(object, "private", device.identity.has_value());
    AddText(object, "identity", device.identity.value_or(""));
    cJSON_AddNumberToObject(object, "since", Milliseconds(device.since));
    cJSON_AddNumberToObject(object, "lastSeen", Milliseconds(device.lastSeen));
    AddNumber(object, "reconnects", device.reconnects);
    cJSON* const services = cJSON_AddArrayToObject(object, "services");
    for (const ServiceState& service : device.services) {
        cJSON* const item = cJSON_CreateObject();
        cJSON_AddItemToArray(services, item);
        AddText(item, "name", service.name);
        AddText(item, "transport", service.transport);
        AddNumber(item, "outputBytes", service.outputBytes);
        AddCounts(item, service);
    }
}

void AddDevices(cJSON* root, const std::vector<DeviceState>& devices) {
    cJSON* const list = cJSON_AddArrayToObject(root, "devices");
    for (const DeviceState& device : devices) {
        cJSON* const item = cJSON_CreateObject();
        cJSON_AddItemToArray(list, item);
        FillDevice(item, device);
    }
}

lumora::JsonTree NewObject() { return lumora::JsonTree(cJSON_CreateObject()); }

// Without memory, an empty text: the client finds that it is no document.
std::string Print(const lumora::JsonTree& root) {
    std::string text;
    lumora::PrintJson(root.get(), text);
    return text;
}

}  // namespace

std::string DeviceText(const DeviceState& device) {
    const lumora::JsonTree root = NewObject();
    FillDevice(root.get(), device);
    return Print(root);
}

std::string DevicesText(const std::vector<DeviceState>& devices) {
    const lumora::JsonTree root = NewObject();
    AddDevices(root.get(), devices);
    return Print(root);
}

std::string ErrorText(const std::string& error) {
    const lumora::JsonTree root = NewObject();
    AddText(root.get(), "error", error);
    return Print(root);
}

std::string ListMessage(const std::vector<DeviceState>& devices) {
    const lumora::JsonTree root = NewObject();
    AddText(root.get(), "type", "devices");
    AddDevices(root.get(), devices);
    return Print(root);
}

std::string ChangeMessage(const DeviceEvent& event) {
    const lumora::JsonTree root = NewObject();
    AddText(root.get(), "type", "device");
    AddText(root.get(), "kind", KindName(event.kind));
    FillDevice(lumora::AddJsonObject(root.get(), "device"), event.device);
    return Print(root);
}

std::string CountsMessage(const std::vector<DeviceState>& devices) {
    const lumora::JsonTree root = NewObject();
    AddText(root.get(), "type", "counts");
    cJSON* const list = cJSON_AddObjectToObject(root.get(), "devices");
    for (const DeviceState& device : devices) {
        cJSON* const services = lumora::AddJsonObject(list, Utf8(device.id));
        for (const ServiceState& service : device.services) {
            AddCounts(lumora::AddJsonObject(services, Utf8(service.name)), service);
        }
    }
    return Print(root);
}

bool ReadCommand(const std::string& text, std::string& name, std::string& parameter) {
    const lumora::JsonTree root = lumora::ParseJson(text);
    const cJSON* const givenName = cJSON_GetObjectItemCaseSensitive(root.get(), "name");
    const cJSON* const given = cJSON_GetObjectItemCaseSensitive(root.get(), "parameter");
    if (!cJSON_IsString(givenName) || (given != nullptr && !cJSON_IsString(given))) {
        return false;
    }
    name = givenName->valuestring;
    parameter = given == nullptr ? "" : given->valuestring;
    return !name.empty();
}

}  // namespace lumora_hub::web
