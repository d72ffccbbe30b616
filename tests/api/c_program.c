/*
 * A device and a client, each a process in C that knows the public header only, over the libraries as they
 * are installed. Run it in a network namespace of its own.
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lumora.h"

#define EXPECT(condition)                                                               \
    do {                                                                                \
        if (!(condition)) {                                                             \
            fprintf(stderr, "%s, line %d: not so: %s\n", g_role, __LINE__, #condition); \
            exit(1);                                                                    \
        }                                                                               \
    } while (0)

enum { SEARCHES = 100, LIMIT_MS = 30000 };

static const char* g_role = "client";
static int g_happened[2]; /* a pipe: what callbacks saw, as one letter each */

static void Tell(char letter) { EXPECT(write(g_happened[1], &letter, 1) == 1); }

static char WaitForByte(int fd) {
    struct pollfd watched;
    char letter = 0;
    watched.fd = fd;
    watched.events = POLLIN;
    EXPECT(poll(&watched, 1, LIMIT_MS) == 1);
    return read(fd, &letter, 1) == 1 ? letter : '\0';
}

/* ---- The device ---- */

static int OnCommand(const char* cmd, const char* param) {
    Tell(strcmp(cmd, "SetMode") == 0 && strcmp(param, "night") == 0 ? 'c' : '?');
    return 0;
}

static int OnNotify(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription) {
    const int known = clientID == 1 && strcmp(subscription.serviceName, "face") == 0;
    Tell((char)(!known ? '?' : event == LUM_NOTIFY_SUBSCRIBED ? 's' : 'u'));
    return 0;
}

static int OnData(int clientID, const char* data, unsigned int length) {
    unsigned int sent = 0;
    Tell(clientID == 1 ? 'd' : '?'); /* first: the answer makes the client go on */
    EXPECT(LUM_SendDataToClient("face", data, length, &sent, 1000) == 0);
    EXPECT(sent == length);
    return 0;
}

static LUM_DEVICE_INFO_S Description(void) {
    LUM_DEVICE_INFO_S device;
    memset(&device, 0, sizeof(device));
    device.serviceNum = 1;
    strcpy(device.devServiceType, "camera");
    strcpy(device.serviceInfo[0].serviceName, "face");
    device.serviceInfo[0].transport = LUM_TRANSPORT_TCP;
    device.serviceInfo[0].outputLenBytes = 1024;
    device.OnCommand = OnCommand;
    device.OnEventNotify = OnNotify;
    device.OnData = OnData;
    return device;
}

static void CheckServerFunctions(void) {
    LUM_DEVICE_INFO_S device = Description();
    unsigned int sent = 77;
    EXPECT(LUM_DeInitServer() == 0);
    EXPECT(LUM_RegisterAiDevInfo(&device) == -1);
    EXPECT(LUM_SendDataToClient("face", "data", 4, &sent, 0) == -1);
    EXPECT(LUM_InitServer(NULL) == -1);
    EXPECT(LUM_InitServer("") == -1);
    EXPECT(LUM_InitServer("camera") == 0);
    EXPECT(LUM_InitServer("camera") == 0);
    device.serviceNum = LUM_MAX_SERVICES + 1;
    EXPECT(LUM_RegisterAiDevInfo(&device) == -1);
    EXPECT(LUM_RegisterAiDevInfo(NULL) == -1);
    EXPECT(LUM_SendDataToClient("face", "data", LUM_MAX_SERVER_DATA_LENGTH + 1, &sent, 0) == -1);
    EXPECT(sent == 77);
}

/* Says when it is ready, and ends when the client has. */
static int RunDevice(int ready, int end) {
    const char letter = 'r';
    LUM_DEVICE_INFO_S device = Description();
    g_role = "device";
    EXPECT(pipe(g_happened) == 0);
    CheckServerFunctions();
    EXPECT(LUM_RegisterAiDevInfo(&device) == 0);
    EXPECT(write(ready, &letter, 1) == 1);
    EXPECT(WaitForByte(g_happened[0]) == 'c');
    EXPECT(WaitForByte(g_happened[0]) == 's');
    EXPECT(WaitForByte(g_happened[0]) == 'd');
    EXPECT(WaitForByte(g_happened[0]) == 'u');
    EXPECT(WaitForByte(end) == '\0');
    EXPECT(LUM_DeInitServer() == 0);
    EXPECT(LUM_DeInitServer() == 0);
    return 0;
}

/* ---- The client ---- */

static int OnEvent(int clientID, LUM_EVENT_E event) {
    (void)clientID;
    (void)event;
    return 0;
}

static int OnDeviceEvent(LUM_DEVICE_EVENT_S event) {
    const int expected = event.clientID == 1 && event.handle == 1 &&
                         event.eventType == LUM_DEVICE_EVENT_DATA && event.dataLen == 8 &&
                         memcmp(event.data, "question", 8) == 0 && strcmp(event.serviceName, "face") == 0;
    Tell(expected ? 'e' : '?');
    return 0;
}

static void CheckClientFunctions(void) {
    int clientID = 0;
    unsigned int number = 0;
    char text[LUM_MIN_VERSION_BUFFER_LENGTH];
    EXPECT(LUM_DeInitClient(1) == -1);
    EXPECT(LUM_RegisterEvent(1, OnEvent) == -1);
    EXPECT(LUM_CreateAiDevice(1, "camera", &number) == -1);
    EXPECT(LUM_RegisterAiDeviceEvent(1, 1, OnDeviceEvent) == -1);
    EXPECT(LUM_ConnectAiDevice(1, 1) == -1);
    EXPECT(LUM_DisconnectAiDevice(1, 1) == -1);
    EXPECT(LUM_DestoryAiDevice(1, 1) == -1);
    EXPECT(LUM_SendCmd(1, 1, "cmd", "") == -1);
    EXPECT(LUM_SendData(1, 1, "data", 4, &number, 0) == -1);
    EXPECT(LUM_GetClientVersion(1, text, sizeof(text)) == -1);
    EXPECT(LUM_GetServerVersion(1, 1, text, sizeof(text)) == -1);
    EXPECT(LUM_InitClient(&clientID, "") == -1);
    EXPECT(LUM_InitClient(NULL, "viewer") == -1);
    EXPECT(clientID == 0);
}

static void FindDevice(void) {
    static LUM_DEVICES_INFO_S found;
    int searches = 0;
    while (LUM_GetAiDeviceList("camera", &found) != 0 || found.devNum == 0) {
        EXPECT(++searches < SEARCHES);
    }
    EXPECT(found.devNum == 1);
    EXPECT(found.devInfo[0].serviceNum == 1);
    EXPECT(strcmp(found.devInfo[0].devServiceType, "camera") == 0);
    EXPECT(strcmp(found.devInfo[0].serviceInfo[0].serviceName, "face") == 0);
    EXPECT(found.devInfo[0].serviceInfo[0].transport == LUM_TRANSPORT_TCP);
    EXPECT(found.devInfo[0].serviceInfo[0].outputLenBytes == 1024);
}

static void UseDevice(void) {
    LUM_SUBSCRIBE_SERVICE_S subscription;
    unsigned int handle = 0;
    unsigned int sent = 0;
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    EXPECT(LUM_CreateAiDevice(1, "camera", &handle) == 0 && handle == 1);
    EXPECT(LUM_RegisterEvent(1, OnEvent) == 0);
    EXPECT(LUM_RegisterAiDeviceEvent(1, handle, OnDeviceEvent) == 0);
    EXPECT(LUM_SendCmd(1, handle, "SetMode", "night") == -1); /* not connected */
    EXPECT(LUM_ConnectAiDevice(1, handle) == 0);
    EXPECT(LUM_GetClientVersion(1, version, sizeof(version)) == 0 && version[0] != '\0');
    EXPECT(LUM_GetServerVersion(1, handle, version, sizeof(version)) == 0 && version[0] != '\0');
    EXPECT(LUM_SendCmd(1, handle, "SetMode", "night") == 0);
    memset(&subscription, 0, sizeof(subscription));
    strcpy(subscription.serviceName, "face");
    subscription.transport = LUM_TRANSPORT_TCP;
    EXPECT(LUM_SendCmd(1, handle, "subscribe", (const char*)&subscription) == 0);
    EXPECT(LUM_SendData(1, handle, "question", 8, &sent, 1000) == 0 && sent == 8);
    EXPECT(WaitForByte(g_happened[0]) == 'e');
    EXPECT(LUM_SendCmd(1, handle, "unsubscribe", "face") == 0);
    EXPECT(LUM_DisconnectAiDevice(1, handle) == 0);
    EXPECT(LUM_DestoryAiDevice(1, handle) == 0);
}

static void RunClient(int ready) {
    int clientID = 0;
    EXPECT(pipe(g_happened) == 0);
    CheckClientFunctions();
    EXPECT(LUM_InitClient(&clientID, "viewer") == 0 && clientID == 1);
    EXPECT(WaitForByte(ready) == 'r');
    FindDevice();
    UseDevice();
    EXPECT(LUM_DeInitClient(1) == 0);
    EXPECT(LUM_DeInitClient(1) == -1);
}

int main(void) {
    int ready[2];
    int end[2];
    int status = 0;
    pid_t device;
    EXPECT(pipe(ready) == 0 && pipe(end) == 0);
    device = fork();
    EXPECT(device >= 0);
    if (device == 0) {
        close(end[1]);
        return RunDevice(ready[1], end[0]);
    }
    close(end[0]);
    RunClient(ready[0]);
    close(end[1]);
    EXPECT(waitpid(device, &status, 0) == device);
    EXPECT(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return 0;
}
