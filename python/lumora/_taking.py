"""What comes, taken one after the other by threads or coroutines."""

from __future__ import annotations

from typing import AsyncIterator, Generic, Iterator, Optional

from ._errors import Closed
from ._inbox import Inbox, Item


class Taking(Generic[Item]):
    """An iterator over an inbox, asynchronous as well, that ends when it is closed."""

    def __init__(self, inbox: Inbox[Item]) -> None:
        self._inbox = inbox

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
