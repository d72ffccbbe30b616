/*
 * A device whose OnData takes its time, as one that works on each block there: slow_device TYPE MILLISECONDS.
 * Prints "ready", and "blocks N" with the number so far when a line comes on standard input.
 */
#define _POSIX_C_SOURCE 200809L
#include <lumora.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static long pause_ms;
static atomic_uint blocks;

static int OnData(int client, const char* data, unsigned int length) {
    const struct timespec pause = {0, pause_ms * 1000000};
    (void)client;
    (void)data;
    (void)length;
    nanosleep(&pause, NULL);
    ++blocks;
    return 0;
}

static int OnCommand(const char* cmd, const char* param) {
    (void)cmd;
    (void)param;
    return 0;
}

static int OnEventNotify(int client, int event, LUM_SUBSCRIBE_SERVICE_S what) {
    (void)client;
    (void)event;
    (void)what;
    return 0;
}

int main(int argc, char** argv) {
    LUM_DEVICE_INFO_S device = {1, "", {{32, "none", LUM_TRANSPORT_TCP}}, OnCommand, OnEventNotify, OnData};
    char line[16];
    if (argc != 3)
        return 2;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    snprintf(device.devServiceType, sizeof device.devServiceType, "%s", argv[1]);
    pause_ms = atol(argv[2]);
    if (LUM_InitServer(argv[1]) != 0 || LUM_RegisterAiDevInfo(&device) != 0)
        return 1;
    puts("ready");
    while (fgets(line, sizeof line, stdin) != NULL)
        printf("blocks %u\n", blocks);
    return LUM_DeInitServer() == 0 ? 0 : 1;
}
