// What the web face says in JSON.
#pragma once

#include <string>
#include <vector>

#include "hub/core/device_hub.h"

namespace lumora_hub::web {

std::string DeviceText(const DeviceState& device);
std::string DevicesText(const std::vector<DeviceState>& devices);
std::string ErrorText(const std::string& error);

// The messages about the list of devices. Each has a member "type".
std::string ListMessage(const std::vector<DeviceState>& devices);    // "devices": all of them
std::string ChangeMessage(const DeviceEvent& event);                 // "device": one, after a change
std::string CountsMessage(const std::vector<DeviceState>& devices);  // "counts": of all services

// A command: {"name": text, "parameter": text}. The parameter may be missing. False if text is none.
bool ReadCommand(const std::string& text, std::string& name, std::string& parameter);

}  // namespace lumora_hub::web
