/* A program that logs: each scenario is one function, named on the command line. */
#ifndef LOG_PROBE_H
#define LOG_PROBE_H

#include "link_log.h"

#define LOG(level, ...) LogInfo((level), "PROBE", __func__, 42, __VA_ARGS__)

/* They answer 0 when the process is as it was before it logged. The argument may be null. */
int RunBrokenPipe(const char* argument);
int RunPendingSignal(const char* argument);
int RunStalledReader(const char* argument);
int RunFileSizeLimit(const char* argument);
int RunVanishingFolder(const char* argument);
int RunForkWhileLogging(const char* argument);

#endif
