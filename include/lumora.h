/*
 * lumora.h - find AI devices on the local network, exchange commands and data with them, or be one.
 *
 * An application that uses devices is a client: LUM_InitClient, LUM_GetAiDeviceList, LUM_CreateAiDevice,
 * LUM_RegisterAiDeviceEvent, LUM_ConnectAiDevice, LUM_SendCmd, LUM_SendData ... LUM_DeInitClient.
 * An application on a device is a server: LUM_InitServer, LUM_RegisterAiDevInfo, LUM_SendDataToClient,
 * LUM_DeInitServer. A process normally plays one side; it may play both.
 *
 * Results
 *   Every function returns 0 on success and -1 on failure, and writes the cause of a failure to the log.
 *   Each function fails if an argument is outside of the range that is given here, if a pointer is null, if
 *   memory runs out, if it is called from a callback that must not call it, and in a forked child (below).
 *   A call that fails for one of these causes changes nothing, except that memory may run out half-way. What
 *   other failures change stands with each function. No function throws. No function raises a signal or
 *   changes how signals are handled.
 *
 * Identifiers
 *   A client ID (1 to 20) names one application client of this process. It is valid until LUM_DeInitClient.
 *   A handle (1 and up) names one remote device. It is valid until the device leaves the network, the device
 *   closes the data channel or the last client ends. A handle may be given out again for another device.
 *   0 is never a valid client ID or handle.
 *
 * Texts
 *   Texts are NUL-terminated. A name in a record may fill its field without a terminator, but the library's
 *   own copies need one: use names of up to 39 characters.
 *
 * Units
 *   Lengths are bytes, time-outs are milliseconds.
 *
 * Order of calls
 *   | state                                 | calls that can succeed from then on                           |
 *   | LUM_InitClient has succeeded          | LUM_RegisterEvent, LUM_GetAiDeviceList, LUM_GetClientVersion  |
 *   | a search has listed the device        | LUM_CreateAiDevice                                            |
 *   | LUM_CreateAiDevice has given a handle | LUM_RegisterAiDeviceEvent, LUM_ConnectAiDevice,               |
 *   |                                       | LUM_GetServerVersion                                          |
 *   | the client is connected to the handle | LUM_SendCmd, LUM_Subscribe, LUM_SendData,                     |
 *   |                                       | LUM_DisconnectAiDevice, LUM_DestoryAiDevice                   |
 *   | LUM_InitServer has succeeded          | LUM_RegisterAiDevInfo                                         |
 *   | a client has opened a data channel    | LUM_SendDataToClient                                          |
 *   A handle whose device the latest successful search did not list leads nowhere: the calls that need the
 *   device fail until a search lists it again.
 *
 * Threads and time
 *   Any thread may call any function. Calls of one side run one after the other, so that each also waits for
 *   the calls before it. The two version queries do not wait for them.
 *   On our own link platform a request to a device ends after 6.5 s at most if the device is silent, and
 *   after 3.7 s if the device is alive but does not acknowledge it. An acknowledged request ends after 8 s if
 *   it only reads (search, versions, setting up a channel) and after 60 s otherwise. Connecting a data
 *   channel takes 8 s at most. docs/guide.md lists what each call waits for.
 *   The library's threads block all signals.
 *
 * Callbacks
 *   | callback               | called on                      | may call                                    |
 *   | client event           | the platform's event thread    | nothing of the client side                  |
 *   | device event           | the connection's receive thread| nothing of the client side                  |
 *   | OnCommand,             | a request thread of the        | nothing of the server side                  |
 *   | OnEventNotify          | platform                       |                                             |
 *   | OnData                 | the connection's receive thread| LUM_SendDataToClient, nothing else of the   |
 *   |                        |                                | server side                                 |
 *   A call that is not allowed would have to wait for itself: it fails with -1 and says so in the log.
 *   If one process plays both sides, callbacks may call the other side, but only in one direction: not
 *   the client side from OnData and the server side from a device event. Such a process calls LUM_InitClient
 *   first: the side that was initialised last is the one that answers requests and is told of events.
 *   A callback delays everything else that its thread does: long work belongs on a thread of the application.
 *   Everything that a callback gets by pointer belongs to the library, must not be changed, and is valid only
 *   until the callback returns. Results of callbacks are not used. An exception must not leave a callback: it
 *   may end the process.
 *   After LUM_DeInitClient no callback of that client runs. After LUM_DeInitServer none of the device runs.
 *
 * Identity
 *   The clientID in OnData and OnEventNotify is what the peer wrote. It is not limited to 1 to 20, clients of
 *   different processes use the same numbers, and nothing authenticates it.
 *
 * Fork and dlclose
 *   A process that becomes a daemon calls fork before its first LUM_InitClient or LUM_InitServer. If a client
 *   or a device is running at the time of a fork, every function fails in the child with -1 and one log line
 *   of level 4, LUM_DeInitClient and LUM_DeInitServer too. Only exec may follow. The parent goes on as
 *   before.
 *   dlclose does not unload the library.
 *
 * Not supported
 *   IPv6; more than one data channel to a device; transports other than TCP (the kinds UDP and RTP are
 *   accepted and carried over TCP); encryption of the data channel.
 */
#ifndef LUMORA_H
#define LUMORA_H

#ifdef __cplusplus
extern "C" {
#endif

/* Marks what the library gives out. */
#if defined(__GNUC__)
#define LUM_EXPORT __attribute__((visibility("default")))
#else
#define LUM_EXPORT
#endif

/* Limits. */
#define LUM_NAME_SIZE 40               /* bytes of a name field */
#define LUM_MAX_SERVICES 8             /* services of a device */
#define LUM_MAX_DEVICES 4              /* devices of one search */
#define LUM_MAX_CLIENTS 20             /* clients of a process, and the highest client ID */
#define LUM_MAX_DEV_TYPE_LENGTH 40     /* characters of a device type */
#define LUM_MAX_SERVICE_NAME_LENGTH 40 /* characters of a service name */
#define LUM_MAX_CMD_LENGTH 400         /* characters of a command, of its parameter, and of both together */
#define LUM_MAX_CLIENT_DATA_LENGTH 5242880 /* bytes of one LUM_SendData */
#define LUM_MAX_SERVER_DATA_LENGTH 1024000 /* bytes of one LUM_SendDataToClient */
#define LUM_MAX_CLIENT_TIMEOUT_MS 2000     /* time-out of LUM_SendData */
#define LUM_MAX_SERVER_TIMEOUT_MS 3000     /* time-out of LUM_SendDataToClient */
#define LUM_MIN_VERSION_BUFFER_LENGTH 64   /* bytes of a buffer for a version */

/* The transport kind of a service's data channel. Today every kind is carried over TCP. */
typedef enum LUM_TRANSPORT_E {
    LUM_TRANSPORT_NONE = 0,
    LUM_TRANSPORT_UDP = 1,
    LUM_TRANSPORT_TCP = 2,
    LUM_TRANSPORT_RTP = 3,
    LUM_TRANSPORT_RESERVED_4 = 4,
    LUM_TRANSPORT_RESERVED_5 = 5
} LUM_TRANSPORT_E;

/* The state that a transport reports of itself. */
typedef enum LUM_TRANSPORT_STATUS_E {
    LUM_TRANSPORT_STATUS_UNKNOWN = 0,
    LUM_TRANSPORT_STATUS_BUSY = 1,
    LUM_TRANSPORT_STATUS_FREE = 2
} LUM_TRANSPORT_STATUS_E;

/* What a client event callback is called for. */
typedef enum LUM_EVENT_E {
    LUM_EVENT_NONE = 0,
    LUM_EVENT_DEVICE_REMOVED = 1 /* the device that the client was connected to has left the network */
} LUM_EVENT_E;

/* Values of LUM_DEVICE_EVENT_S.eventType. */
enum { LUM_DEVICE_EVENT_DATA = 2 };

/* Values of OnEventNotify's event code. */
enum {
    LUM_NOTIFY_SUBSCRIBED = 0,
    LUM_NOTIFY_UNSUBSCRIBED = 1 /* cancelled, or the client went away: only the service name is set */
};

/* One named service of a device. */
typedef struct LUM_SERVICE_INFO_S {
    unsigned int outputLenBytes;     /* length of the output that the service produces */
    char serviceName[LUM_NAME_SIZE]; /* its name */
    LUM_TRANSPORT_E transport;       /* 0 to 5 */
} LUM_SERVICE_INFO_S;

/*
 * A subscription. It is the parameter of the command "subscribe", passed to LUM_SendCmd as
 * (const char *)&subscription, and arrives in OnEventNotify. The command "unsubscribe" takes the plain
 * service name instead.
 */
typedef struct LUM_SUBSCRIBE_SERVICE_S {
    char serviceName[LUM_NAME_SIZE]; /* the service */
    int dataSource;                  /* 0 or 1 */
    int transport;                   /* 0 to 5, a LUM_TRANSPORT_E */
} LUM_SUBSCRIBE_SERVICE_S;

/* A client's command other than "subscribe" and "unsubscribe"; param may be empty, never null. */
typedef int (*LUM_COMMAND_CALLBACK)(const char* cmd, const char* param);

/* A client has subscribed to a service or no longer is subscribed; event is LUM_NOTIFY_... */
typedef int (*LUM_NOTIFY_CALLBACK)(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription);

/* One block that a client sent with LUM_SendData; clientID is 0 to 255, length may be 0. */
typedef int (*LUM_DATA_CALLBACK)(int clientID, const char* data, unsigned int length);

/* One device and its services. The callbacks are set on the server side only. */
typedef struct LUM_DEVICE_INFO_S {
    unsigned int serviceNum;            /* valid entries of serviceInfo, 1 to 8 on the server side */
    char devServiceType[LUM_NAME_SIZE]; /* the device type: the text that LUM_InitServer got */
    LUM_SERVICE_INFO_S serviceInfo[LUM_MAX_SERVICES]; /* the services */
    LUM_COMMAND_CALLBACK OnCommand;                   /* commands */
    LUM_NOTIFY_CALLBACK OnEventNotify;                /* subscriptions */
    LUM_DATA_CALLBACK OnData;                         /* blocks */
} LUM_DEVICE_INFO_S;

/* The result of a search. */
typedef struct LUM_DEVICES_INFO_S {
    LUM_DEVICE_INFO_S devInfo[LUM_MAX_DEVICES]; /* the devices */
    unsigned int devNum;                        /* valid entries of devInfo */
} LUM_DEVICES_INFO_S;

/* What a device sent to one of its subscribers. */
typedef struct LUM_DEVICE_EVENT_S {
    int clientID;                    /* the subscriber */
    unsigned int handle;             /* the handle that the client is connected to, 0 if to none */
    char serviceName[LUM_NAME_SIZE]; /* terminated */
    int eventType;                   /* LUM_DEVICE_EVENT_DATA */
    int result;                      /* 0 */
    unsigned int dataLen;            /* bytes of data */
    char* data; /* valid only during the callback; shared by all recipients, so it must not be changed */
} LUM_DEVICE_EVENT_S;

/* The client's device has left the network. */
typedef int (*LUM_EVENT_CALLBACK)(int clientID, LUM_EVENT_E event);

/* The device has sent a block to the client. */
typedef int (*LUM_DEVICE_EVENT_CALLBACK)(LUM_DEVICE_EVENT_S event);

/* ---- Client side ---- */

/*
 * Makes this application a client. The first client of the process joins the network as a device of type
 * devType (1 to 40 characters); later clients share the first one's type. *clientID receives the lowest free
 * ID from 1 to 20.
 * Fails if 20 clients exist; *clientID is then 0. Fails if the network cannot be joined: the link platform
 * does not start, its port or key file cannot be used, or liblumora.so leaves out an operation that is
 * needed. The ID that was written to *clientID then stays taken. LUM_DeInitClient with this ID gives it back;
 * that call returns -1 because nothing was running. Waits for no device.
 */
LUM_EXPORT int LUM_InitClient(int* clientID, const char* devType);

/*
 * Ends a client and gives its ID back. The last client also closes the data channel, leaves the network and
 * frees everything.
 * Fails if the ID is not in use, and if the platform had not started or does not stop; the ID is free then
 * as well. Waits for a callback in progress, whichever client it belongs to. Does not tell the device:
 * call LUM_DestoryAiDevice before.
 */
LUM_EXPORT int LUM_DeInitClient(int clientID);

/*
 * Sets the callback that is called when the connected device leaves the network. It replaces an earlier one.
 * Only the device of the process's last connection is watched. The callback is not called if the data channel
 * breaks first, as it does when the device's process ends.
 * Fails if there is no such client.
 */
LUM_EXPORT int LUM_RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback);

/*
 * Searches the network for devices of type devType (1 to 40 characters) and asks one after the other for its
 * services. *devsInfo is cleared first. It then holds the first four that answered. Devices of the same type
 * are told apart by a number behind the type: T, T1, T12 ... A search that found a device replaces the
 * devices of the search before. Handles stay.
 * Fails if no device was found; what the search before found is then kept. Succeeds with devNum 0 if none of
 * those found answered. On our link platform it takes 230 to 600 ms, the time of each answer, and for a
 * device that does not answer 8 s at most. Such a device comes last for two minutes and costs 0.5 s.
 */
LUM_EXPORT int LUM_GetAiDeviceList(const char* devType, LUM_DEVICES_INFO_S* devsInfo);

/*
 * Gives the handle of a device that the last search listed; devType (1 to 40 characters) is the
 * devServiceType of its entry. All clients of the process have the same handle for a device.
 * Fails if there is no such client, or if the last search did not list the type. Waits for no device.
 */
LUM_EXPORT int LUM_CreateAiDevice(int clientID, const char* devType, unsigned int* handle);

/*
 * Sets the callback that receives what devices send to this client, whichever handle it is connected to. The
 * first one set stays until the client ends: a later call succeeds and changes nothing. Register before
 * subscribing: a block for a client without a callback does not reach the subscribers behind it either.
 * Fails if there is no such client or handle.
 */
LUM_EXPORT int LUM_RegisterAiDeviceEvent(int clientID, unsigned int handle,
                                         LUM_DEVICE_EVENT_CALLBACK callback);

/*
 * Connects the client to the device. The first client on a handle opens the data channel, which uses the TCP
 * ports 6666 (on the device) and 6667 (here). Connecting twice succeeds and does nothing. A process has one
 * data channel at a time: opening one closes the channel to another device. A channel that breaks is not
 * reported: from then on the calls that need the device fail, and the device has to be searched for again. A
 * channel that was closed on this side is not opened again before the device has left or the last client has
 * ended, though connecting succeeds. This side closes a channel if a send makes no progress, if another
 * device is connected to, or if the last step of connecting fails. docs/guide.md has a
 * program that recovers.
 * Fails if there is no such client, handle or device, if port 6667 is taken, if the device refuses or does
 * not answer, or if its port cannot be reached. The channel to another device is closed by then. If a channel
 * to this device was open for other clients, it may be closed too. Waits for a callback in progress on the
 * former channel, and for the device: 8 s at most to set up, 8 s to connect, 60 s for the request after that.
 */
LUM_EXPORT int LUM_ConnectAiDevice(int clientID, unsigned int handle);

/*
 * Ends the client's connection here. The device is not told: the data channel stays, and so do subscriptions.
 * Their blocks still reach the client's callback, with handle 0. LUM_ConnectAiDevice connects again.
 * Fails if there is no such client or handle, or if the client is not connected. Waits for no device.
 */
LUM_EXPORT int LUM_DisconnectAiDevice(int clientID, unsigned int handle);

/*
 * Tells the device that this client is gone. The device cancels the client's subscriptions. If it was the
 * last client on the device, the device closes the data channel; the handle is then gone, and the device has
 * to be searched for again. Otherwise the handle stays. The client counts as connected here until
 * LUM_DisconnectAiDevice, after which LUM_ConnectAiDevice announces it again.
 * Fails if there is no such client, handle or device, if the device does not know the client, or if it does
 * not answer. Waits for the device: 60 s at most.
 */
LUM_EXPORT int LUM_DestoryAiDevice(int clientID, unsigned int handle);

/*
 * Sends a command to the device that the client is connected to: cmd has 1 to 400 characters, param 0 to
 * 400, both together at most 400. For "subscribe" param is a LUM_SUBSCRIBE_SERVICE_S. The whole message must
 * fit into 1,022 characters: texts that need escaping in JSON take more room. Success means that the device's
 * OnCommand or OnEventNotify has returned, or that none was registered. The device's application does not
 * answer; what it has to say comes as data.
 * Fails if the client is not connected to the handle, if the device has left, refuses (no such service; not
 * subscribed) or does not answer. If it did not answer, the command may have run. Waits for the device and
 * its callback: 60 s at most.
 */
LUM_EXPORT int LUM_SendCmd(int clientID, unsigned int handle, const char* cmd, const char* param);

/*
 * Subscribes the client to a service of the device that it is connected to, over TCP and with data source 0.
 * The device then sends the service's blocks to the callback of LUM_RegisterAiDeviceEvent; LUM_SendCmd with
 * "unsubscribe" and the name ends that. Use this rather than LUM_SendCmd with "subscribe", which reads a
 * whole LUM_SUBSCRIBE_SERVICE_S at param and compiles with a mere text as well. serviceName has 1 to 39
 * characters. Fails as LUM_SendCmd does, and, without a line in the log, for a longer name.
 */
static inline int LUM_Subscribe(int clientID, unsigned int handle, const char* serviceName) {
    union {
        LUM_SUBSCRIBE_SERVICE_S record;
        char bytes[sizeof(LUM_SUBSCRIBE_SERVICE_S)];
    } parameter = {{{0}, 0, LUM_TRANSPORT_TCP}};
    unsigned int i = 0;
    if (!serviceName) {
        return LUM_SendCmd(clientID, handle, "subscribe", serviceName);
    }
    for (i = 0; serviceName[i] != '\0'; ++i) {
        if (i == LUM_NAME_SIZE - 1) {
            return -1;
        }
        parameter.record.serviceName[i] = serviceName[i];
    }
    return LUM_SendCmd(clientID, handle, "subscribe", parameter.bytes);
}

/*
 * Sends one block of 1 to 5,242,880 bytes on the handle's data channel; data need stay valid only during the
 * call. timeoutMs may be 0 to 2000 and does not shorten the limit, which is half a second without any
 * progress.
 * Success means that *sendLength bytes were handed to the network, not that the device has them. A short
 * *sendLength, 0 included, means that the channel is closed and the block is lost.
 * Fails if there is no such client, handle or device, if no channel is open, or if it broke. Read *sendLength
 * only after a success: a failure writes 0 or leaves it alone. Waits while the device reads, however slowly;
 * callbacks go on meanwhile.
 */
LUM_EXPORT int LUM_SendData(int clientID, unsigned int handle, const void* data, unsigned int length,
                            unsigned int* sendLength, unsigned int timeoutMs);

/*
 * Writes the version of this library to buff, terminated. buffLen must be 64 or more.
 * Fails if there is no such client. Waits for nothing.
 */
LUM_EXPORT int LUM_GetClientVersion(int clientID, char* buff, unsigned int buffLen);

/*
 * Asks the device for the version of its library and writes it to buff, terminated. buffLen must be 64 or
 * more. The client need not be connected.
 * Fails if there is no such client, handle or device, if the device does not answer, or if the version does
 * not fit. Waits only for another request to the same device, and for the device: 8 s at most.
 */
LUM_EXPORT int LUM_GetServerVersion(int clientID, unsigned int handle, char* buff, unsigned int buffLen);

/* ---- Server side ---- */

/*
 * Makes this process a device of type devType (1 to 40 characters) that clients can find. Call
 * LUM_RegisterAiDevInfo at once: without it the device is found but not listed. A second call succeeds and
 * changes nothing.
 * Fails if the network cannot be joined, for the causes of LUM_InitClient. The call may then be repeated. The
 * type of the first call stays: a repetition with another type is found under the first one, or under the one
 * that LUM_RegisterAiDevInfo set since. Waits for a request in progress, if there is one.
 */
LUM_EXPORT int LUM_InitServer(const char* devType);

/*
 * Sets the device's services (1 to 8) and callbacks (all three are needed). The record is copied. A transport
 * above 5 is refused. Replaces an earlier registration and drops its subscriptions without telling; an open
 * data channel keeps its OnData.
 * Fails if LUM_InitServer was not called. Fails if the description of the services exceeds 1,024 characters,
 * which only names with characters that JSON escapes can reach: the earlier registration is then replaced all
 * the same, and searches do not list the device until a registration succeeds. Waits for a request in
 * progress: its callback, and 5 s at most for connecting back to a client.
 */
LUM_EXPORT int LUM_RegisterAiDevInfo(const LUM_DEVICE_INFO_S* devInfo);

/*
 * Sends one block of 1 to 1,024,000 bytes to every client that subscribed to the service (1 to 39
 * characters); data need stay valid only during the call. A service without subscribers is no failure.
 * timeoutMs above 3000 means 3000 and does not shorten the limit, which is half a second without any
 * progress. May be called from OnData.
 * Success means that *sendLength bytes were handed to the network, not that a client has them. A short
 * *sendLength means that the channel is closed and the block is lost. It is 0 once the client has closed its
 * connection.
 * Fails if no client has opened a data channel, if it broke, if there is no such service, or if too many
 * clients subscribed: 93 less the length of the name fit, and a client process reads no block for more than
 * 20. In OnData it also fails while another thread ends the channel. Read *sendLength only after a success: a
 * failure writes 0 or leaves it alone. Waits while the client reads, however slowly; requests go on
 * meanwhile.
 */
LUM_EXPORT int LUM_SendDataToClient(const char* serviceName, const void* data, unsigned int dataLen,
                                    unsigned int* sendLength, unsigned int timeoutMs);

/*
 * Closes the data channel, leaves the network and frees everything. Succeeds if there is no device.
 * Fails after a failed LUM_InitServer, because nothing is running, and if the platform does not stop. A
 * failure frees nothing; LUM_InitServer may be called again. Waits for a request in progress with its
 * callback, and for OnData.
 */
LUM_EXPORT int LUM_DeInitServer(void);

#ifdef __cplusplus
}
#endif

#endif
