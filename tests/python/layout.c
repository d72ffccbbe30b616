/* What the compiler makes of the public header, for comparison with the Python package. */
#include <lumora.h>
#include <stddef.h>
#include <stdio.h>

#define CONSTANT(name) printf("constant " #name " %d\n", (int)(name))
#define RECORD(type) printf("record " #type " %zu\n", sizeof(type))
#define FIELD(type, field) \
    printf("field " #type " " #field " %zu %zu\n", offsetof(type, field), sizeof(((type*)0)->field))

int main(void) {
    CONSTANT(LUM_NAME_SIZE);
    CONSTANT(LUM_MAX_SERVICES);
    CONSTANT(LUM_MAX_DEVICES);
    CONSTANT(LUM_MAX_CLIENTS);
    CONSTANT(LUM_MAX_CMD_LENGTH);
    CONSTANT(LUM_MAX_CLIENT_DATA_LENGTH);
    CONSTANT(LUM_MAX_SERVER_DATA_LENGTH);
    CONSTANT(LUM_MAX_CLIENT_TIMEOUT_MS);
    CONSTANT(LUM_MAX_SERVER_TIMEOUT_MS);
    CONSTANT(LUM_MIN_VERSION_BUFFER_LENGTH);
    CONSTANT(LUM_TRANSPORT_NONE);
    CONSTANT(LUM_TRANSPORT_UDP);
    CONSTANT(LUM_TRANSPORT_TCP);
    CONSTANT(LUM_TRANSPORT_RTP);
    CONSTANT(LUM_TRANSPORT_RESERVED_4);
    CONSTANT(LUM_TRANSPORT_RESERVED_5);
    CONSTANT(LUM_EVENT_DEVICE_REMOVED);
    CONSTANT(LUM_NOTIFY_SUBSCRIBED);
    CONSTANT(LUM_NOTIFY_UNSUBSCRIBED);

    RECORD(LUM_SERVICE_INFO_S);
    FIELD(LUM_SERVICE_INFO_S, outputLenBytes);
    FIELD(LUM_SERVICE_INFO_S, serviceName);
    FIELD(LUM_SERVICE_INFO_S, transport);

    RECORD(LUM_SUBSCRIBE_SERVICE_S);
    FIELD(LUM_SUBSCRIBE_SERVICE_S, serviceName);
    FIELD(LUM_SUBSCRIBE_SERVICE_S, dataSource);
    FIELD(LUM_SUBSCRIBE_SERVICE_S, transport);

    RECORD(LUM_DEVICE_INFO_S);
    FIELD(LUM_DEVICE_INFO_S, serviceNum);
    FIELD(LUM_DEVICE_INFO_S, devServiceType);
    FIELD(LUM_DEVICE_INFO_S, serviceInfo);
    FIELD(LUM_DEVICE_INFO_S, OnCommand);
    FIELD(LUM_DEVICE_INFO_S, OnEventNotify);
    FIELD(LUM_DEVICE_INFO_S, OnData);

    RECORD(LUM_DEVICES_INFO_S);
    FIELD(LUM_DEVICES_INFO_S, devInfo);
    FIELD(LUM_DEVICES_INFO_S, devNum);

    RECORD(LUM_DEVICE_EVENT_S);
    FIELD(LUM_DEVICE_EVENT_S, clientID);
    FIELD(LUM_DEVICE_EVENT_S, handle);
    FIELD(LUM_DEVICE_EVENT_S, serviceName);
    FIELD(LUM_DEVICE_EVENT_S, eventType);
    FIELD(LUM_DEVICE_EVENT_S, result);
    FIELD(LUM_DEVICE_EVENT_S, dataLen);
    FIELD(LUM_DEVICE_EVENT_S, data);
    return 0;
}
