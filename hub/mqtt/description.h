// The retained documents about a device: its description, and what Home Assistant is told of it.
#pragma once

#include <map>
#include <string>

#include "hub/core/device.h"
#include "hub/mqtt/content.h"
#include "hub/mqtt/topics.h"

namespace lumora_hub {

// JSON. Throws std::bad_alloc.
std::string DescriptionOf(const DeviceState& device, const std::string& hub, const Topics& topics);

// The name of the hub that wrote the description; empty if it is no description.
std::string HubOfDescription(const std::string& json);

// What the blocks of a service turned out to be.
struct ServiceContent {
    ContentKind kind = ContentKind::UNKNOWN;
    std::vector<JsonField> fields;
};

// Home Assistant knows a device by what may stand in a topic of its own: letters, digits, '_' and '-'. Each
// other byte of the id is written as '_' and two digits.
std::string HomeAssistantId(const std::string& device);

// JSON for Home Assistant's discovery of devices: a camera for each service with pictures, a sensor for each
// with numbers and for each field of JSON objects. contents is by the name of the service.
std::string HomeAssistantDevice(const DeviceState& device,
                                const std::map<std::string, ServiceContent>& contents,
                                const std::string& version, const Topics& topics);

// "2026-01-31T12:03:04.123456Z"
std::string TimeText(std::chrono::system_clock::time_point time);

}  // namespace lumora_hub
