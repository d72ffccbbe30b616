/* A device with the service "echo": what a client sends goes back to all who subscribed. */
#define _POSIX_C_SOURCE 200809L /* for sigwait */
#include <lumora.h>
#include <signal.h>
#include <stdio.h>

static int OnCommand(const char* cmd, const char* param) { return printf("command %s %s\n", cmd, param); }

static int OnEventNotify(int client, int event, LUM_SUBSCRIBE_SERVICE_S what) {
    return printf("client %d %s %s\n", client, event == LUM_NOTIFY_SUBSCRIBED ? "subscribed to" : "left",
                  what.serviceName);
}

static int OnData(int client, const char* data, unsigned int length) {
    unsigned int sent = 0;
    const int result = LUM_SendDataToClient("echo", data, length, &sent, 1000);
    return printf("client %d sent %u bytes, %u went back\n", client, length, result == 0 ? sent : 0);
}

int main(void) {
    const LUM_DEVICE_INFO_S device = {1,         "echo-device", {{1024000, "echo", LUM_TRANSPORT_TCP}},
                                      OnCommand, OnEventNotify, OnData};
    sigset_t stop;
    int number;
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop, NULL);
    if (LUM_InitServer("echo-device") != 0 || LUM_RegisterAiDevInfo(&device) != 0) {
        LUM_DeInitServer();
        return 1; /* the log says why */
    }
    puts("ready; Ctrl-C ends it");
    sigwait(&stop, &number);
    return LUM_DeInitServer() == 0 ? 0 : 1;
}
