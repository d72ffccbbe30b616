/* Scenarios in which the lines cannot be written. */
#define _XOPEN_SOURCE 700

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "log_probe.h"

static int IsPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal);
}

static int IsBlocked(int signal) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, NULL, &mask);
    return sigismember(&mask, signal);
}

static int IsDefault(int signal) {
    struct sigaction action;
    sigaction(signal, NULL, &action);
    return action.sa_handler == SIG_DFL;
}

static int AsItWas(int signal) {
    return !IsPending(signal) && !IsBlocked(signal) && IsDefault(signal) ? 0 : 1;
}

int RunBrokenPipe(const char* argument) {
    (void)argument;
    for (int i = 0; i < 10; ++i) {
        LOG(4, "this is not read");
    }
    return AsItWas(SIGPIPE);
}

/* A signal that the application holds back itself is still there afterwards. */
int RunPendingSignal(const char* argument) {
    sigset_t pipe;
    (void)argument;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, NULL);
    pthread_kill(pthread_self(), SIGPIPE);
    LOG(4, "this is not read");
    return IsPending(SIGPIPE) && IsBlocked(SIGPIPE) ? 0 : 1;
}

/* Far more than a pipe holds. */
int RunStalledReader(const char* argument) {
    (void)argument;
    for (int i = 0; i < 5000; ++i) {
        LOG(4, "a line that waits for a reader that does not read: number %d", i);
    }
    return 0;
}

int RunFileSizeLimit(const char* argument) {
    const struct rlimit limit = {10000, 10000};
    (void)argument;
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 500; ++i) {
        LOG(4, "a line on its way to the limit: number %d", i);
    }
    return AsItWas(SIGXFSZ);
}

static void Pause(void) {
    const struct timespec pause = {0, 10000000};
    nanosleep(&pause, NULL);
}

static int Exists(const char* path) {
    struct stat status;
    return stat(path, &status) == 0;
}

/*
 * The folder of the log file goes and something else takes its name, so that the file cannot be put aside and
 * made anew; then the place is free again, and sooner or later the file is back.
 */
int RunVanishingFolder(const char* folder) {
    const char* const file = getenv("LUMORA_LOG_FILE");
    char aside[4096];
    snprintf(aside, sizeof(aside), "%s.aside", folder);
    LOG(4, "first");
    if (!Exists(file) || rename(folder, aside) != 0) {
        return 1;
    }
    fclose(fopen(folder, "w"));
    for (int i = 0; i < 200; ++i) {
        LOG(4, "%s", i % 2 == 0 ? "short" : "a longer line, which is over the limit when a short one is not");
    }
    remove(folder);
    mkdir(folder, 0700);
    for (int i = 0; i < 3000 && !Exists(file); ++i) {
        LOG(4, "again");
        Pause();
    }
    return Exists(file) ? 0 : 2;
}

static int logging = 1; /* read and written by atomic operations */

static void* LogUntilToldToStop(void* unused) {
    (void)unused;
    while (__atomic_load_n(&logging, __ATOMIC_RELAXED)) {
        LOG(4, "from another thread");
    }
    return NULL;
}

/* A child that waits for a lock of its parent's threads is ended by its alarm. */
static int ForkedChildCanLog(void) {
    int status = 0;
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        LOG(4, "from the child");
        _exit(0);
    }
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

int RunForkWhileLogging(const char* argument) {
    pthread_t threads[2];
    int failed = 0;
    (void)argument;
    for (int i = 0; i < 2; ++i) {
        pthread_create(&threads[i], NULL, LogUntilToldToStop, NULL);
    }
    for (int i = 0; i < 300 && failed == 0; ++i) {
        failed = !ForkedChildCanLog();
    }
    __atomic_store_n(&logging, 0, __ATOMIC_RELAXED);
    for (int i = 0; i < 2; ++i) {
        pthread_join(threads[i], NULL);
    }
    return failed;
}
