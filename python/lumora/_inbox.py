"""Hands events from the library's threads, which must not wait, to a thread or coroutine."""

from __future__ import annotations

import asyncio
import copy
import enum
import threading
import time
from collections import deque
from typing import Deque, Generic, List, Optional, Tuple, TypeVar

from ._errors import Error, QueueOverflow, ReceiveTimeout

Item = TypeVar("Item")
_Waiter = Tuple[asyncio.AbstractEventLoop, "asyncio.Future[None]"]

# Commands and subscriptions are never dropped for data. Any host may send them, so their number is bounded.
_MOST_NOTES = 1024


class Overflow(enum.Enum):
    """The treatment of a block that arrives while the queue is full."""

    DROP_OLDEST = "drop oldest"
    """The blocks that have waited longest make room."""

    DROP_NEWEST = "drop newest"
    """The block that has just come is dropped."""

    FAIL = "fail"
    """The queued blocks can still be taken; then QueueOverflow is raised. No more are queued."""


class Inbox(Generic[Item]):
    """A queue with bounds. A block of any size finds room in an empty one."""

    def __init__(self, max_blocks: int, max_bytes: int, overflow: Overflow) -> None:
        if max_blocks < 1 or max_bytes < 1:
            raise ValueError("a queue holds at least one block and one byte")
        self._max_blocks = max_blocks
        self._max_bytes = max_bytes
        self._overflow = overflow
        # Reentrant, as conditions are by themselves: a finalizer may run in between.
        self._changed = threading.Condition()
        self._items: Deque[Tuple[Item, Optional[int]]] = deque()
        self._blocks = 0
        self._bytes = 0
        self._waiters: List[_Waiter] = []
        self._end: Optional[Error] = None
        self.dropped = 0

    def put_block(self, item: Item, size: int) -> None:
        with self._changed:
            if self._end is None and self._has_room_for(size):
                self._items.append((item, size))
                self._blocks += 1
                self._bytes += size
            waiters = self._wake()
        _wake_coroutines(waiters)

    def put_note(self, item: Item) -> None:
        """Queues a small event that is not dropped to make room for blocks."""
        with self._changed:
            if self._end is None:
                if len(self._items) - self._blocks < _MOST_NOTES:
                    self._items.append((item, None))
                else:
                    self.dropped += 1
            waiters = self._wake()
        _wake_coroutines(waiters)

    def end(self, reason: Error) -> None:
        """Closes the queue. Queued events can still be taken; then the first reason is raised."""
        with self._changed:
            if self._end is None:
                self._end = reason
            waiters = self._wake()
        _wake_coroutines(waiters)

    def close(self, reason: Error) -> None:
        """The same, but drops the queued events."""
        with self._changed:
            self._items.clear()
            self._blocks = self._bytes = 0
            self._end = reason
            waiters = self._wake()
        _wake_coroutines(waiters)

    def close_in_child(self, reason: Error) -> None:
        """After a fork: a thread that held the lock does not exist here."""
        self._changed = threading.Condition()
        self._waiters = []
        self.close(reason)

    def take(self, timeout: Optional[float] = None) -> Item:
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._changed:
            while not self._items:
                self._raise_end()
                left = None if deadline is None else deadline - time.monotonic()
                if left is not None and left <= 0:
                    raise ReceiveTimeout(f"nothing came within {timeout} seconds")
                # Not longer than the longest wait that threads know.
                self._changed.wait(None if left is None else min(left, threading.TIMEOUT_MAX))
            return self._pop()

    async def take_async(self, timeout: Optional[float] = None) -> Item:
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        while True:
            with self._changed:
                if self._items:
                    return self._pop()
                self._raise_end()
                waiter = (loop, loop.create_future())
                self._waiters.append(waiter)
            try:
                await asyncio.wait_for(waiter[1], None if deadline is None else deadline - loop.time())
            except asyncio.TimeoutError:
                raise ReceiveTimeout(f"nothing came within {timeout} seconds") from None
            finally:
                with self._changed:
                    if waiter in self._waiters:
                        self._waiters.remove(waiter)

    def _has_room_for(self, size: int) -> bool:
        while self._blocks and (self._blocks >= self._max_blocks or self._bytes + size > self._max_bytes):
            self.dropped += 1
            if self._overflow is Overflow.FAIL:
                self._end = QueueOverflow("blocks came faster than they were taken")
                return False
            if self._overflow is Overflow.DROP_NEWEST:
                return False
            self._drop_oldest()
        return True

    def _drop_oldest(self) -> None:
        for index, (_, size) in enumerate(self._items):
            if size is not None:
                del self._items[index]
                self._blocks -= 1
                self._bytes -= size
                return

    def _pop(self) -> Item:
        item, size = self._items.popleft()
        if size is not None:
            self._blocks -= 1
            self._bytes -= size
        return item

    def _raise_end(self) -> None:
        if self._end is not None:
            # A new one each time: an exception keeps the trace of the place that raised it.
            raise copy.copy(self._end)

    def _wake(self) -> List[_Waiter]:
        self._changed.notify_all()
        waiters, self._waiters = self._waiters, []
        return waiters


def _wake_coroutines(waiters: List[_Waiter]) -> None:
    for loop, future in waiters:
        try:
            loop.call_soon_threadsafe(_finish, future)
        except RuntimeError:  # its loop is closed
            pass


def _finish(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)
