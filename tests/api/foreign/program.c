/*
 * Both sides in one process, over whichever platform libraries the dynamic linker finds: they must be the
 * foreign ones.
 */
#include <dlfcn.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "lumora.h"

#define EXPECT(condition)                                                   \
    do {                                                                    \
        if (!(condition)) {                                                 \
            fprintf(stderr, "line %d: not so: %s\n", __LINE__, #condition); \
            exit(1);                                                        \
        }                                                                   \
    } while (0)

static int g_event[2]; /* a pipe: device events, as one byte each */
static int g_commands;
static int g_subscriptions;
static int g_ends;

/* A function of the foreign libraries; they have no header. */
static void* Foreign(const char* name) {
    void* function;
    void* program = dlopen(NULL, RTLD_NOW);
    EXPECT(program != NULL);
    function = dlsym(program, name);
    if (function == NULL) {
        fprintf(stderr, "%s: this is not the foreign library\n", name);
        exit(1);
    }
    return function;
}

static int Counter(const char* name) {
    int (*counter)(void) = NULL;
    *(void**)(&counter) = Foreign(name);
    return counter();
}

static int SendEvent(unsigned int event, const char* address) {
    int (*send)(unsigned int, const char*) = NULL;
    *(void**)(&send) = Foreign("ForeignPlatformSends");
    return send(event, address);
}

static int OnCommand(const char* cmd, const char* param) {
    EXPECT(strcmp(cmd, "SetMode") == 0 && strcmp(param, "night") == 0);
    ++g_commands;
    return 0;
}

static int OnNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription) {
    EXPECT(clientID == 1 && strcmp(subscription.serviceName, "face") == 0);
    if (event == LUM_NOTIFY_SUBSCRIBED) {
        ++g_subscriptions;
    } else {
        ++g_ends;
    }
    return 0;
}

static int OnData(int clientID, const char* data, unsigned int length) {
    unsigned int sent = 0;
    EXPECT(clientID == 1);
    EXPECT(LUM_SendDataToClient("face", data, length, &sent, 1000) == 0);
    EXPECT(sent == length);
    return 0;
}

static int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    const char ok = event.dataLen == 8 && memcmp(event.data, "question", 8) == 0 ? 'y' : 'n';
    EXPECT(strcmp(event.serviceName, "face") == 0);
    EXPECT(write(g_event[1], &ok, 1) == 1);
    return 0;
}

static void StartDevice(void) {
    LUM_DEVICE_INFO_S device;
    memset(&device, 0, sizeof(device));
    device.serviceNum = 1;
    strcpy(device.devServiceType, "camera");
    strcpy(device.serviceInfo[0].serviceName, "face");
    device.serviceInfo[0].transport = LUM_TRANSPORT_TCP;
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnNotify;
    device.OnData = OnData;
    EXPECT(LUM_InitServer("camera") == 0);
    EXPECT(LUM_RegisterAiDevInfo(&device) == 0);
}

static void UseDevice(void) {
    static LUM_DEVICES_INFO_S found;
    LUM_SUBSCRIBE_SERVICE_S subscription;
    struct pollfd event;
    unsigned int handle = 0;
    unsigned int sent = 0;
    char version[64];
    char answer = 0;
    EXPECT(LUM_GetAiDeviceList("printer", &found) == -1);
    EXPECT(LUM_GetAiDeviceList("camera", &found) == 0 && found.devNum == 2);
    EXPECT(strcmp(found.devInfo[0].serviceInfo[0].serviceName, "face") == 0);
    EXPECT(LUM_CreateAiDevice(1, "camera", &handle) == 0 && handle == 1);
    EXPECT(LUM_RegisterAiDeviceEvent(1, handle, OnDeviceEvent) == 0);
    EXPECT(LUM_ConnectAiDevice(1, handle) == 0);
    EXPECT(LUM_GetServerVersion(1, handle, version, sizeof(version)) == 0 && version[0] != '\0');
    EXPECT(LUM_SendCmd(1, handle, "SetMode", "night") == 0 && g_commands == 1);
    memset(&subscription, 0, sizeof(subscription));
    strcpy(subscription.serviceName, "face");
    subscription.transport = LUM_TRANSPORT_TCP;
    EXPECT(LUM_SendCmd(1, handle, "subscribe", (const char*)&subscription) == 0 && g_subscriptions == 1);
    EXPECT(LUM_SendData(1, handle, "question", 8, &sent, 1000) == 0 && sent == 8);
    event.fd = g_event[0];
    event.events = POLLIN;
    EXPECT(poll(&event, 1, 30000) == 1);
    EXPECT(read(g_event[0], &answer, 1) == 1 && answer == 'y');
}

static void LoseClient(void) {
    unsigned int sent = 0;
    EXPECT(SendEvent(1, "127.0.0.1") == 0);
    EXPECT(SendEvent(2, "127.0.0.2") == 0);
    EXPECT(LUM_SendDataToClient("face", "still there", 11, &sent, 1000) == 0 && sent == 11);
    EXPECT(g_ends == 0);
    EXPECT(SendEvent(2, "127.0.0.1") == 0);
    EXPECT(LUM_SendDataToClient("face", "gone", 4, &sent, 1000) == -1);
    EXPECT(g_ends == 1);
}

int main(void) {
    int clientID = 0;
    EXPECT(pipe(g_event) == 0);
    EXPECT(Counter("ForeignPlatformCalls") == 0);
    EXPECT(LUM_InitClient(&clientID, "viewer") == 0 && clientID == 1);
    StartDevice();
    UseDevice();
    EXPECT(Counter("ForeignLogErrors") == 1); /* no device is a printer */
    LoseClient();
    EXPECT(LUM_DeInitServer() == 0);
    EXPECT(LUM_DeInitClient(1) == 0);
    EXPECT(Counter("ForeignPlatformCalls") >= 8);
    EXPECT(Counter("ForeignPlatformObjects") == 0);
    EXPECT(Counter("ForeignLogLines") > 0);
    EXPECT(Counter("ForeignSecurecCalls") > 0);
    return 0;
}
