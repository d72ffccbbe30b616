/*
 * lumora.h - find AI devices on the local network, exchange commands and data with them, or be one.
 *
 * An application that uses devices is a client: LUM_InitClient, LUM_GetAiDeviceList, LUM_CreateAiDevice,
 * LUM_RegisterAiDeviceEvent, LUM_ConnectAiDevice, LUM_SendCmd, LUM_SendData ... LUM_DeInitClient.
 * An application on a device is a server: LUM_InitServer, LUM_RegisterAiDevInfo, LUM_SendDataToClient,
 * LUM_DeInitServer. A process normally plays one side; it may play both.
 *
 * Results
 *   Every function returns 0 on success and -1 on failure, and writes the reason of a failure to the log.
 *   A failed call changes nothing unless its description says so. Nothing throws out of a function, and no
 *   function raises a signal or touches the process's signal dispositions.
 *
 * Identifiers
 *   A client ID (1 to 20) names one application client of this process, a handle (1 and up) one remote
 *   device. Both are valid until the client or the device is gone. 0 is never a valid client or handle.
 *
 * Texts
 *   Texts are NUL-terminated. A name in a record may fill its field without a terminator, but the library's
 *   own copies need one: use names of up to 39 characters.
 *
 * Units
 *   Lengths are bytes, time-outs are milliseconds.
 *
 * Threads
 *   Any thread may call any function. Calls of one side run one after the other; the two version queries do
 *   not wait for other calls of their side to begin. Calls to a device may block while it answers: at most
 *   seconds on our own link platform. The library's threads block all signals.
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
 *   Where one process plays both sides, callbacks may call the other side, but only in one direction: not
 *   the client side from OnData and the server side from a device event. Such a process calls LUM_InitClient
 *   first: the side that was initialised last is the one that answers requests and is told of events.
 *   Callbacks hold up what they run on; long work belongs on a thread of the application. Everything that a
 *   callback is given by pointer is valid only until it returns. Results of callbacks are not used.
 *   No callback runs after LUM_DeInitClient of the last client or LUM_DeInitServer has returned.
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

/* What a client event callback is told. */
typedef enum LUM_EVENT_E {
    LUM_EVENT_NONE = 0,
    LUM_EVENT_DEVICE_REMOVED = 1 /* the device that the client is connected to has left the network */
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

/* A client subscribed to a service or no longer does; event is LUM_NOTIFY_... */
typedef int (*LUM_NOTIFY_CALLBACK)(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription);

/* One block that a client sent with LUM_SendData; length may be 0. */
typedef int (*LUM_DATA_CALLBACK)(int clientID, const char* data, unsigned int length);

/* One device and its services. The callbacks are set on the server side only. */
typedef struct LUM_DEVICE_INFO_S {
    unsigned int serviceNum;            /* valid entries of serviceInfo, 1 to 8 on the server side */
    char devServiceType[LUM_NAME_SIZE]; /* the device type */
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
    unsigned int handle;             /* the handle that the client is connected to */
    char serviceName[LUM_NAME_SIZE]; /* terminated */
    int eventType;                   /* LUM_DEVICE_EVENT_DATA */
    int result;                      /* 0 */
    unsigned int dataLen;            /* bytes of data */
    char* data;                      /* valid only during the callback */
} LUM_DEVICE_EVENT_S;

/* Something happened to the client's device. */
typedef int (*LUM_EVENT_CALLBACK)(int clientID, LUM_EVENT_E event);

/* The device sent something to the client. */
typedef int (*LUM_DEVICE_EVENT_CALLBACK)(LUM_DEVICE_EVENT_S event);

/* ---- Client side ---- */

/*
 * Makes this application a client and, for the first client of the process, joins the network as a device
 * of type devType (1 to 40 characters; later clients share the first one's). *clientID receives the lowest
 * free ID from 1 to 20. Fails when 20 clients exist (*clientID is then 0) or when the network cannot be
 * joined; such an ID stays taken.
 */
LUM_EXPORT int LUM_InitClient(int* clientID, const char* devType);

/*
 * Ends a client. The last one stops the connection, leaves the network and frees everything; the call waits
 * for callbacks in progress. Fails for an ID that is not in use.
 */
LUM_EXPORT int LUM_DeInitClient(int clientID);

/*
 * Sets the callback that is told when the connected device leaves the network; replaces an earlier one. It is
 * not called where the data channel broke first, as when the device's process is killed.
 */
LUM_EXPORT int LUM_RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback);

/*
 * Searches the network for devices of type devType and asks each for its services; *devsInfo is cleared
 * first and then holds the first four that answered. Devices of the same type are told apart by a number
 * behind the type: T, T1, T12 ... Fails when no device was found; succeeds with devNum 0 when none of those
 * found answered. Blocks for some hundred milliseconds. Forgets the devices of an earlier search, but not
 * the handles.
 */
LUM_EXPORT int LUM_GetAiDeviceList(const char* devType, LUM_DEVICES_INFO_S* devsInfo);

/*
 * Gives the handle of a device that the last search found; devType is the devServiceType of its entry.
 * All clients share one handle per device.
 */
LUM_EXPORT int LUM_CreateAiDevice(int clientID, const char* devType, unsigned int* handle);

/*
 * Sets the callback that receives what the device sends to this client. The first one set stays until the
 * client ends; a later call succeeds and changes nothing.
 */
LUM_EXPORT int LUM_RegisterAiDeviceEvent(int clientID, unsigned int handle,
                                         LUM_DEVICE_EVENT_CALLBACK callback);

/*
 * Connects the client to the device; the first client on a handle opens the data channel, which uses the
 * TCP ports 6666 (on the device) and 6667 (here). Connecting twice succeeds. A process has one data channel
 * at a time: connecting to another device closes the channel to the one before. A channel that breaks is not
 * reported: from then on the calls that need the device fail, and it has to be searched for again. A channel
 * that was closed on this side, because a send made no progress or because another device was connected to,
 * is not opened again before the process's last client has ended; see docs/guide.md.
 */
LUM_EXPORT int LUM_ConnectAiDevice(int clientID, unsigned int handle);

/* Ends the client's connection; the data channel stays for others. Fails when the client has none. */
LUM_EXPORT int LUM_DisconnectAiDevice(int clientID, unsigned int handle);

/* Tells the device that this client is gone. The handle stays and can be used again. */
LUM_EXPORT int LUM_DestoryAiDevice(int clientID, unsigned int handle);

/*
 * Sends a command to the device that the client is connected to: cmd has 1 to 400 characters, param 0 to
 * 400, both together at most 400. For "subscribe" param is a LUM_SUBSCRIBE_SERVICE_S. The device's
 * application does not answer; what it has to say comes as data. The whole message must fit into 1,022
 * characters: texts that need escaping in JSON take more room.
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
 * Sends one block of 1 to 5,242,880 bytes to the device. *sendLength receives the number of bytes that were
 * written, 0 when sending failed; a call that is refused leaves it alone. timeoutMs may be 0 to 2000; the
 * actual limit is half a second without any progress: the call then succeeds with a short *sendLength, and
 * the next one fails.
 */
LUM_EXPORT int LUM_SendData(int clientID, unsigned int handle, const void* data, unsigned int length,
                            unsigned int* sendLength, unsigned int timeoutMs);

/* The version of this library, terminated. buffLen must be 64 or more. */
LUM_EXPORT int LUM_GetClientVersion(int clientID, char* buff, unsigned int buffLen);

/* The version of the device's library; asks the device. buffLen must be 64 or more. */
LUM_EXPORT int LUM_GetServerVersion(int clientID, unsigned int handle, char* buff, unsigned int buffLen);

/* ---- Server side ---- */

/*
 * Makes this process a device of type devType (1 to 40 characters) that clients can find. A second call
 * succeeds and changes nothing. After a failed start the call may be repeated.
 */
LUM_EXPORT int LUM_InitServer(const char* devType);

/*
 * Sets the device's services and callbacks (all three are needed); the record is copied. Replaces an earlier
 * registration and drops its subscriptions. Fails when the description of the services exceeds 1,024
 * characters, which only names with characters that JSON escapes can reach.
 */
LUM_EXPORT int LUM_RegisterAiDevInfo(const LUM_DEVICE_INFO_S* devInfo);

/*
 * Sends one block of 1 to 1,024,000 bytes to every client that subscribed to the service. *sendLength
 * receives the number of bytes that were written, 0 when sending failed; a call that is refused leaves it
 * alone. timeoutMs above 3000 means 3000; the actual limit is half a second without any progress: the call
 * then succeeds with a short *sendLength. Fails while no client has opened a data channel. May be called from
 * OnData.
 */
LUM_EXPORT int LUM_SendDataToClient(const char* serviceName, const void* data, unsigned int dataLen,
                                    unsigned int* sendLength, unsigned int timeoutMs);

/* Leaves the network and frees everything; waits for callbacks in progress. Succeeds without a server. */
LUM_EXPORT int LUM_DeInitServer(void);

#ifdef __cplusplus
}
#endif

#endif
