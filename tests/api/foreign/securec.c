/* Bounded functions that are not ours, byte by byte. */
#include <stddef.h>

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
int memset_s(void* dest, size_t destMax, int c, size_t count);
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);
int ForeignSecurecCalls(void);

static int g_calls;

static void CountCall(void) { __atomic_add_fetch(&g_calls, 1, __ATOMIC_SEQ_CST); }
int ForeignSecurecCalls(void) { return __atomic_load_n(&g_calls, __ATOMIC_SEQ_CST); }

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    size_t i;
    CountCall();
    if (count > destMax) {
        return 34;
    }
    for (i = 0; i < count; ++i) {
        ((char*)dest)[i] = ((const char*)src)[i];
    }
    return 0;
}

int memset_s(void* dest, size_t destMax, int c, size_t count) {
    size_t i;
    CountCall();
    if (count > destMax) {
        return 34;
    }
    for (i = 0; i < count; ++i) {
        ((char*)dest)[i] = (char)c;
    }
    return 0;
}

/* Fills the rest of the destination, as some do. */
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count) {
    size_t i;
    size_t length = 0;
    CountCall();
    while (length < count && src[length] != '\0') {
        ++length;
    }
    if (length >= destMax) {
        dest[0] = '\0';
        return 34;
    }
    for (i = 0; i < destMax; ++i) {
        dest[i] = '\0';
        if (i < length) {
            dest[i] = src[i];
        }
    }
    return 0;
}
