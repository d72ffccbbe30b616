/**
 * @file
 * Lumora: find AI devices on the local network, exchange commands and data with them, or be one.
 *
 * An application that uses devices is a client: LUM_InitClient, LUM_GetAiDeviceList, LUM_CreateAiDevice,
 * LUM_RegisterAiDeviceEvent, LUM_ConnectAiDevice, LUM_SendCmd, LUM_SendData ... LUM_DeInitClient.
 * An application on a device is a server: LUM_InitServer, LUM_RegisterAiDevInfo, LUM_SendDataToClient,
 * LUM_DeInitServer. A process normally plays one side; it may play both.
 *
 * ### Results
 * Every function returns 0 on success and -1 on failure, and writes the cause of a failure to the log. Each
 * function fails if
 * - an argument is outside of the range that is given here, or a pointer is null;
 * - memory runs out;
 * - a callback calls it that must not (see Callbacks);
 * - it is called in a forked child (see Fork and dlclose).
 *
 * A call that fails for one of these causes changes nothing, except that memory may run out half-way. The
 * other failures, and what they change, stand with each function. No function throws. No function raises a
 * signal or changes how signals are handled.
 *
 * ### Identifiers
 * A client ID (1 to 20) names one application client of this process. It is valid until LUM_DeInitClient.
 * A handle (1 and up) names one remote device. It is valid until the device leaves the network, the device
 * closes the data channel or the last client ends. A handle may be given out again for another device.
 * 0 is never a valid client ID or handle.
 *
 * ### Texts
 * Texts are NUL-terminated. A name in a record may fill its field without a terminator, but the library's
 * own copies need one: use names of up to 39 characters.
 *
 * ### Units
 * Lengths are bytes, time-outs are milliseconds.
 *
 * ### Order of calls
 * These calls can succeed from a state on:
 * - LUM_InitClient has succeeded: LUM_RegisterEvent, LUM_GetAiDeviceList, LUM_GetClientVersion
 * - a search has listed the device: LUM_CreateAiDevice
 * - LUM_CreateAiDevice has given a handle: LUM_RegisterAiDeviceEvent, LUM_ConnectAiDevice,
 *   LUM_GetServerVersion
 * - the client is connected to the handle: LUM_SendCmd, LUM_Subscribe, LUM_SendData, LUM_DisconnectAiDevice,
 *   LUM_DestoryAiDevice
 * - LUM_InitServer has succeeded: LUM_RegisterAiDevInfo
 * - a client has opened a data channel: LUM_SendDataToClient
 *
 * If the latest successful search did not list a handle's device, the calls that need the device fail until a
 * search lists it again.
 *
 * ### Threads and time
 * Any thread may call any function. Calls of one side run one after the other, so that each also waits for
 * the calls before it. The two version queries do not wait for them. The library's threads block all signals.
 *
 * On our own link platform a request to a device ends after 6.5 s at most if the device is silent, and after
 * 3.7 s if the device is alive but does not acknowledge it. An acknowledged request ends after 8 s if it only
 * reads (search, versions, setting up a channel) and after 60 s otherwise. Connecting a data channel takes
 * 8 s at most. docs/guide.md lists what each call waits for.
 *
 * ### Callbacks
 * - client event: called on the platform's event thread; may call nothing of the client side
 * - device event: called on the connection's receive thread; may call nothing of the client side
 * - OnCommand, OnEventNotify: called on a request thread of the platform; may call nothing of the server side
 * - OnData: called on the connection's receive thread; of the server side it may call LUM_SendDataToClient,
 *   and nothing else
 *
 * A call that is not allowed would deadlock: it fails with -1 and says so in the log.
 *
 * If one process plays both sides, callbacks may call the other side, but only in one direction: not the
 * client side from OnData and the server side from a device event. Such a process calls LUM_InitClient first:
 * the side that was initialised last answers requests and is told of events.
 *
 * A callback delays everything else that its thread does: long work belongs on a thread of the application.
 * Everything that a callback gets by pointer belongs to the library, must not be changed, and is valid only
 * until the callback returns. Results of callbacks are not used. An exception must not leave a callback: it
 * may end the process. After LUM_DeInitClient no callback of that client runs. After LUM_DeInitServer no
 * callback of the device runs.
 *
 * ### Identity
 * The clientID in OnData and OnEventNotify is what the peer wrote. It is not limited to 1 to 20, clients of
 * different processes use the same numbers, and nothing authenticates it.
 *
 * ### Fork and dlclose
 * A process that becomes a daemon calls fork before its first LUM_InitClient or LUM_InitServer. If a client
 * or a device is running at the time of a fork, every function fails in the child with -1 and one log line of
 * level 4, LUM_DeInitClient and LUM_DeInitServer too. Only exec may follow. The parent is not affected.
 * dlclose does not unload the library.
 *
 * ### Not supported
 * IPv6; more than one data channel to a device; transports other than TCP (the kinds UDP and RTP are accepted
 * and carried over TCP); encryption of the data channel.
 */
#ifndef LUMORA_H
#define LUMORA_H

#ifdef __cplusplus
extern "C" {
#endif

/** Marks the exported functions. */
#if defined(__GNUC__)
#define LUM_EXPORT __attribute__((visibility("default")))
#else
#define LUM_EXPORT
#endif

#define LUM_NAME_SIZE 40               /**< bytes of a name field */
#define LUM_MAX_SERVICES 8             /**< services of a device */
#define LUM_MAX_DEVICES 4              /**< devices of one search */
#define LUM_MAX_CLIENTS 20             /**< clients of a process, and the highest client ID */
#define LUM_MAX_DEV_TYPE_LENGTH 40     /**< characters of a device type */
#define LUM_MAX_SERVICE_NAME_LENGTH 40 /**< characters of a service name */
#define LUM_MAX_CMD_LENGTH 400         /**< characters of a command, of its parameter, and of both together */
#define LUM_MAX_CLIENT_DATA_LENGTH 5242880 /**< bytes of one LUM_SendData */
#define LUM_MAX_SERVER_DATA_LENGTH 1024000 /**< bytes of one LUM_SendDataToClient */
#define LUM_MAX_CLIENT_TIMEOUT_MS 2000     /**< highest time-out of LUM_SendData */
#define LUM_MAX_SERVER_TIMEOUT_MS 3000     /**< highest time-out of LUM_SendDataToClient */
#define LUM_MIN_VERSION_BUFFER_LENGTH 64   /**< least bytes of a buffer for a version */

/** The transport kind of a service's data channel. Today every kind is carried over TCP. */
typedef enum LUM_TRANSPORT_E {
    LUM_TRANSPORT_NONE = 0,
    LUM_TRANSPORT_UDP = 1,
    LUM_TRANSPORT_TCP = 2,
    LUM_TRANSPORT_RTP = 3,
    LUM_TRANSPORT_RESERVED_4 = 4,
    LUM_TRANSPORT_RESERVED_5 = 5
} LUM_TRANSPORT_E;

/** The state that a transport reports. */
typedef enum LUM_TRANSPORT_STATUS_E {
    LUM_TRANSPORT_STATUS_UNKNOWN = 0,
    LUM_TRANSPORT_STATUS_BUSY = 1,
    LUM_TRANSPORT_STATUS_FREE = 2
} LUM_TRANSPORT_STATUS_E;

/** The events of a client event callback. */
typedef enum LUM_EVENT_E {
    LUM_EVENT_NONE = 0,
    LUM_EVENT_DEVICE_REMOVED = 1 /**< the device that the client was connected to has left the network */
} LUM_EVENT_E;

/** Values of LUM_DEVICE_EVENT_S.eventType. */
enum { LUM_DEVICE_EVENT_DATA = 2 };

/** Values of OnEventNotify's event code. */
enum {
    LUM_NOTIFY_SUBSCRIBED = 0,
    LUM_NOTIFY_UNSUBSCRIBED = 1 /**< cancelled, or the client went away: only the service name is set */
};

/** One named service of a device. */
typedef struct LUM_SERVICE_INFO_S {
    unsigned int outputLenBytes;     /**< length of the output that the service produces */
    char serviceName[LUM_NAME_SIZE]; /**< its name */
    LUM_TRANSPORT_E transport;       /**< 0 to 5 */
} LUM_SERVICE_INFO_S;

/**
 * A subscription. It is the parameter of the command "subscribe", passed to LUM_SendCmd as
 * (const char *)&subscription, and arrives in OnEventNotify. The command "unsubscribe" takes the plain
 * service name instead.
 */
typedef struct LUM_SUBSCRIBE_SERVICE_S {
    char serviceName[LUM_NAME_SIZE]; /**< the service */
    int dataSource;                  /**< 0 or 1 */
    int transport;                   /**< 0 to 5, a LUM_TRANSPORT_E */
} LUM_SUBSCRIBE_SERVICE_S;

/**
 * Called for each command of a client other than "subscribe" and "unsubscribe".
 *
 * @param cmd    the command's name
 * @param param  its parameter; may be empty, is never null
 */
typedef int (*LUM_COMMAND_CALLBACK)(const char* cmd, const char* param);

/**
 * Called when a client subscribes to a service, and when a subscription ends.
 *
 * @param clientID      the number that the client gave, see Identity
 * @param event         LUM_NOTIFY_SUBSCRIBED or LUM_NOTIFY_UNSUBSCRIBED
 * @param subscription  the subscription; if it ends, only its service name is set
 */
typedef int (*LUM_NOTIFY_CALLBACK)(int clientID, int event, LUM_SUBSCRIBE_SERVICE_S subscription);

/**
 * Called for each block that a client sent with LUM_SendData.
 *
 * @param clientID  the number that the client gave, 0 to 255, see Identity
 * @param data      the block, without a terminator
 * @param length    its length; may be 0
 */
typedef int (*LUM_DATA_CALLBACK)(int clientID, const char* data, unsigned int length);

/** One device and its services. The callbacks are set on the server side only. */
typedef struct LUM_DEVICE_INFO_S {
    unsigned int serviceNum;            /**< valid entries of serviceInfo, 1 to 8 on the server side */
    char devServiceType[LUM_NAME_SIZE]; /**< the device type: the text that LUM_InitServer got */
    LUM_SERVICE_INFO_S serviceInfo[LUM_MAX_SERVICES]; /**< the services */
    LUM_COMMAND_CALLBACK OnCommand;                   /**< commands */
    LUM_NOTIFY_CALLBACK OnEventNotify;                /**< subscriptions */
    LUM_DATA_CALLBACK OnData;                         /**< blocks */
} LUM_DEVICE_INFO_S;

/** The result of a search. */
typedef struct LUM_DEVICES_INFO_S {
    LUM_DEVICE_INFO_S devInfo[LUM_MAX_DEVICES]; /**< the devices */
    unsigned int devNum;                        /**< valid entries of devInfo */
} LUM_DEVICES_INFO_S;

/** What a device sent to one of its subscribers. */
typedef struct LUM_DEVICE_EVENT_S {
    int clientID;                    /**< the subscriber */
    unsigned int handle;             /**< the handle that the client is connected to, 0 if to none */
    char serviceName[LUM_NAME_SIZE]; /**< terminated */
    int eventType;                   /**< LUM_DEVICE_EVENT_DATA */
    int result;                      /**< 0 */
    unsigned int dataLen;            /**< bytes of data */
    char* data; /**< valid only during the callback; shared by all recipients, so it must not be changed */
} LUM_DEVICE_EVENT_S;

/**
 * Called when the connected device leaves the network.
 *
 * @param clientID  the client that was connected
 * @param event     LUM_EVENT_DEVICE_REMOVED
 */
typedef int (*LUM_EVENT_CALLBACK)(int clientID, LUM_EVENT_E event);

/**
 * Called for each block that the device sends to the client.
 *
 * @param event  the block and its service
 */
typedef int (*LUM_DEVICE_EVENT_CALLBACK)(LUM_DEVICE_EVENT_S event);

/**
 * @name Client side
 * @{
 */

/**
 * Makes this application a client.
 *
 * The first client of the process joins the network as a device of type devType. Later clients share the
 * first one's type.
 *
 * @param[out] clientID  receives the lowest free ID from 1 to 20
 * @param      devType   1 to 40 characters
 * @return 0, or -1
 * - if 20 clients exist; clientID then receives 0;
 * - if the network cannot be joined: the link platform does not start, its port or key file cannot be used,
 *   or liblumora.so leaves out an operation that is needed. The ID that was written then stays taken.
 *   LUM_DeInitClient with this ID gives it back; that call returns -1 because nothing was running.
 *
 * Waits for no device.
 */
LUM_EXPORT int LUM_InitClient(int* clientID, const char* devType);

/**
 * Ends a client and gives its ID back. The last client also closes the data channel, leaves the network and
 * frees everything.
 *
 * Does not tell the device: call LUM_DestoryAiDevice before.
 *
 * @param clientID  the client
 * @return 0, or -1 if the ID is not in use, or if the platform had not started or does not stop; the ID is
 *         then free as well.
 *
 * Waits for a callback in progress, whichever client it belongs to.
 */
LUM_EXPORT int LUM_DeInitClient(int clientID);

/**
 * Sets the callback that is called when the connected device leaves the network. It replaces an earlier one.
 *
 * Only the device of the process's last connection is watched. The callback is not called if the data channel
 * breaks first, as it does when the device's process ends.
 *
 * @param clientID  the client
 * @param callback  the callback
 * @return 0, or -1 if there is no such client.
 *
 * Waits for no device.
 */
LUM_EXPORT int LUM_RegisterEvent(int clientID, LUM_EVENT_CALLBACK callback);

/**
 * Searches the network for devices of a type, and asks one after the other for its services.
 *
 * Devices of the same type are told apart by a number behind the type: T, T1, T12 ... A search that found a
 * device replaces the devices of the search before. Handles stay.
 *
 * @param      devType   1 to 40 characters
 * @param[out] devsInfo  is cleared first, and then holds the first four devices that answered; devNum is 0 if
 *                       devices were found and none of them answered
 * @return 0, or -1 if no device was found. A failure keeps the devices of the search before.
 *
 * On our link platform a search takes 230 to 600 ms, the time of each answer, and 8 s at most for a device
 * that does not answer. Such a device comes last for two minutes and costs 0.5 s.
 */
LUM_EXPORT int LUM_GetAiDeviceList(const char* devType, LUM_DEVICES_INFO_S* devsInfo);

/**
 * Gives the handle of a device that the last search listed. All clients of the process have the same handle
 * for a device, unless a smaller number has become free since: later calls then give that one.
 *
 * @param      clientID  the client
 * @param      devType   the devServiceType of the device's entry, 1 to 40 characters
 * @param[out] handle    receives the handle
 * @return 0, or -1 if there is no such client, or if the last search did not list the type.
 *
 * Waits for no device.
 */
LUM_EXPORT int LUM_CreateAiDevice(int clientID, const char* devType, unsigned int* handle);

/**
 * Sets the callback that receives the blocks that devices send to this client, whichever handle it is
 * connected to.
 *
 * The first callback stays until the client ends: a later call succeeds and changes nothing. Register before
 * subscribing: a block for a client without a callback does not reach the subscribers behind it either.
 *
 * @param clientID  the client
 * @param handle    a handle of LUM_CreateAiDevice
 * @param callback  the callback
 * @return 0, or -1 if there is no such client or handle.
 *
 * Waits for no device.
 */
LUM_EXPORT int LUM_RegisterAiDeviceEvent(int clientID, unsigned int handle,
                                         LUM_DEVICE_EVENT_CALLBACK callback);

/**
 * Connects the client to the device. Connecting twice succeeds and does nothing.
 *
 * The first client on a handle opens the data channel, which uses the TCP ports 6666 (on the device) and 6667
 * (here). A process has one data channel at a time: opening one closes the channel to another device.
 *
 * A channel that breaks is not reported: from then on the calls that need the device fail, and the device has
 * to be searched for again. This side closes a channel if a send makes no progress, if another device is
 * connected to, or if the last step of connecting fails. It does not open such a channel again before the
 * device has left or the last client has ended, though connecting succeeds. docs/guide.md has a program that
 * recovers.
 *
 * @param clientID  the client
 * @param handle    the device
 * @return 0, or -1 if there is no such client, handle or device, if port 6667 is taken, if the device refuses
 *         or does not answer, or if its port cannot be reached. The channel to another device is closed by
 *         then. If a channel to this device was open for other clients, it may be closed too.
 *
 * Waits for a callback in progress on the former channel, and for the device: 8 s at most to set up, 8 s to
 * connect, 60 s for the request after that.
 */
LUM_EXPORT int LUM_ConnectAiDevice(int clientID, unsigned int handle);

/**
 * Ends the client's connection on this side only.
 *
 * The device is not told: the data channel stays, and so do subscriptions. Their blocks still reach the
 * client's callback, with handle 0. LUM_ConnectAiDevice connects again.
 *
 * @param clientID  the client
 * @param handle    the device
 * @return 0, or -1 if there is no such client or handle, or if the client is not connected.
 *
 * Waits for no device.
 */
LUM_EXPORT int LUM_DisconnectAiDevice(int clientID, unsigned int handle);

/**
 * Tells the device that this client is gone. The device cancels the client's subscriptions.
 *
 * If it was the last client on the device, the device closes the data channel; the handle is then gone, and
 * the device has to be searched for again. Otherwise the handle stays. The client counts as connected here
 * until LUM_DisconnectAiDevice, after which LUM_ConnectAiDevice announces it again.
 *
 * @param clientID  the client
 * @param handle    the device
 * @return 0, or -1 if there is no such client, handle or device, if the device does not know the client, or
 *         if it does not answer.
 *
 * Waits until the device has what its last client here has sent, 10 s at most; then for its answer, 60 s.
 */
LUM_EXPORT int LUM_DestoryAiDevice(int clientID, unsigned int handle);

/**
 * Sends a command to the device that the client is connected to.
 *
 * Success means that the device's OnCommand or OnEventNotify has returned, or that none was registered. The
 * device's application does not answer; it sends what it has to say as data. The whole message must fit into
 * 1,022 characters: texts that need escaping in JSON take more room.
 *
 * @param clientID  the client
 * @param handle    the device
 * @param cmd       1 to 400 characters
 * @param param     0 to 400 characters, at most 400 together with cmd. For "subscribe" it is a
 *                  LUM_SUBSCRIBE_SERVICE_S, for "unsubscribe" the service's name
 * @return 0, or -1 if the client is not connected to the handle, if the device has left, refuses (no such
 *         service; not subscribed) or does not answer. If it did not answer, the command may have run.
 *
 * Waits for the device and its callback: 60 s at most.
 */
LUM_EXPORT int LUM_SendCmd(int clientID, unsigned int handle, const char* cmd, const char* param);

/**
 * Subscribes the client to a service of the device that it is connected to, over TCP and with data source 0.
 *
 * The device then sends the service's blocks to the callback of LUM_RegisterAiDeviceEvent. LUM_SendCmd with
 * "unsubscribe" and the name ends that. Use this rather than LUM_SendCmd with "subscribe": that one reads a
 * whole LUM_SUBSCRIBE_SERVICE_S at param, and compiles with a mere text as well.
 *
 * @param clientID     the client
 * @param handle       the device
 * @param serviceName  1 to 39 characters
 * @return as LUM_SendCmd; -1 also for a longer name, which is not logged.
 *
 * Waits as LUM_SendCmd does.
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

/**
 * Sends one block on the handle's data channel.
 *
 * Success means that sendLength bytes were handed to the network, not that the device has them. A short
 * sendLength, 0 included, means that the channel is closed and the block is lost.
 *
 * @param      clientID    the client
 * @param      handle      the device
 * @param      data        the block; needs to be valid only during the call
 * @param      length      1 to 5,242,880 bytes
 * @param[out] sendLength  receives the number of bytes. Read it only after a success: a failure writes 0 or
 *                         leaves it alone
 * @param      timeoutMs   0 to 2000; it does not change the limit, which is half a second without any
 *                         progress
 * @return 0, or -1 if there is no such client, handle or device, if no channel is open, or if it broke.
 *
 * Waits while the device reads, however slowly; callbacks are called meanwhile.
 */
LUM_EXPORT int LUM_SendData(int clientID, unsigned int handle, const void* data, unsigned int length,
                            unsigned int* sendLength, unsigned int timeoutMs);

/**
 * Gives the version of this library.
 *
 * @param      clientID  the client
 * @param[out] buff      receives the version, terminated
 * @param      buffLen   its size, 64 or more
 * @return 0, or -1 if there is no such client.
 *
 * Waits for nothing.
 */
LUM_EXPORT int LUM_GetClientVersion(int clientID, char* buff, unsigned int buffLen);

/**
 * Asks the device for the version of its library. The client need not be connected.
 *
 * @param      clientID  the client
 * @param      handle    the device
 * @param[out] buff      receives the version, terminated
 * @param      buffLen   its size, 64 or more
 * @return 0, or -1 if there is no such client, handle or device, if the device does not answer, or if the
 *         version does not fit.
 *
 * Waits only for another request to the same device, and for the device: 8 s at most.
 */
LUM_EXPORT int LUM_GetServerVersion(int clientID, unsigned int handle, char* buff, unsigned int buffLen);

/**
 * @}
 * @name Server side
 * @{
 */

/**
 * Makes this process a device that clients can find. A second call succeeds and changes nothing.
 *
 * Call LUM_RegisterAiDevInfo at once: without it the device is found but not listed.
 *
 * @param devType  1 to 40 characters
 * @return 0, or -1 if the network cannot be joined, for the causes of LUM_InitClient. The call may then be
 *         repeated. The type of the first call stays: a repetition with another type is found under the first
 *         one, or under the one that LUM_RegisterAiDevInfo set since.
 *
 * Waits for a request in progress, if there is one.
 */
LUM_EXPORT int LUM_InitServer(const char* devType);

/**
 * Sets the device's services and callbacks.
 *
 * Replaces an earlier registration and drops its subscriptions without telling; an open data channel keeps
 * its OnData.
 *
 * @param devInfo  1 to 8 services, each with a transport of 0 to 5, and all three callbacks; the record is
 *                 copied
 * @return 0, or -1
 * - if LUM_InitServer was not called;
 * - if the description of the services exceeds 1,024 characters, which only names with characters that JSON
 *   escapes can reach. The earlier registration is then replaced all the same, and searches do not list the
 *   device until a registration succeeds.
 *
 * Waits for a request in progress with its callback.
 */
LUM_EXPORT int LUM_RegisterAiDevInfo(const LUM_DEVICE_INFO_S* devInfo);

/**
 * Sends one block to every client that subscribed to the service. May be called from OnData.
 *
 * Success means that sendLength bytes were handed to the network, not that a client has them. A short
 * sendLength means that the channel is closed and the block is lost. It is 0 once the client has closed its
 * connection. A service without subscribers is no failure.
 *
 * @param      serviceName  1 to 39 characters
 * @param      data         the block; needs to be valid only during the call
 * @param      dataLen      1 to 1,024,000 bytes
 * @param[out] sendLength   receives the number of bytes. Read it only after a success: a failure writes 0 or
 *                          leaves it alone
 * @param      timeoutMs    above 3000 means 3000; it does not change the limit, which is half a second
 *                          without any progress
 * @return 0, or -1
 * - if no client has opened a data channel, or if it broke;
 * - if there is no such service;
 * - if too many clients subscribed: 93 less the length of the name fit, and a client process reads no block
 *   for more than 20;
 * - in OnData, while another thread ends the channel.
 *
 * Waits while the client reads, however slowly; requests are served meanwhile.
 */
LUM_EXPORT int LUM_SendDataToClient(const char* serviceName, const void* data, unsigned int dataLen,
                                    unsigned int* sendLength, unsigned int timeoutMs);

/**
 * Closes the data channel, leaves the network and frees everything. Succeeds if there is no device.
 *
 * @return 0, or -1 after a failed LUM_InitServer, because nothing is running, and if the platform does not
 *         stop. A failure frees nothing; LUM_InitServer may be called again.
 *
 * Waits for a request in progress with its callback, and for OnData.
 */
LUM_EXPORT int LUM_DeInitServer(void);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
