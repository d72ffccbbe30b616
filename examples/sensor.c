/*
 * A device that does the two things that most devices do: it streams what it measures while a client takes it
 * (service "value"), and answers commands (service "answer").
 *
 * The callbacks run on threads of Lumora, which must not send from there nor be held up. They only note who
 * is subscribed, and write commands to a pipe. The program's own thread measures, answers and sends.
 */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <lumora.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

/* Small enough for a pipe to take it whole or not at all (PIPE_BUF). */
struct Command {
    char name[LUM_MAX_CMD_LENGTH + 1];
    char parameter[LUM_MAX_CMD_LENGTH + 1];
};

static int commands[2];        /* a pipe from OnCommand to Serve */
static atomic_uint takers;     /* bit N: client N is subscribed to "value" */
static long intervalMs = 1000; /* between two measurements */
static volatile sig_atomic_t ended;

static void OnSignal(int number) { ended = number; }

static int OnCommand(const char* cmd, const char* param) {
    struct Command command;
    memset(&command, 0, sizeof(command));
    strncpy(command.name, cmd, LUM_MAX_CMD_LENGTH);
    strncpy(command.parameter, param, LUM_MAX_CMD_LENGTH);
    if (write(commands[1], &command, sizeof(command)) != (ssize_t)sizeof(command)) {
        fprintf(stderr, "too many commands wait: %s is dropped\n", cmd);
    }
    return 0;
}

static int OnEventNotify(int client, int event, LUM_SUBSCRIBE_SERVICE_S what) {
    if (strcmp(what.serviceName, "value") != 0) {
        return 0;
    }
    if (event == LUM_NOTIFY_SUBSCRIBED) {
        atomic_fetch_or(&takers, 1u << client);
    } else {
        atomic_fetch_and(&takers, ~(1u << client));
    }
    return 0;
}

static int OnData(int client, const char* data, unsigned int length) {
    (void)data;
    return printf("client %d sent %u bytes, which this device does not need\n", client, length);
}

/* A block that no client takes any more is no reason to end. */
static void Send(const char* service, const char* text) {
    const unsigned int length = (unsigned int)strlen(text);
    unsigned int sent = 0;
    if (LUM_SendDataToClient(service, text, length, &sent, 1000) != 0 || sent != length) {
        fprintf(stderr, "\"%s\" did not reach every client\n", text);
    }
}

static void Answer(const struct Command* command) {
    char text[2 * LUM_MAX_CMD_LENGTH];
    const long wanted = strtol(command->parameter, NULL, 10);
    if (strcmp(command->name, "interval") != 0) {
        snprintf(text, sizeof(text), "unknown command %s; there is interval", command->name);
    } else if (wanted < 10 || wanted > 60000) {
        snprintf(text, sizeof(text), "interval takes 10 to 60000 ms");
    } else {
        intervalMs = wanted;
        snprintf(text, sizeof(text), "interval %ld ms", intervalMs);
    }
    Send("answer", text);
}

static void Measure(long now) {
    char text[32];
    if (atomic_load(&takers) != 0) {
        snprintf(text, sizeof(text), "%.2f degrees", 21 + (double)(now % 1000) / 1000);
        Send("value", text);
    }
}

static long Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Waits for a command, for the time of the next measurement, or for a signal, which only pselect lets
 * through. */
static void Serve(const sigset_t* open) {
    struct Command command;
    long measured = Now();
    while (!ended) {
        const long rest = measured + intervalMs > Now() ? measured + intervalMs - Now() : 0;
        const struct timespec wait = {rest / 1000, rest % 1000 * 1000000};
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(commands[0], &readable);
        if (pselect(commands[0] + 1, &readable, NULL, NULL, &wait, open) > 0 &&
            read(commands[0], &command, sizeof(command)) == (ssize_t)sizeof(command)) {
            Answer(&command);
        }
        if (Now() >= measured + intervalMs) {
            measured = Now();
            Measure(measured);
        }
    }
}

int main(void) {
    const LUM_DEVICE_INFO_S device = {
        2,         "sensor",      {{32, "value", LUM_TRANSPORT_TCP}, {1024, "answer", LUM_TRANSPORT_TCP}},
        OnCommand, OnEventNotify, OnData};
    struct sigaction action;
    sigset_t stop, open;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    setvbuf(stdout, NULL, _IOLBF, BUFSIZ);
    if (sigprocmask(SIG_BLOCK, &stop, &open) != 0 || sigaction(SIGINT, &action, NULL) != 0 ||
        sigaction(SIGTERM, &action, NULL) != 0 || pipe(commands) != 0 ||
        fcntl(commands[1], F_SETFL, O_NONBLOCK) != 0) { /* a full pipe refuses; OnCommand must not wait */
        return 1;
    }
    if (LUM_InitServer("sensor") != 0 || LUM_RegisterAiDevInfo(&device) != 0) {
        LUM_DeInitServer();
        return 1; /* the log says why */
    }
    puts("ready; Ctrl-C ends it");
    Serve(&open);
    return LUM_DeInitServer() == 0 ? 0 : 1;
}
