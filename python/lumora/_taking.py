"""Iteration over the events of an inbox, by threads or coroutines."""

from __future__ import annotations

import threading
from typing import AsyncIterator, Callable, Generic, Iterator, Optional

from ._errors import Closed, Error
from ._inbox import Inbox, Item
from ._library import log_callback_failure, log_error


class Taking(Generic[Item]):
    """An iterator over an inbox, asynchronous as well, that ends when it is closed."""

    def __init__(self, inbox: Inbox[Item]) -> None:
        self._inbox = inbox
        self._thread: Optional[threading.Thread] = None

    @property
    def dropped(self) -> int:
        """How many were dropped because the queue was full."""
        return self._inbox.dropped

    def get(self, timeout: Optional[float] = None) -> Item:
        """The next one; waits `timeout` seconds (None: for ever), then raises ReceiveTimeout."""
        return self._inbox.take(timeout)

    async def get_async(self, timeout: Optional[float] = None) -> Item:
        """The same for a coroutine."""
        return await self._inbox.take_async(timeout)

    def __iter__(self) -> Iterator[Item]:
        return self

    def __next__(self) -> Item:
        try:
            return self.get()
        except Closed:
            raise StopIteration from None

    def __aiter__(self) -> AsyncIterator[Item]:
        return self

    async def __anext__(self) -> Item:
        try:
            return await self.get_async()
        except Closed:
            raise StopAsyncIteration from None

    def _start_calling(self, callback: Callable[[Item], object], name: str) -> None:
        """Starts a thread that calls the callback for each event."""
        self._thread = threading.Thread(
            target=self._call, args=(callback, name), name=f"lumora-{name}", daemon=True
        )
        self._thread.start()

    def _call(self, callback: Callable[[Item], object], name: str) -> None:
        try:
            for item in self:
                try:
                    callback(item)
                except Exception as failure:
                    log_callback_failure(failure)
        except Error as end:
            log_error(type(self).__name__, 0, f"{name}: {end}")

    def _end_calling(self) -> None:
        """Waits for the callback in progress, unless the callback itself calls this."""
        if self._thread is not None and self._thread is not threading.current_thread():
            self._thread.join()
