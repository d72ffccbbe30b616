// The records of the devices and clients of the benches.
#pragma once

#include <string>

#include "lumora.h"

namespace lumora_bench {

// A device with one service. OnCommand does nothing.
LUM_DEVICE_INFO_S DeviceRecord(const std::string& type, LUM_NOTIFY_CALLBACK onNotify,
                               LUM_DATA_CALLBACK onData);
LUM_SUBSCRIBE_SERVICE_S Subscription();
extern const char* const SERVICE;

}  // namespace lumora_bench
