"""A device, and the events that clients cause."""

from __future__ import annotations

import ctypes
import threading
from dataclasses import dataclass
from typing import Any, Callable, Dict, FrozenSet, Iterable, Optional, Tuple, Union

from . import _lifetime, _records
from ._errors import (
    Closed,
    DeviceExists,
    JoinFailed,
    NoClient,
    RegistrationFailed,
    SendFailed,
    SendIncomplete,
)
from ._inbox import Inbox, Overflow
from ._library import (
    Peer,
    block_argument,
    channel_peer,
    library,
    milliseconds,
    name_argument,
    text_of,
)
from ._services import Service, Transport
from ._taking import Taking


@dataclass(frozen=True)
class Data:
    """A block that a client sent; it may be empty."""

    client: int
    data: bytes

    def __repr__(self) -> str:
        return f"Data(client={self.client}, {len(self.data)} bytes)"


@dataclass(frozen=True)
class Command:
    """A client's command; the parameter may be empty."""

    name: str
    parameter: str


@dataclass(frozen=True)
class Subscribed:
    """A client has subscribed to a service."""

    client: int
    service: str


@dataclass(frozen=True)
class Unsubscribed:
    """A subscription has ended, or its client has left."""

    client: int
    service: str


Event = Union[Data, Command, Subscribed, Unsubscribed]


class Device(Taking[Event]):
    """A device of this type with 1 to 8 services; a process is at most one.

    Appears in the network at once and leaves it by close(), at the end of a with statement or, at the latest,
    when the interpreter ends. What clients do is iterated over, asynchronously as well, and ends when the
    device is closed; or `on_event` is called, on a thread of the device, for one event after the other.
    Any thread may call any method, also `on_event`.

    Blocks wait in a queue of `max_blocks` and `max_bytes`; `overflow` says what happens when it is full. It
    never drops commands and subscriptions for blocks; of them 1,024 can wait, and more are dropped.
    """

    def __init__(
        self,
        device_type: str,
        services: Iterable[Union[str, Service]],
        on_event: Optional[Callable[[Event], object]] = None,
        *,
        max_blocks: int = 64,
        max_bytes: int = 64 * 1024 * 1024,
        overflow: Overflow = Overflow.DROP_OLDEST,
    ) -> None:
        self._services = tuple(entry if isinstance(entry, Service) else Service(entry) for entry in services)
        record = _record(device_type, self._services)
        self._type = device_type
        super().__init__(Inbox(max_blocks, max_bytes, overflow))
        self._subscribers: Dict[str, FrozenSet[int]] = {}
        self._lock = threading.RLock()  # no callback of the library takes it
        self._closed = False
        self._has_left = False
        _start(self, record)
        if on_event is not None:
            self._start_calling(on_event, device_type)

    @property
    def type(self) -> str:
        return self._type

    @property
    def services(self) -> Tuple[Service, ...]:
        return self._services

    @property
    def peer(self) -> Peer:
        """Whether the data channel is private, and with whom."""
        return channel_peer(as_device=True)

    def subscribers(self, service: str) -> FrozenSet[int]:
        """The clients that are subscribed to this service, also if the event has not been taken yet."""
        return self._subscribers.get(service, frozenset())

    def send(self, service: str, data: Any, timeout: float = 3.0) -> None:
        """Sends one block of 1 to 1,024,000 bytes to every subscriber of the service.

        The block is bytes or whatever else has a buffer, `timeout` is up to 3 seconds. Raises NoClient when
        no client is connected, or its connection has ended; a block without subscribers is no failure.
        """
        name = name_argument("the service", service)
        pointer, length = block_argument(data, _records.LUM_MAX_SERVER_DATA_LENGTH)
        limit = milliseconds(timeout, _records.LUM_MAX_SERVER_TIMEOUT_MS)
        if service not in (known.name for known in self._services):
            raise ValueError(f'this device has no service "{service}"')
        self._require_open()
        sent = ctypes.c_uint(0)
        result = library().LUM_SendDataToClient(name, pointer, length, ctypes.byref(sent), limit)
        if result != 0:
            self._require_open()
            failure = SendFailed if any(self._subscribers.values()) else NoClient
            raise failure("the block reached no client", "LUM_SendDataToClient", result)
        if sent.value == 0:
            raise NoClient("the connection to the client has ended", "LUM_SendDataToClient", result)
        if sent.value != length:
            raise SendIncomplete(
                f"only {sent.value} of {length} bytes were taken", "LUM_SendDataToClient", result, sent.value
            )

    def close(self) -> None:
        """Leaves the network; events that were not taken are dropped. Waits for `on_event` in progress."""
        self._leave()
        self._end_calling()

    def __enter__(self) -> Device:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _require_open(self) -> None:
        if self._closed:
            raise Closed("the device has been closed")

    def _leave(self) -> None:
        global _device
        self._closed = True
        self._inbox.close(Closed("the device has been closed"))
        # An interrupt may come between any two of these: the next attempt repeats them.
        with self._lock:
            if self._has_left:
                return
            library().LUM_DeInitServer()
            self._has_left = True
            _device = None
            _lifetime.closed(self)

    def _close_at_exit(self) -> None:
        self._leave()

    def _forget_in_child(self) -> None:
        global _device, _starting
        self._closed = self._has_left = True
        self._lock = threading.RLock()  # a thread that held it does not exist here
        _starting = threading.Lock()
        self._inbox.close_in_child(Closed("the device has been closed"))
        _device = None


# ---- The library calls these on its threads, which must not wait: each call only queues an event. The
# ---- callbacks have no argument for an object, but a process is at most one device.

_device: Optional[Device] = None
_starting = threading.Lock()


def _on_command(name: bytes, parameter: bytes) -> int:
    device = _device
    if device is not None:
        device._inbox.put_note(Command(text_of(name), text_of(parameter)))
    return 0


def _on_event_notify(client: int, event: int, subscription: Any) -> int:
    device = _device
    if device is None:
        return 0
    service = text_of(subscription.serviceName)
    # The library calls this for one client after the other.
    if event == _records.LUM_NOTIFY_SUBSCRIBED:
        device._subscribers[service] = device.subscribers(service) | {client}
        device._inbox.put_note(Subscribed(client, service))
    else:
        device._subscribers[service] = device.subscribers(service) - {client}
        device._inbox.put_note(Unsubscribed(client, service))
    return 0


def _on_data(client: int, data: Optional[int], length: int) -> int:
    device = _device
    if device is not None:
        # The bytes are there only until this returns.
        device._inbox.put_block(Data(client, ctypes.string_at(data, length) if data else b""), length)
    return 0


_ON_COMMAND = _records.LUM_COMMAND_CALLBACK(_on_command)
_ON_EVENT_NOTIFY = _records.LUM_NOTIFY_CALLBACK(_on_event_notify)
_ON_DATA = _records.LUM_DATA_CALLBACK(_on_data)


def _record(device_type: str, services: Tuple[Service, ...]) -> _records.LUM_DEVICE_INFO_S:
    record = _records.LUM_DEVICE_INFO_S()
    if not 1 <= len(services) <= _records.LUM_MAX_SERVICES:
        raise ValueError(f"a device has 1 to {_records.LUM_MAX_SERVICES} services, not {len(services)}")
    record.serviceNum = len(services)
    record.devServiceType = name_argument("the device type", device_type)
    for entry, service in zip(record.serviceInfo, services):
        if not 0 <= service.output_length <= 0x7FFFFFFF:
            raise ValueError(f"the length of an output is no {service.output_length}")
        entry.outputLenBytes = service.output_length
        entry.serviceName = name_argument("the service", service.name)
        entry.transport = int(Transport(service.transport))
    record.OnCommand = _ON_COMMAND
    record.OnEventNotify = _ON_EVENT_NOTIFY
    record.OnData = _ON_DATA
    return record


def _start(device: Device, record: _records.LUM_DEVICE_INFO_S) -> None:
    global _device
    with _starting:
        if _device is not None:
            raise DeviceExists("this process is a device already; close that one first")
        result = library().LUM_InitServer(record.devServiceType)
        if result != 0:
            library().LUM_DeInitServer()
            raise JoinFailed("the network cannot be joined", "LUM_InitServer", result)
        _device = device
        _lifetime.opened(device)
        result = library().LUM_RegisterAiDevInfo(ctypes.byref(record))
        if result != 0:
            device._leave()
            raise RegistrationFailed("the services cannot be registered", "LUM_RegisterAiDevInfo", result)
