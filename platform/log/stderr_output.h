// Writes to standard error without blocking for long and without ending the process by SIGPIPE.
#pragma once

#include <cstddef>

namespace lumora_log {

// False, with errno set, when standard error did not take everything. The caller holds a SignalShield.
bool WriteToStderr(const char* data, size_t size);

// Says on standard error, in one line, what is wrong with the log itself.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
void ReportToStderr(const char* format, ...);

}  // namespace lumora_log
