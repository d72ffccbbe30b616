/*
 * A client of the echo device that stays: connects, sends and looks after the device when standard input says
 * so, and tells what happens on standard output.
 */
#include <lumora.h>
#include <stdio.h>
#include <string.h>

enum { LINE_SIZE = 256 };

static unsigned int handle;

static int OnEcho(LUM_DEVICE_EVENT_S event) {
    return printf("%s: %.*s\n", event.serviceName, (int)event.dataLen, event.data);
}

static int OnClientEvent(int id, LUM_EVENT_E event) {
    return printf("client %d: %s\n", id,
                  event == LUM_EVENT_DEVICE_REMOVED ? "device removed" : "unknown event");
}

static int Find(void) {
    LUM_DEVICES_INFO_S found;
    return LUM_GetAiDeviceList("echo-device", &found) || found.devNum == 0;
}

static int OpenChannel(int id) {
    return LUM_CreateAiDevice(id, "echo-device", &handle) || LUM_RegisterAiDeviceEvent(id, handle, OnEcho) ||
           LUM_ConnectAiDevice(id, handle);
}

static int Subscribe(int id) {
    const LUM_SUBSCRIBE_SERVICE_S echo = {"echo", 0, LUM_TRANSPORT_TCP};
    return LUM_SendCmd(id, handle, "subscribe", (const char*)&echo);
}

static int Connect(int id) { return Find() || OpenChannel(id) || Subscribe(id); }

static int Send(int id, const char* text) {
    unsigned int sent = 0;
    const unsigned int length = (unsigned int)strlen(text);
    return LUM_SendData(id, handle, text, length, &sent, 1000) || sent != length;
}

static int Version(int id) {
    char version[LUM_MIN_VERSION_BUFFER_LENGTH];
    return LUM_GetServerVersion(id, handle, version, sizeof(version));
}

static int Do(int id, const char* line) {
    if (strcmp(line, "connect") == 0) {
        return Connect(id);
    }
    if (strcmp(line, "find") == 0) {
        return Find();
    }
    if (strcmp(line, "open") == 0) {
        return OpenChannel(id);
    }
    if (strcmp(line, "subscribe") == 0) {
        return Subscribe(id);
    }
    if (strcmp(line, "version") == 0) {
        return Version(id);
    }
    return Send(id, line);
}

int main(void) {
    char line[LINE_SIZE];
    int id = 0;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (LUM_InitClient(&id, "echo-client") != 0 || LUM_RegisterEvent(id, OnClientEvent) != 0) {
        return 1;
    }
    while (fgets(line, sizeof(line), stdin) != NULL) {
        line[strcspn(line, "\n")] = '\0';
        printf("%s %s\n", line, Do(id, line) == 0 ? "done" : "failed");
    }
    return LUM_DeInitClient(id) == 0 ? 0 : 1;
}
