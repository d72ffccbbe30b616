"""The exceptions of this package."""

from __future__ import annotations

from typing import Optional


class Error(Exception):
    """The base of all exceptions about the library and the network.

    `function` is the library's function that failed and `code` its result; both are None if no call of
    the library is behind it. The library's log tells the reason.
    """

    def __init__(self, message: str, function: Optional[str] = None, code: Optional[int] = None) -> None:
        super().__init__(message if function is None else f"{message} ({function}: {code})")
        self.function = function
        self.code = code


class LibraryNotFound(Error):
    """liblumora_cpp.so, or what LUMORA_LIBRARY names instead, cannot be loaded."""


class JoinFailed(Error):
    """The network cannot be joined."""


class TooManyClients(JoinFailed):
    """A process has at most 20 clients."""


class DeviceExists(Error):
    """A process is at most one device."""


class RegistrationFailed(Error):
    """The library does not take the description of the services: it is too long."""


class DeviceNotFound(Error):
    """No device of this type has answered."""


class ConnectFailed(Error, ConnectionError):
    """The data channel to the device cannot be opened."""


class NotConnected(Error):
    """The client has no device yet."""


class ConnectionLost(Error, ConnectionError):
    """The connection to the device has ended; it has to be searched for and connected again."""


class DeviceLeft(ConnectionLost):
    """The device has left the network."""


class SubscriptionRefused(Error):
    """The device does not have this service."""


class CommandRefused(Error):
    """The device did not take the command."""


class VersionUnknown(Error):
    """The library or the device does not give its version."""


class SendFailed(Error):
    """A block could not be sent."""


class SendIncomplete(SendFailed):
    """Only the first `sent` bytes of a block were taken in time; the connection cannot be used any more."""

    def __init__(
        self, message: str, function: Optional[str] = None, code: Optional[int] = None, sent: int = 0
    ) -> None:
        super().__init__(message, function, code)
        self.sent = sent


class NoClient(SendFailed):
    """No client is connected to this device."""


class ReceiveTimeout(Error, TimeoutError):
    """Nothing came in time."""


class QueueOverflow(Error):
    """Blocks came faster than they were taken, and Overflow.FAIL was chosen."""


class Closed(Error):
    """The client, the device or the subscription has been closed."""
