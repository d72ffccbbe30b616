"""An application that uses a device."""

from __future__ import annotations

import ctypes
import errno
import socket
import threading
import time
from dataclasses import dataclass
from typing import Any, Callable, Dict, List, NoReturn, Optional, Tuple, Type, Union

from . import _lifetime, _records
from ._errors import (
    Closed,
    CommandRefused,
    ConnectFailed,
    ConnectionLost,
    DeviceLeft,
    DeviceNotFound,
    Error,
    JoinFailed,
    NotConnected,
    SendFailed,
    SendIncomplete,
    SubscriptionRefused,
    TooManyClients,
    VersionUnknown,
)
from ._inbox import Inbox, Overflow
from ._library import (
    Peer,
    block_argument,
    channel_peer,
    library,
    milliseconds,
    name_argument,
    text_argument,
    text_of,
)
from ._services import DeviceInfo, Service, Transport
from ._taking import Taking

# The library has no event for a broken connection; calls that need the device fail from then on.
_CHECK_INTERVAL = 2.0
_RECONNECT_PAUSE = 0.5
_SEARCH_PAUSE = 0.1
_CLIENT_PORT = 6667
_CONNECTION_ENDED = "the connection to the device has ended"


@dataclass(frozen=True)
class Block:
    """What the device sent to the subscribers of a service."""

    service: str
    data: bytes

    def __repr__(self) -> str:
        return f"Block(service={self.service!r}, {len(self.data)} bytes)"


class Subscription(Taking[Block]):
    """The blocks of one service: an iterator, asynchronous as well, that ends when it is closed.

    When the connection to the device ends, what has come can still be taken; then ConnectionLost is raised.
    Several threads and coroutines may take blocks; each block goes to one of them.
    """

    def __init__(self, client: Client, service: str, inbox: Inbox[Block]) -> None:
        super().__init__(inbox)
        self._client = client
        self._service = service

    @property
    def service(self) -> str:
        return self._service

    def close(self) -> None:
        """Ends the iteration; blocks that were not taken are dropped. Waits for a callback in progress."""
        self._inbox.close(Closed("the subscription has been closed"))
        self._client._unsubscribe(self)
        self._end_calling()

    def __enter__(self) -> Subscription:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Client:
    """A client of one device: finds it, connects to it, sends it commands and blocks, takes what it sends.

    Joins the network at once and leaves it by close(), at the end of a with statement or, at the latest, when
    the interpreter ends. `name` is the type under which this host appears to others. Any thread may call any
    method; callbacks may, too, because they run on threads of this package.

    With `reconnect`, a connection that is lost is opened again: a thread of the client searches for a device
    of the same type that has the services subscribed to, connects and subscribes again. The subscriptions go
    on; what was sent meanwhile is lost. Until then the other methods raise ConnectionLost. The client may get
    another `id` by that.
    """

    def __init__(self, name: str = "lumora-python", *, reconnect: bool = False) -> None:
        self._lock = threading.RLock()  # guards what changes by calls; no callback of the library takes it
        self._subscriptions: Tuple[Subscription, ...] = ()  # replaced, never changed
        self._handle = 0
        self._lost: Optional[ConnectionLost] = None
        self._reconnect = reconnect
        self._type = ""  # the type of the device to connect to again
        self._broken = False  # this side has closed the channel
        self._closed = False
        self._has_left = False
        self._watch: Optional[threading.Thread] = None
        self._watch_wakes = threading.Event()
        self._name = name_argument("the client's name", name)
        self._enter()
        _lifetime.opened(self)

    @property
    def id(self) -> int:
        """The number by which the device knows this client."""
        return self._id

    @property
    def is_connected(self) -> bool:
        return self._handle != 0 and self._lost is None and not self._closed

    @property
    def peer(self) -> Peer:
        """Whether the data channel is private, and with whom. The clients of a process share one channel."""
        return channel_peer(as_device=False) if self.is_connected else Peer()

    def find(self, device_type: str, timeout: float = 2.0) -> List[DeviceInfo]:
        """Searches until devices of this type answer, up to four; DeviceNotFound if none does in time."""
        self._require_open()
        wanted = name_argument("the device type", device_type)
        deadline = time.monotonic() + timeout
        found = _records.LUM_DEVICES_INFO_S()
        while True:
            result = library().LUM_GetAiDeviceList(wanted, ctypes.byref(found))
            if result == 0 and found.devNum != 0:
                return [_device_info(found.devInfo[i], device_type) for i in range(found.devNum)]
            self._require_open()
            if time.monotonic() >= deadline:
                raise DeviceNotFound(f'no device of type "{device_type}"', "LUM_GetAiDeviceList", result)
            time.sleep(_SEARCH_PAUSE)

    def connect(self, device: Union[str, DeviceInfo], timeout: float = 2.0) -> DeviceInfo:
        """Connects to a device that find() returned, or to the first of a type that answers a search."""
        with self._lock:
            self._require_open()
            if self.is_connected:
                raise ConnectFailed("this client is connected already; use another one")
            if self._broken:
                self._enter_again()
                device = device if isinstance(device, str) else device.searched or device.type
            chosen = self.find(device, timeout)[0] if isinstance(device, str) else device
            device_type = name_argument("the device type", chosen.type)
            self._end_subscriptions()
            self._connect(device_type)
            self._type = chosen.searched or chosen.type
            if self._reconnect:
                self._start_watch()
            return chosen

    def subscribe(
        self,
        service: str,
        on_block: Optional[Callable[[Block], object]] = None,
        *,
        max_blocks: int = 64,
        max_bytes: int = 64 * 1024 * 1024,
        overflow: Overflow = Overflow.DROP_OLDEST,
    ) -> Subscription:
        """What the device sends for a service: iterate over the result, or let `on_block` be called.

        Blocks wait in a queue of `max_blocks` and `max_bytes`; `overflow` says what happens when it is full.
        `on_block` runs on a thread of the subscription, for one block after the other.
        """
        name_argument("the service", service)
        subscription = Subscription(self, service, Inbox(max_blocks, max_bytes, overflow))
        with self._lock:
            self._require_connected()
            self._subscriptions += (subscription,)  # first: blocks may come before the call returns
            try:
                self._send_subscription(service)
            except Error:
                self._remove(subscription)
                raise
            self._start_watch()
        if on_block is not None:
            subscription._start_calling(on_block, service)
        return subscription

    def command(self, name: str, parameter: str = "") -> None:
        """Sends a command. The device answers by data, if at all."""
        longest = _records.LUM_MAX_CMD_LENGTH
        command = text_argument("the command", name, longest)
        if name in ("", "subscribe", "unsubscribe"):
            raise ValueError(f'"{name}" is no command; see subscribe()')
        value = text_argument("the parameter", parameter, longest - len(command))
        self._require_connected()
        self._send_command(command, value, CommandRefused, f'command "{name}"')

    def send(self, data: Any, timeout: float = 2.0) -> None:
        """Sends one block of 1 to 5,242,880 bytes: any object with a buffer. `timeout` is up to 2."""
        pointer, length = block_argument(data, _records.LUM_MAX_CLIENT_DATA_LENGTH)
        limit = milliseconds(timeout, _records.LUM_MAX_CLIENT_TIMEOUT_MS)
        self._require_connected()
        sent = ctypes.c_uint(0)
        result = library().LUM_SendData(self._id, self._handle, pointer, length, ctypes.byref(sent), limit)
        if result != 0:
            self._raise_failure(SendFailed, "the block was not sent", "LUM_SendData", result)
        if sent.value != length:
            self._broken = True
            self._lose(ConnectionLost(_CONNECTION_ENDED, "LUM_SendData", result))
        if sent.value == 0:
            raise ConnectionLost(_CONNECTION_ENDED, "LUM_SendData", result)
        if sent.value != length:
            raise SendIncomplete(
                f"only {sent.value} of {length} bytes were taken", "LUM_SendData", result, sent.value
            )

    def version(self) -> str:
        """The version of the library."""
        self._require_open()
        text = ctypes.create_string_buffer(_records.LUM_MIN_VERSION_BUFFER_LENGTH)
        result = library().LUM_GetClientVersion(self._id, text, len(text))
        if result != 0:
            raise VersionUnknown("the library does not tell its version", "LUM_GetClientVersion", result)
        return text_of(text.value)

    def device_version(self) -> str:
        """The version of the device's library; the device is asked."""
        self._require_connected()
        result, version = self._ask_version()
        if result != 0:
            self._raise_failure(
                VersionUnknown, "the device does not tell its version", "LUM_GetServerVersion", result
            )
        return version

    def close(self) -> None:
        """Ends the subscriptions and leaves the network. Waits for a callback in progress."""
        self._leave()
        for subscription in self._subscriptions:
            subscription._end_calling()

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # ---- To the library

    def _enter(self) -> None:
        self._id = _join(self._name)
        _clients[self._id] = self
        library().LUM_RegisterEvent(self._id, _ON_EVENT)

    def _connect(self, device_type: bytes) -> None:
        handle = ctypes.c_uint(0)
        result = library().LUM_CreateAiDevice(self._id, device_type, ctypes.byref(handle))
        if result != 0:
            raise DeviceNotFound("the device is not among those found last", "LUM_CreateAiDevice", result)
        result = library().LUM_RegisterAiDeviceEvent(self._id, handle, _ON_DEVICE_EVENT)
        if result != 0:
            raise DeviceNotFound("the device has left", "LUM_RegisterAiDeviceEvent", result)
        # First, because the library may tell that the device has left before the next call returns.
        self._handle = 0
        self._lost = None
        result = library().LUM_ConnectAiDevice(self._id, handle)
        # Even if this has failed, the channel to another device was closed for it.
        for other in list(_clients.values()):
            if other._handle not in (0, handle.value):
                other._lose(ConnectionLost("a client of this process has turned to another device"))
        if result != 0:
            raise ConnectFailed(
                "TCP port 6667 is taken on this host: another client is connected"
                if _is_taken(_CLIENT_PORT)
                else "the device cannot be connected; its TCP port 6666 must be free and open, ours is 6667",
                "LUM_ConnectAiDevice",
                result,
            )
        self._handle = handle.value

    def _enter_again(self) -> None:
        """A channel that this side has closed is opened again only after the client has left the network."""
        if self._handle != 0:
            library().LUM_DestoryAiDevice(self._id, self._handle)
        _clients.pop(self._id, None)
        library().LUM_DeInitClient(self._id)
        self._enter()
        self._broken = False

    def _end_subscriptions(self) -> None:
        for subscription in self._subscriptions:
            subscription._inbox.end(self._lost or ConnectionLost(_CONNECTION_ENDED))
        self._subscriptions = ()

    def _connect_again(self) -> None:
        # close() holds the lock while it waits for this thread.
        if not self._lock.acquire(blocking=False):
            return
        reason = self._lost
        try:
            if reason is not None and not self._closed:
                self._try_to_connect_again()
        except Error:
            self._lost = self._lost or reason  # the next round tries again
        finally:
            self._lock.release()

    def _try_to_connect_again(self) -> None:
        if self._broken:
            self._enter_again()
        wanted = {subscription.service for subscription in self._subscriptions}
        for device in self.find(self._type, 0):
            if wanted <= {service.name for service in device.services}:
                self._connect(device.type.encode())
                for service in wanted:
                    self._send_subscription(service)
                return
        raise DeviceNotFound("no device has the services")

    def _send_subscription(self, service: str) -> None:
        name = name_argument("the service", service)
        record = _records.LUM_SUBSCRIBE_SERVICE_S(name, 0, int(Transport.TCP))
        self._send_command(b"subscribe", bytes(record), SubscriptionRefused, f'service "{service}"')

    def _send_command(self, command: bytes, parameter: bytes, refused: Type[Error], what: str) -> None:
        result = library().LUM_SendCmd(self._id, self._handle, command, parameter)
        if result != 0:
            self._raise_failure(refused, f"{what}: refused by the device", "LUM_SendCmd", result)

    def _unsubscribe(self, subscription: Subscription) -> None:
        with self._lock:
            if subscription not in self._subscriptions:
                return
            self._remove(subscription)
            others = any(other.service == subscription.service for other in self._subscriptions)
            if self.is_connected and not others:
                # Even if it fails, no block is delivered any more; the log has the reason.
                library().LUM_SendCmd(self._id, self._handle, b"unsubscribe", subscription.service.encode())

    def _remove(self, subscription: Subscription) -> None:
        self._subscriptions = tuple(other for other in self._subscriptions if other is not subscription)

    def _ask_version(self) -> Tuple[int, str]:
        text = ctypes.create_string_buffer(_records.LUM_MIN_VERSION_BUFFER_LENGTH)
        result: int = library().LUM_GetServerVersion(self._id, self._handle, text, len(text))
        return result, text_of(text.value)

    def _answers(self) -> bool:
        # Asks twice, because one answer may get lost.
        return self._ask_version()[0] == 0 or self._ask_version()[0] == 0

    def _raise_failure(self, refused: Type[Error], message: str, function: str, result: int) -> NoReturn:
        """A device that still answers has refused; for another one the connection is lost."""
        self._require_open()
        if self._lost is None and self._answers():
            raise refused(message, function, result)
        self._require_open()
        reason = self._lost or ConnectionLost(_CONNECTION_ENDED)
        self._lose(reason)
        raise type(reason)(_CONNECTION_ENDED, function, result)

    def _leave(self) -> None:
        self._closed = True  # so that a search gives the lock back
        # An interrupt may come between any two of these: the next attempt repeats them.
        with self._lock:
            if self._has_left:
                return
            self._watch_wakes.set()
            for subscription in self._subscriptions:
                subscription._inbox.close(Closed("the client has been closed"))
            if self._watch is not None and self._watch is not threading.current_thread():
                self._watch.join()
            if self._handle != 0 and self._lost is None:
                library().LUM_DestoryAiDevice(self._id, self._handle)  # the device need not notice by itself
            _clients.pop(self._id, None)  # before another client gets the number
            library().LUM_DeInitClient(self._id)
            self._has_left = True
            _lifetime.closed(self)

    def _close_at_exit(self) -> None:
        self._leave()

    def _forget_in_child(self) -> None:
        self._closed = self._has_left = True
        self._lock = threading.RLock()  # a thread that held it does not exist here
        for subscription in self._subscriptions:
            subscription._inbox.close_in_child(Closed("the client has been closed"))
        _clients.pop(self._id, None)

    # ---- From the library, on its threads: nothing here may call it

    def _receive(self, service: str, data: bytes) -> None:
        block = Block(service, data)
        for subscription in self._subscriptions:
            if subscription.service == service:
                subscription._inbox.put_block(block, len(data))

    def _lose(self, reason: ConnectionLost) -> None:
        if self._lost is None:
            self._lost = reason
        if self._reconnect:
            self._watch_wakes.set()
        else:
            for subscription in self._subscriptions:
                subscription._inbox.end(reason)

    # ---- Checks

    def _require_open(self) -> None:
        if self._closed:
            raise Closed("the client has been closed")

    def _require_connected(self) -> None:
        self._require_open()
        if self._handle == 0 and not self._type:
            raise NotConnected("connect() comes first")
        # The watching thread may be connecting again at this moment.
        lost = self._lost or (ConnectionLost("") if self._handle == 0 else None)
        if lost is not None:
            advice = "it is being opened again" if self._reconnect else "connect() again"
            raise type(lost)(f"{_CONNECTION_ENDED}; {advice}")

    def _start_watch(self) -> None:
        if self._watch is None:
            self._watch = threading.Thread(target=self._watch_connection, name="lumora-watch", daemon=True)
            self._watch.start()

    def _watch_connection(self) -> None:
        while not self._closed:
            pause = _RECONNECT_PAUSE if self._reconnect and self._lost is not None else _CHECK_INTERVAL
            self._watch_wakes.wait(pause)
            self._watch_wakes.clear()
            handle = self._handle
            if self._reconnect and self._lost is not None:
                self._connect_again()
            elif self.is_connected and not self._answers() and self._handle == handle:
                self._lose(ConnectionLost(_CONNECTION_ENDED, "LUM_GetServerVersion", -1))


# ---- The library's callbacks have no argument for an object, so there is one of each for the whole process.

_clients: Dict[int, Client] = {}


def _on_event(client_id: int, event: int) -> int:
    client = _clients.get(client_id)
    if client is not None and event == _records.LUM_EVENT_DEVICE_REMOVED:
        client._lose(DeviceLeft("the device has left the network"))
    return 0


def _on_device_event(event: Any) -> int:
    client = _clients.get(event.clientID)
    if client is not None:
        # The bytes are there only until this returns.
        client._receive(text_of(event.serviceName), ctypes.string_at(event.data, event.dataLen))
    return 0


_ON_EVENT = _records.LUM_EVENT_CALLBACK(_on_event)
_ON_DEVICE_EVENT = _records.LUM_DEVICE_EVENT_CALLBACK(_on_device_event)


# ---- Helpers


def _join(name: bytes) -> int:
    client_id = ctypes.c_int(0)
    result = library().LUM_InitClient(ctypes.byref(client_id), name)
    if result == 0:
        return client_id.value
    if client_id.value != 0:
        library().LUM_DeInitClient(client_id)  # the number would stay taken
        raise JoinFailed("the network cannot be joined", "LUM_InitClient", result)
    if len(_clients) >= _records.LUM_MAX_CLIENTS:
        raise TooManyClients("this process has 20 clients already", "LUM_InitClient", result)
    raise JoinFailed("the network cannot be joined", "LUM_InitClient", result)


def _device_info(record: Any, searched: str) -> DeviceInfo:
    services = (
        Service(text_of(entry.serviceName), entry.outputLenBytes, Transport(entry.transport))
        for entry in record.serviceInfo[: record.serviceNum]
    )
    return DeviceInfo(text_of(record.devServiceType), tuple(services), searched)


def _is_taken(port: int) -> bool:
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            # Addresses may be shared by sockets that do not listen: only listening shows it.
            probe.bind(("", port))
            probe.listen(1)
        except OSError as failure:
            return failure.errno == errno.EADDRINUSE
    return False
