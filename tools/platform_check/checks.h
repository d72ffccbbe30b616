// What is looked at, library by library. Each runs in a process of its own.
#pragma once

#include "tools/platform_check/library.h"
#include "tools/platform_check/report.h"

namespace platform_check {

// thorough: also what takes its time.
void CheckPlatform(const Files& files, bool thorough, Report& report);
void CheckLog(const Files& files, Report& report);
void CheckSecurec(const Files& files, Report& report);

}  // namespace platform_check
