// This library's way into the device's log. Quiet by default: 0 and 1 are for those who look.
#pragma once

#include "link_log.h"

namespace lumora_link {

constexpr int kLogTrace = 0;
constexpr int kLogDetail = 1;
constexpr int kLogWarning = 3;
constexpr int kLogError = 4;

}  // namespace lumora_link

#define LINK_LOG(level, ...) LogInfo((level), "LINK", __func__, __LINE__, __VA_ARGS__)
