// What is looked at, library by library. Each runs in a process of its own.
#pragma once

#include "library.h"
#include "report.h"

namespace platform_check {

// thorough: also what takes its time.
void CheckPlatform(const Files& files, bool thorough, Report& report);
void CheckLog(const Files& files, Report& report);
void CheckSecurec(const Files& files, Report& report);

}  // namespace platform_check
