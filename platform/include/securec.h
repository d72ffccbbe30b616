/*
 * securec.h - bounded copies and fills.
 *
 * Each function is told how large the destination is and refuses work that does not fit.
 * 0 means success; any other value means that nothing was copied and that the destination,
 * where it can be written at all, was left empty: zeroed for memcpy_s, an empty string for
 * strncpy_s. A null pointer or a destination size of 0 is refused without writing.
 */
#ifndef SECUREC_H
#define SECUREC_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies count bytes. The regions must not overlap. */
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

/* Sets the first count bytes to the low byte of c. */
int memset_s(void* dest, size_t destMax, int c, size_t count);

/*
 * Copies at most count characters of src, fewer when a terminator comes first, and terminates
 * the copy. destMax counts the terminator: 39 characters fit into 40 bytes, 40 do not.
 * The whole of dest, up to destMax, may be written to.
 */
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

#ifdef __cplusplus
}
#endif

#endif
