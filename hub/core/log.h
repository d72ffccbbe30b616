// How the hub writes to the log.
#pragma once

#include "library/log.h"

#define HUB_LOG(level, ...) LogInfo((level), "HUB", __func__, __LINE__, __VA_ARGS__)
