"""Finds AI devices on the local network and exchanges commands and data with them, or is one.

    with lumora.Client() as client:
        client.connect("echo-device")
        echoes = client.subscribe("echo")
        client.send(b"hello")
        print(echoes.get(timeout=10).data)
"""

from ._client import Block, Client, Subscription
from ._device import Command, Data, Device, Event, Subscribed, Unsubscribed
from ._errors import (
    Closed,
    CommandRefused,
    ConnectFailed,
    ConnectionLost,
    DeviceExists,
    DeviceLeft,
    DeviceNotFound,
    Error,
    JoinFailed,
    LibraryNotFound,
    NoClient,
    NotConnected,
    QueueOverflow,
    ReceiveTimeout,
    RegistrationFailed,
    SendFailed,
    SendIncomplete,
    SubscriptionRefused,
    TooManyClients,
    VersionUnknown,
)
from ._inbox import Overflow
from ._library import Peer
from ._services import DeviceInfo, Service, Transport

__version__ = "1.1.1"

__all__ = [
    "Block",
    "Client",
    "Closed",
    "Command",
    "CommandRefused",
    "ConnectFailed",
    "ConnectionLost",
    "Data",
    "Device",
    "DeviceExists",
    "DeviceInfo",
    "DeviceLeft",
    "DeviceNotFound",
    "Error",
    "Event",
    "JoinFailed",
    "LibraryNotFound",
    "NoClient",
    "NotConnected",
    "Overflow",
    "Peer",
    "QueueOverflow",
    "ReceiveTimeout",
    "RegistrationFailed",
    "SendFailed",
    "SendIncomplete",
    "Service",
    "Subscribed",
    "Subscription",
    "SubscriptionRefused",
    "TooManyClients",
    "Transport",
    "Unsubscribed",
    "VersionUnknown",
]
