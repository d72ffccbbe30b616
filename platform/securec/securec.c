/*
 * Bounded copies and fills on top of the C library's own, so that the checks are all they cost.
 */
#define _POSIX_C_SOURCE 200809L /* strnlen */

#include "securec.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>

#define EXPORTED __attribute__((visibility("default")))

/* True when the regions share a byte. A distance below 0 wraps round and becomes huge. */
static int Overlap(const void* a, size_t sizeOfA, const void* b, size_t sizeOfB) {
    const uintptr_t startOfA = (uintptr_t)a;
    const uintptr_t startOfB = (uintptr_t)b;
    return startOfB - startOfA < sizeOfA || startOfA - startOfB < sizeOfB;
}

EXPORTED int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest == NULL || src == NULL || destMax == 0) {
        return EINVAL;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return ERANGE;
    }
    if (Overlap(dest, count, src, count)) {
        memset(dest, 0, destMax);
        return EINVAL;
    }
    memcpy(dest, src, count);
    return 0;
}

EXPORTED int memset_s(void* dest, size_t destMax, int c, size_t count) {
    if (dest == NULL || destMax == 0) {
        return EINVAL;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return ERANGE;
    }
    memset(dest, c, count);
    return 0;
}

EXPORTED int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    if (dest == NULL || src == NULL || destMax == 0) {
        return EINVAL;
    }
    /* A text without an end is looked at only as far as it could fit. */
    const size_t length = strnlen(src, count < destMax ? count : destMax);
    if (length == destMax) {
        dest[0] = '\0';
        return ERANGE;
    }
    /* What stopped at count never touched the byte behind it, which dest may well be. */
    const size_t read = length < count ? length + 1 : length;
    if (Overlap(dest, length + 1, src, read)) {
        dest[0] = '\0';
        return EINVAL;
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}
