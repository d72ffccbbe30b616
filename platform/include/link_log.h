/*
 * link_log.h - the device's log.
 *
 * level: 0 traces, 1 details, 2 successes and changes of state, 3 warnings, 4 errors.
 * The format is printf's. May be called from any thread; never fails, never throws and never blocks for
 * long.
 */
#ifndef LINK_LOG_H
#define LINK_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
__attribute__((format(printf, 5, 6)))
#endif
/* clang would ask for this at the definition, too. */
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((nothrow))
#endif
void LogInfo(int level, const char* tag, const char* function, int line, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
