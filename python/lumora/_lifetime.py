"""Closes open clients and devices at the interpreter's end, before threads of the library call into it."""

from __future__ import annotations

import atexit
import os
from typing import List, Protocol


class _Open(Protocol):
    def _close_at_exit(self) -> None:
        ...

    def _forget_in_child(self) -> None:
        ...


_open: List[_Open] = []


def opened(thing: _Open) -> None:
    _open.append(thing)


def closed(thing: _Open) -> None:
    if thing in _open:
        _open.remove(thing)


@atexit.register
def _close_all() -> None:
    for thing in reversed(_open[:]):
        thing._close_at_exit()


def _forget_all() -> None:
    # The library's threads exist in the parent only, so there is no thread to wait for.
    for thing in _open:
        thing._forget_in_child()
    _open.clear()


os.register_at_fork(after_in_child=_forget_all)
