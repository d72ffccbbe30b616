/* Loaded before the C library: each wait for the disk takes LUMORA_TEST_SYNC_MS longer. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>

static void Wait(void) {
    const char* text = getenv("LUMORA_TEST_SYNC_MS");
    const long ms = text != NULL ? strtol(text, NULL, 10) : 0;
    const struct timespec pause = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&pause, NULL);
}

typedef int Sync(int);

static int SyncAs(const char* name, int fd) {
    union {
        void* address;
        Sync* function;
    } next;
    next.address = dlsym(RTLD_NEXT, name);
    Wait();
    return next.function(fd);
}

int fsync(int fd) { return SyncAs("fsync", fd); }

int fdatasync(int fd) { return SyncAs("fdatasync", fd); }
