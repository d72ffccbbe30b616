#define _POSIX_C_SOURCE 200809L

#include "log_probe.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

/* Takes the place of the C library's own, so that no line leaves the test. */
void openlog(const char* name, int option, int facility) {
    printf("openlog %s %d %d\n", name == NULL ? "program" : name, option == LOG_PID, facility == LOG_USER);
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    printf("syslog %d ", priority);
    vprintf(format, arguments);
    printf("\n");
    va_end(arguments);
}

void closelog(void) {}

/* Loggers outside of main, as static objects of a C++ program have them. */
__attribute__((constructor)) static void LogBeforeMain(void) {
    if (getenv("PROBE_OUTSIDE_MAIN") != NULL) {
        LOG(4, "before main");
    }
}

__attribute__((destructor)) static void LogAfterMain(void) {
    if (getenv("PROBE_OUTSIDE_MAIN") != NULL) {
        LOG(4, "after main");
    }
}

static int RunNothing(const char* argument) {
    (void)argument;
    return 0;
}

static int RunLevels(const char* argument) {
    (void)argument;
    for (int level = -1; level <= 5; ++level) {
        LOG(level, "level %d\n", level);
    }
    return 0;
}

static int RunText(const char* text) {
    LOG(4, "%s", text);
    return 0;
}

static int RunArguments(const char* argument) {
    (void)argument;
    LOG(4, "%s %d %.2f %#lx %c %s %d %d", "text", -7, 2.5, 255UL, 'c', "more", 8, 9);
    return 0;
}

static int RunLong(const char* length) {
    const size_t size = strtoul(length, NULL, 10);
    char* const text = malloc(size + 1);
    memset(text, 'x', size);
    text[size] = '\0';
    LOG(4, "%s", text);
    free(text);
    return 0;
}

static int RunNullTexts(const char* argument) {
    (void)argument;
    LogInfo(4, NULL, NULL, 42, "no names");
    LogInfo(4, "PROBE", "LineZero", 0, "no line");
    return 0;
}

/* Formatting would follow the pointer and crash. */
static int RunFiltered(const char* argument) {
    LOG(1, "%s", argument == NULL ? (const char*)1 : argument);
    LOG(2, "still here");
    LOG(1, "%s", argument == NULL ? (const char*)1 : argument);
    return 0;
}

static int RunErrno(const char* argument) {
    (void)argument;
    errno = EDOM;
    LOG(4, "any");
    if (errno != EDOM) {
        return 1;
    }
    errno = ERANGE;
    LOG(0, "filtered");
    return errno == ERANGE ? 0 : 1;
}

static int RunMany(const char* count) {
    const long lines = strtol(count, NULL, 10);
    for (long i = 0; i < lines; ++i) {
        LOG(4, "line %06ld", i);
    }
    return 0;
}

static int RunManyDetails(const char* count) {
    const long lines = strtol(count, NULL, 10);
    for (long i = 0; i < lines; ++i) {
        LOG(1, "detail %06ld", i);
    }
    return 0;
}

static void* LogFromThread(void* name) {
    for (int i = 0; i < 250; ++i) {
        LOG(4, "thread %s line %03d end", (const char*)name, i);
    }
    return NULL;
}

static int RunThreads(const char* argument) {
    static char names[4][2] = {"a", "b", "c", "d"};
    pthread_t threads[4];
    (void)argument;
    for (int i = 0; i < 4; ++i) {
        pthread_create(&threads[i], NULL, LogFromThread, names[i]);
    }
    for (int i = 0; i < 4; ++i) {
        pthread_join(threads[i], NULL);
    }
    return 0;
}

enum { DESCRIPTORS = 64 };

static int IsInherited(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

/* Programs that are started from here must not hold what the log opened. */
static int RunDescriptors(const char* argument) {
    int before[DESCRIPTORS];
    (void)argument;
    for (int i = 0; i < DESCRIPTORS; ++i) {
        before[i] = IsInherited(i);
    }
    LOG(4, "open");
    for (int i = 0; i < DESCRIPTORS; ++i) {
        if (IsInherited(i) && !before[i]) {
            return 1;
        }
    }
    return 0;
}

static const struct {
    const char* name;
    int (*run)(const char* argument);
} scenarios[] = {
    {"nothing", RunNothing},
    {"levels", RunLevels},
    {"text", RunText},
    {"arguments", RunArguments},
    {"long", RunLong},
    {"null-texts", RunNullTexts},
    {"filtered", RunFiltered},
    {"errno", RunErrno},
    {"many", RunMany},
    {"many-details", RunManyDetails},
    {"threads", RunThreads},
    {"descriptors", RunDescriptors},
    {"broken-pipe", RunBrokenPipe},
    {"pending-signal", RunPendingSignal},
    {"stalled-reader", RunStalledReader},
    {"file-size-limit", RunFileSizeLimit},
    {"vanishing-folder", RunVanishingFolder},
    {"fork-while-logging", RunForkWhileLogging},
};

int main(int argc, char** argv) {
    for (size_t i = 0; argc > 1 && i < sizeof(scenarios) / sizeof(scenarios[0]); ++i) {
        if (strcmp(scenarios[i].name, argv[1]) == 0) {
            return scenarios[i].run(argc > 2 ? argv[2] : NULL);
        }
    }
    fprintf(stderr, "no such scenario\n");
    return 2;
}
