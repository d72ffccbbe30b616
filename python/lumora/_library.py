"""Loads the C library at its first use, declares its functions and converts values."""

from __future__ import annotations

import ctypes
import functools
import math
import os
from dataclasses import dataclass
from typing import Any, Tuple

from ._errors import LibraryNotFound
from ._records import FUNCTIONS, LUM_NAME_SIZE

LOG_ERROR = 4

_INT = ctypes.c_int
_TEXT = ctypes.c_char_p


@functools.lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    name = os.environ.get("LUMORA_LIBRARY") or "liblumora_cpp.so"
    try:
        loaded = ctypes.CDLL(name)
        for function, arguments in FUNCTIONS.items():
            entry = getattr(loaded, function)
            entry.argtypes = arguments
            entry.restype = ctypes.c_int
        # A function of the log library, which the loaded library depends on.
        loaded.LogInfo.argtypes = (_INT, _TEXT, _TEXT, _INT, _TEXT)
        loaded.LogInfo.restype = None
    except (OSError, AttributeError) as reason:
        raise LibraryNotFound(
            f"{name} cannot be used: {reason}; install it, or let LUMORA_LIBRARY name its file"
        ) from None
    return loaded


class _Requester(ctypes.Structure):
    _fields_ = [("identity", ctypes.c_char * 65), ("node", ctypes.c_ubyte * 16)]


class _Security(ctypes.Structure):
    """LinkSecurity of the platform's link_security.h."""

    _fields_ = [
        ("size", ctypes.c_uint),
        ("others", ctypes.c_void_p * 13),
        ("get_channel_peer", ctypes.CFUNCTYPE(_INT, _INT, ctypes.POINTER(_Requester))),
    ]


@dataclass(frozen=True)
class Peer:
    """Who is at the other end of a data channel."""

    is_private: bool = False  #: the channel is encrypted, and the peer has proven that it holds a key
    identity: str = ""  #: the name of that key


def channel_peer(as_device: bool) -> Peer:
    try:
        find = library().GetLinkSecurity  # of the platform's library; a vendor's need not have it
    except AttributeError:
        return Peer()
    find.restype = ctypes.POINTER(_Security)
    table = find()
    requester = _Requester()
    if not table or table.contents.size < ctypes.sizeof(_Security):
        return Peer()
    if table.contents.get_channel_peer(int(as_device), ctypes.byref(requester)) != 1:
        return Peer()
    return Peer(True, text_of(requester.identity))


def log_error(function: str, line: int, text: str) -> None:
    """Writes to the library's log."""
    # The text is an argument: as a format it might hold directives.
    library().LogInfo(
        LOG_ERROR, b"LUMRA", function.encode(), line, b"%s\n", ctypes.c_char_p(text.encode(errors="replace"))
    )


def log_callback_failure(failure: Exception) -> None:
    """Logs the place at which a callback failed. Its caller is C, so the exception ends here."""
    trace = failure.__traceback__
    while trace is not None and trace.tb_next is not None:
        trace = trace.tb_next
    where = trace.tb_frame.f_code.co_name if trace is not None else "callback"
    line = trace.tb_lineno if trace is not None else 0
    log_error(where, line, f"a callback failed: {type(failure).__name__}: {failure}")


def text_argument(what: str, text: str, longest: int) -> bytes:
    encoded = text.encode()
    if len(encoded) > longest or b"\0" in encoded:
        raise ValueError(f"{what} has up to {longest} bytes, none of them 0; not {text!r}")
    return encoded


def name_argument(what: str, name: str) -> bytes:
    if not name:
        raise ValueError(f"{what} is empty")
    return text_argument(what, name, LUM_NAME_SIZE - 1)


def milliseconds(timeout: float, most: int) -> int:
    if not 0 <= timeout <= most / 1000:
        raise ValueError(f"the time-out is 0 to {most / 1000} seconds, not {timeout}")
    return math.ceil(timeout * 1000)


def block_argument(data: Any, most: int) -> Tuple[Any, int]:
    """An object that ctypes takes as a pointer, and the length in bytes. Copies if it must."""
    view = memoryview(data)
    if not 1 <= view.nbytes <= most:
        raise ValueError(f"a block has 1 to {most} bytes, not {view.nbytes}")
    if isinstance(data, bytes):
        return data, view.nbytes
    if view.readonly or not view.c_contiguous:
        return view.tobytes(), view.nbytes
    return (ctypes.c_char * view.nbytes).from_buffer(view), view.nbytes


def text_of(field: bytes) -> str:
    """The text of a peer. Bytes that are not UTF-8 become replacement characters."""
    return field.decode(errors="replace")
