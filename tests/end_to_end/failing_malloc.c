/*
 * Put in front of the C library's: the allocation whose number FAIL_ALLOCATION names fails, and at its end
 * the process says how many there were.
 */
#include <errno.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

static atomic_long allocations;
static long failing = -1;

__attribute__((constructor)) static void Begin(void) {
    const char* number = getenv("FAIL_ALLOCATION");
    allocations = 0;
    failing = number != NULL ? atol(number) : 0;
}

__attribute__((destructor)) static void End(void) {
    fprintf(stderr, "allocations: %ld\n", (long)allocations);
}

static int Fails(void) {
    if (++allocations != failing) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) { return Fails() ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return Fails() ? NULL : __libc_calloc(count, size); }
void* realloc(void* memory, size_t size) { return Fails() ? NULL : __libc_realloc(memory, size); }
