/*
 * A node that stays on the network: searches and asks when standard input says so, and prints every device
 * event.
 *
 *   find TYPE         prints "found MS ADDRESS:PORT ..."; the first device is the one that is asked
 *   get KEY [TIMES [VALUE]]   asks it with GETs, one after the other; prints "got MS RESULTS-OF-0 REPLY" of
 *                     the last one
 *   put BYTES         asks it with a PUT whose key and value have so many bytes each; prints "put MS RESULT"
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "link_platform.h"

static AppResourceProxy* device;

static const char* Describe(AppResource* resource) {
    (void)resource;
    return "asking-node";
}

static int OnGet(AppResource* resource, const RemoteEndpoint* requester, const char* key, char* buffer,
                 unsigned int size) {
    (void)resource;
    (void)requester;
    (void)key;
    (void)buffer;
    (void)size;
    return 0;
}

static int OnChange(AppResource* resource, const RemoteEndpoint* requester, const char* key,
                    const char* value, unsigned int length) {
    (void)resource;
    (void)requester;
    (void)key;
    (void)value;
    (void)length;
    return 0;
}

static int OnEvent(NotifyDeviceInfo* info) {
    printf("%s %s:%d %s\n", info->event == NOTIFY_DEVICE_ADDED ? "added" : "removed", info->addr, info->port,
           info->devType);
    return 0;
}

static double Milliseconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec * 1e3 + (double)now.tv_nsec / 1e6;
}

static void ForgetDevice(void) {
    if (device != NULL) {
        FreeAppResourceProxy2(device);
        device = NULL;
    }
}

/* One line in one call: events are printed by another thread. */
static void Find(LinkPlatform* platform, const char* type) {
    char line[1024];
    const double start = Milliseconds();
    AppResourceProxy* proxy = platform->FindResource(platform, type);
    int length = snprintf(line, sizeof line, "found %.0f", Milliseconds() - start);
    ForgetDevice();
    while (proxy != NULL) {
        AppResourceProxy* next = GetNextAppResourceProxy(proxy);
        if (length < (int)sizeof line - 32) {
            length += snprintf(line + length, sizeof line - (size_t)length, " %s:%d",
                               proxy->GetAddress(proxy), proxy->GetPort(proxy));
        }
        if (device == NULL) {
            device = proxy;
        } else {
            FreeAppResourceProxy2(proxy);
        }
        proxy = next;
    }
    printf("%s\n", line);
}

static void Get(const char* key, int times, const char* value) {
    char reply[1024] = "";
    const double start = Milliseconds();
    int succeeded = 0;
    int at;
    for (at = 0; at < times && device != NULL; ++at) {
        snprintf(reply, sizeof reply, "%s", value);
        succeeded += device->Get(device, key, reply, sizeof reply - 1) == 0;
    }
    printf("got %.0f %d %s\n", Milliseconds() - start, succeeded, reply);
}

static void Put(const char* bytes) {
    char text[1024] = "";
    const double start = Milliseconds();
    const unsigned int length = (unsigned int)atoi(bytes);
    int result = -1;
    if (device != NULL && length < sizeof text) {
        memset(text, 'x', length);
        result = device->Put(device, text, text, length);
    }
    printf("put %.0f %d\n", Milliseconds() - start, result);
}

int main(void) {
    AppResource resource = {OnGet, OnChange, OnChange, OnChange, Describe};
    LinkPlatform* platform = GetLinkPlatform();
    char line[1024];
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (platform == NULL || platform->Init(platform) != 0 ||
        platform->RegisterResource(platform, &resource, OnEvent) != 0 || platform->Run(platform) != 0) {
        fprintf(stderr, "the platform does not start\n");
        return 1;
    }
    printf("ready\n");
    while (fgets(line, sizeof line, stdin) != NULL) {
        char word[16] = "";
        char name[200] = "";
        char value[800] = "";
        int times = 1;
        if (sscanf(line, "%15s %199s %d %799s", word, name, &times, value) < 2) {
            continue;
        }
        if (strcmp(word, "find") == 0) {
            Find(platform, name);
        } else if (strcmp(word, "put") == 0) {
            Put(name);
        } else {
            Get(name, times, value);
        }
    }
    ForgetDevice();
    platform->Exit(platform);
    FreeLinkPlatform(platform);
    return 0;
}
