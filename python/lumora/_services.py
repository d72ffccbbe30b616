"""Services and devices."""

from __future__ import annotations

import enum
from dataclasses import dataclass, field
from typing import Tuple

from . import _records


class Transport(enum.IntEnum):
    """The kind of a service's data channel. Today every kind is carried over TCP."""

    NONE = _records.LUM_TRANSPORT_NONE
    UDP = _records.LUM_TRANSPORT_UDP
    TCP = _records.LUM_TRANSPORT_TCP
    RTP = _records.LUM_TRANSPORT_RTP
    RESERVED_4 = _records.LUM_TRANSPORT_RESERVED_4
    RESERVED_5 = _records.LUM_TRANSPORT_RESERVED_5


@dataclass(frozen=True)
class Service:
    """A named service; `output_length` is the length of its output in bytes, for information."""

    name: str
    output_length: int = _records.LUM_MAX_SERVER_DATA_LENGTH
    transport: Transport = Transport.TCP


@dataclass(frozen=True)
class DeviceInfo:
    """A device that a search has found."""

    type: str
    """Its type; if several of one type were found, with a number behind it."""

    services: Tuple[Service, ...]

    searched: str = field(default="", compare=False)
    """The type that was searched for."""
