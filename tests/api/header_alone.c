/* The public header as a C99 program sees it: nothing in front of it, and twice. */
#include "lumora.h"

/* An array of no or of negative size does not compile. */
#define HOLDS(name, condition) typedef char name[(condition) ? 1 : -1]

HOLDS(transport_kind_has_32_bits, sizeof(LUM_TRANSPORT_E) == 4);
HOLDS(transport_status_has_32_bits, sizeof(LUM_TRANSPORT_STATUS_E) == 4);
HOLDS(event_has_32_bits, sizeof(LUM_EVENT_E) == 4);
HOLDS(service_record, sizeof(LUM_SERVICE_INFO_S) == 48);
HOLDS(subscription_record, sizeof(LUM_SUBSCRIBE_SERVICE_S) == 48);
HOLDS(device_record, sizeof(LUM_DEVICE_INFO_S) >= 428 + 3 * sizeof(LUM_COMMAND_CALLBACK));
HOLDS(devices_record, sizeof(LUM_DEVICES_INFO_S) >= 4 * sizeof(LUM_DEVICE_INFO_S) + 4);

/* Every function, by the type that callers have been promised. */
struct AllFunctions {
    int (*initClient)(int*, const char*);
    int (*deInitClient)(int);
    int (*registerEvent)(int, int (*)(int, LUM_EVENT_E));
    int (*getAiDeviceList)(const char*, LUM_DEVICES_INFO_S*);
    int (*createAiDevice)(int, const char*, unsigned int*);
    int (*registerAiDeviceEvent)(int, unsigned int, int (*)(LUM_DEVICE_EVENT_S));
    int (*connectAiDevice)(int, unsigned int);
    int (*disconnectAiDevice)(int, unsigned int);
    int (*destoryAiDevice)(int, unsigned int);
    int (*sendCmd)(int, unsigned int, const char*, const char*);
    int (*sendData)(int, unsigned int, const void*, unsigned int, unsigned int*, unsigned int);
    int (*getClientVersion)(int, char*, unsigned int);
    int (*getServerVersion)(int, unsigned int, char*, unsigned int);
    int (*initServer)(const char*);
    int (*registerAiDevInfo)(const LUM_DEVICE_INFO_S*);
    int (*sendDataToClient)(const char*, const void*, unsigned int, unsigned int*, unsigned int);
    int (*deInitServer)(void);
};

extern const struct AllFunctions lumora_all_functions;
const struct AllFunctions lumora_all_functions = {
    LUM_InitClient,       LUM_DeInitClient,       LUM_RegisterEvent,
    LUM_GetAiDeviceList,  LUM_CreateAiDevice,     LUM_RegisterAiDeviceEvent,
    LUM_ConnectAiDevice,  LUM_DisconnectAiDevice, LUM_DestoryAiDevice,
    LUM_SendCmd,          LUM_SendData,           LUM_GetClientVersion,
    LUM_GetServerVersion, LUM_InitServer,         LUM_RegisterAiDevInfo,
    LUM_SendDataToClient, LUM_DeInitServer};
