/* Finds an echo device, sends it a text and prints what comes back. */
#define _POSIX_C_SOURCE 200809L /* for sem_timedwait */
#include <lumora.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static sem_t answers;

static int OnAnswer(LUM_DEVICE_EVENT_S event) {
    printf("%s: %.*s\n", event.serviceName, (int)event.dataLen, event.data);
    return sem_post(&answers);
}

/* Every call returns 0 when all is well, and so does this. The log says which one failed, and why. */
static int Echo(int id, const char* text, unsigned int length) {
    const LUM_SUBSCRIBE_SERVICE_S echo = {"echo", 0, LUM_TRANSPORT_TCP};
    const struct timespec limit = {time(NULL) + 10, 0};
    LUM_DEVICES_INFO_S found;
    unsigned int handle, sent;
    return LUM_GetAiDeviceList("echo-device", &found) || found.devNum == 0 ||
           LUM_CreateAiDevice(id, found.devInfo[0].devServiceType, &handle) ||
           LUM_RegisterAiDeviceEvent(id, handle, OnAnswer) || LUM_ConnectAiDevice(id, handle) ||
           LUM_SendCmd(id, handle, "subscribe", (const char*)&echo) ||
           LUM_SendData(id, handle, text, length, &sent, 1000) || sent != length ||
           sem_timedwait(&answers, &limit) || LUM_DestoryAiDevice(id, handle);
}

int main(int count, char** arguments) {
    const char* text = count > 1 ? arguments[1] : "hello";
    int id, failed;
    if (sem_init(&answers, 0, 0) != 0 || LUM_InitClient(&id, "echo-client") != 0) {
        return 1;
    }
    failed = Echo(id, text, (unsigned int)strlen(text));
    failed |= LUM_DeInitClient(id) != 0;
    if (failed) {
        fputs("failed; is an echo device running in this network?\n", stderr);
    }
    return failed;
}
