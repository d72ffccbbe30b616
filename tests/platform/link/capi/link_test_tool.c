/*
 * A program of the platform's C interface and nothing else, for tests over several processes.
 *
 *   serve TYPE [COUNT]   offers COUNT nodes until the standard input ends; POSTs are counted,
 *                        GET "count" tells how many, PUT "sleep" takes as many ms as its value says
 *   find TYPE            prints the time and the devices found
 *   post TYPE N          sends N POSTs to the first device; prints how many were answered
 *   both TYPE N          offers a node of that type; with the first line of the standard input sends N POSTs
 *                        to every other, with further ones prints how many it has counted itself
 *   put TYPE             finds the first device; sends it a PUT for each line "KEY VALUE" of the standard
 *                        input, and prints result and time
 *   watch                prints device events until the standard input ends
 *   leave TYPE           starts a dozen nodes, and ends while they run
 */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "link_platform.h"

static const char* deviceType;
static pthread_mutex_t countMutex = PTHREAD_MUTEX_INITIALIZER;
static unsigned count;

static double Milliseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static unsigned Count(unsigned more) {
    unsigned result;
    pthread_mutex_lock(&countMutex);
    count += more;
    result = count;
    pthread_mutex_unlock(&countMutex);
    return result;
}

static const char* Describe(AppResource* resource) {
    (void)resource;
    return deviceType;
}

static int OnGet(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size) {
    (void)resource;
    (void)requester;
    if (strcmp(key, "count") == 0) {
        snprintf(buffer, size, "%u", Count(0));
    }
    return 0;
}

static int OnPut(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                 unsigned int length) {
    (void)resource;
    (void)requester;
    (void)length;
    if (strcmp(key, "sleep") == 0) {
        struct timespec time = {0, 0};
        time.tv_sec = atoi(value) / 1000;
        time.tv_nsec = (long)(atoi(value) % 1000) * 1000000;
        nanosleep(&time, NULL);
    }
    return 0;
}

static int OnPost(AppResource* resource, const RemoteEndpoint* requester, const char* key, const char* value,
                  unsigned int length) {
    (void)resource;
    (void)requester;
    (void)key;
    (void)value;
    (void)length;
    Count(1);
    return 0;
}

static int OnEvent(NotifyDeviceInfo* info) {
    printf("%s %s:%d %s\n", info->event == NOTIFY_DEVICE_ADDED ? "added" : "removed", info->addr, info->port,
           info->devType);
    return 0;
}

static LinkPlatform* Start(AppResource* resource, DeviceEventFunction onEvent) {
    LinkPlatform* platform = GetLinkPlatform();
    if (platform == NULL || platform->Init(platform) != 0 ||
        platform->RegisterResource(platform, resource, onEvent) != 0 || platform->Run(platform) != 0) {
        fprintf(stderr, "the platform does not start\n");
        exit(1);
    }
    return platform;
}

static void WaitForEndOfInput(void) {
    char buffer[64];
    printf("ready\n");
    while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
}

static void Stop(LinkPlatform* platform) {
    platform->Exit(platform);
    FreeLinkPlatform(platform);
}

static int Serve(AppResource* resource, int nodes) {
    LinkPlatform** platforms = calloc((size_t)nodes, sizeof *platforms);
    int at;
    for (at = 0; at < nodes; ++at) {
        platforms[at] = Start(resource, NULL);
    }
    WaitForEndOfInput();
    for (at = 0; at < nodes; ++at) {
        Stop(platforms[at]);
    }
    free(platforms);
    return 0;
}

/* The threads of new nodes have the most to do. */
static int Leave(AppResource* resource) {
    static LinkPlatform* platforms[12]; /* what a running node holds is no leak */
    size_t at;
    for (at = 0; at < sizeof platforms / sizeof *platforms; ++at) {
        platforms[at] = Start(resource, NULL);
    }
    printf("ready\n");
    return 0;
}

static int Find(LinkPlatform* platform, const char* wanted) {
    const double start = Milliseconds();
    AppResourceProxy* proxy = platform->FindResource(platform, wanted);
    printf("found in %.0f ms\n", Milliseconds() - start);
    while (proxy != NULL) {
        AppResourceProxy* next = GetNextAppResourceProxy(proxy);
        printf("%s:%d\n", proxy->GetAddress(proxy), proxy->GetPort(proxy));
        FreeAppResourceProxy2(proxy);
        proxy = next;
    }
    return 0;
}

static int PostMany(LinkPlatform* platform, const char* wanted, int posts) {
    AppResourceProxy* proxy = platform->FindResource(platform, wanted);
    AppResourceProxy* other;
    char buffer[1024] = "";
    int answered = 0;
    int at;
    if (proxy == NULL) {
        printf("nobody\n");
        return 1;
    }
    for (at = 0; at < posts; ++at) {
        answered += proxy->Post(proxy, "add", "1", 1) == 0;
    }
    while (proxy->Get(proxy, "count", buffer, sizeof buffer - 1) != 0) {
    }
    printf("answered %d counted %s\n", answered, buffer);
    for (; proxy != NULL; proxy = other) {
        other = GetNextAppResourceProxy(proxy);
        FreeAppResourceProxy2(proxy);
    }
    return 0;
}

static int PostToAll(LinkPlatform* platform, const char* wanted, int posts) {
    AppResourceProxy* proxy = platform->FindResource(platform, wanted);
    int others = 0;
    int answered = 0;
    while (proxy != NULL) {
        AppResourceProxy* next = GetNextAppResourceProxy(proxy);
        int at;
        for (at = 0; at < posts; ++at) {
            answered += proxy->Post(proxy, "add", "1", 1) == 0;
        }
        ++others;
        FreeAppResourceProxy2(proxy);
        proxy = next;
    }
    printf("others %d answered %d\n", others, answered);
    return 0;
}

/* Begins with the first line, so that several may start before they look for each other. */
static int BeBoth(LinkPlatform* platform, const char* type, int posts) {
    char line[64];
    printf("ready\n");
    if (fgets(line, sizeof line, stdin) != NULL) {
        PostToAll(platform, type, posts);
    }
    while (fgets(line, sizeof line, stdin) != NULL) {
        printf("counted %u\n", Count(0));
    }
    return 0;
}

static int PutLines(LinkPlatform* platform, const char* wanted) {
    AppResourceProxy* proxy = platform->FindResource(platform, wanted);
    char key[64];
    char value[64];
    if (proxy == NULL) {
        printf("nobody\n");
        return 1;
    }
    printf("ready\n");
    while (scanf("%63s %63s", key, value) == 2) {
        const double start = Milliseconds();
        const int result = proxy->Put(proxy, key, value, (unsigned int)strlen(value));
        printf("%s in %.0f ms\n", result == 0 ? "accepted" : "failed", Milliseconds() - start);
    }
    FreeAppResourceProxy2(proxy);
    return 0;
}

int main(int argc, char** argv) {
    const char* command = argc > 1 ? argv[1] : "";
    AppResource resource = {OnGet, OnPut, OnPost, OnPut, Describe};
    LinkPlatform* platform;
    int result = 0;
    setvbuf(stdout, NULL, _IOLBF, 0);
    deviceType = "tool";
    if (strcmp(command, "serve") == 0 && argc > 2) {
        deviceType = argv[2];
        return Serve(&resource, argc > 3 ? atoi(argv[3]) : 1);
    }
    if (strcmp(command, "leave") == 0 && argc > 2) {
        deviceType = argv[2];
        return Leave(&resource);
    }
    if (strcmp(command, "both") == 0 && argc > 3) {
        deviceType = argv[2];
    }
    platform = Start(&resource, strcmp(command, "watch") == 0 ? OnEvent : NULL);
    if (strcmp(command, "find") == 0 && argc > 2) {
        result = Find(platform, argv[2]);
    } else if (strcmp(command, "post") == 0 && argc > 3) {
        result = PostMany(platform, argv[2], atoi(argv[3]));
    } else if (strcmp(command, "both") == 0 && argc > 3) {
        result = BeBoth(platform, argv[2], atoi(argv[3]));
    } else if (strcmp(command, "put") == 0 && argc > 2) {
        result = PutLines(platform, argv[2]);
    } else {
        WaitForEndOfInput();
    }
    Stop(platform);
    return result;
}
