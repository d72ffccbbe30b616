"""The limits, records and callback types of include/lumora.h, under their names in C."""

from __future__ import annotations

import ctypes

LUM_NAME_SIZE = 40
LUM_MAX_SERVICES = 8
LUM_MAX_DEVICES = 4
LUM_MAX_CLIENTS = 20
LUM_MAX_CMD_LENGTH = 400
LUM_MAX_CLIENT_DATA_LENGTH = 5242880
LUM_MAX_SERVER_DATA_LENGTH = 1024000
LUM_MAX_CLIENT_TIMEOUT_MS = 2000
LUM_MAX_SERVER_TIMEOUT_MS = 3000
LUM_MIN_VERSION_BUFFER_LENGTH = 64

LUM_TRANSPORT_NONE = 0
LUM_TRANSPORT_UDP = 1
LUM_TRANSPORT_TCP = 2
LUM_TRANSPORT_RTP = 3
LUM_TRANSPORT_RESERVED_4 = 4
LUM_TRANSPORT_RESERVED_5 = 5

LUM_EVENT_DEVICE_REMOVED = 1

LUM_NOTIFY_SUBSCRIBED = 0
LUM_NOTIFY_UNSUBSCRIBED = 1


class LUM_SERVICE_INFO_S(ctypes.Structure):
    _fields_ = [
        ("outputLenBytes", ctypes.c_uint),
        ("serviceName", ctypes.c_char * LUM_NAME_SIZE),
        ("transport", ctypes.c_int),
    ]


class LUM_SUBSCRIBE_SERVICE_S(ctypes.Structure):
    _fields_ = [
        ("serviceName", ctypes.c_char * LUM_NAME_SIZE),
        ("dataSource", ctypes.c_int),
        ("transport", ctypes.c_int),
    ]


# A callback's result is not used. Data is a plain address: it is no text, and has no terminator.
LUM_COMMAND_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p)
LUM_NOTIFY_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_int, LUM_SUBSCRIBE_SERVICE_S)
LUM_DATA_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_uint)


class LUM_DEVICE_INFO_S(ctypes.Structure):
    _fields_ = [
        ("serviceNum", ctypes.c_uint),
        ("devServiceType", ctypes.c_char * LUM_NAME_SIZE),
        ("serviceInfo", LUM_SERVICE_INFO_S * LUM_MAX_SERVICES),
        ("OnCommand", LUM_COMMAND_CALLBACK),
        ("OnEventNotify", LUM_NOTIFY_CALLBACK),
        ("OnData", LUM_DATA_CALLBACK),
    ]


class LUM_DEVICES_INFO_S(ctypes.Structure):
    _fields_ = [
        ("devInfo", LUM_DEVICE_INFO_S * LUM_MAX_DEVICES),
        ("devNum", ctypes.c_uint),
    ]


class LUM_DEVICE_EVENT_S(ctypes.Structure):
    _fields_ = [
        ("clientID", ctypes.c_int),
        ("handle", ctypes.c_uint),
        ("serviceName", ctypes.c_char * LUM_NAME_SIZE),
        ("eventType", ctypes.c_int),
        ("result", ctypes.c_int),
        ("dataLen", ctypes.c_uint),
        ("data", ctypes.c_void_p),
    ]


LUM_EVENT_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_int)
LUM_DEVICE_EVENT_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, LUM_DEVICE_EVENT_S)

RECORDS = (
    LUM_SERVICE_INFO_S,
    LUM_SUBSCRIBE_SERVICE_S,
    LUM_DEVICE_INFO_S,
    LUM_DEVICES_INFO_S,
    LUM_DEVICE_EVENT_S,
)

# The arguments of the exported functions; each returns 0, or -1 when it failed.
_INT = ctypes.c_int
_UINT = ctypes.c_uint
_TEXT = ctypes.c_char_p
_BYTES = ctypes.c_void_p
_UINT_OUT = ctypes.POINTER(ctypes.c_uint)
FUNCTIONS = {
    "LUM_InitClient": (ctypes.POINTER(ctypes.c_int), _TEXT),
    "LUM_DeInitClient": (_INT,),
    "LUM_RegisterEvent": (_INT, LUM_EVENT_CALLBACK),
    "LUM_GetAiDeviceList": (_TEXT, ctypes.POINTER(LUM_DEVICES_INFO_S)),
    "LUM_CreateAiDevice": (_INT, _TEXT, _UINT_OUT),
    "LUM_RegisterAiDeviceEvent": (_INT, _UINT, LUM_DEVICE_EVENT_CALLBACK),
    "LUM_ConnectAiDevice": (_INT, _UINT),
    "LUM_DisconnectAiDevice": (_INT, _UINT),
    "LUM_DestoryAiDevice": (_INT, _UINT),
    # The parameter is a text, or the record of a subscription.
    "LUM_SendCmd": (_INT, _UINT, _TEXT, _BYTES),
    "LUM_SendData": (_INT, _UINT, _BYTES, _UINT, _UINT_OUT, _UINT),
    "LUM_GetClientVersion": (_INT, _TEXT, _UINT),
    "LUM_GetServerVersion": (_INT, _UINT, _TEXT, _UINT),
    "LUM_InitServer": (_TEXT,),
    "LUM_RegisterAiDevInfo": (ctypes.POINTER(LUM_DEVICE_INFO_S),),
    "LUM_SendDataToClient": (_TEXT, _BYTES, _UINT, _UINT_OUT, _UINT),
    "LUM_DeInitServer": (),
}
