"""Questions to the hub that wait for their answers."""

import asyncio
from collections import deque
from typing import Any, Deque, Dict, Generic, Hashable, Optional, TypeVar

from ._connection import Connection
from .errors import CallTimedOut, HublinkError

T = TypeVar("T")


class Questions(Generic[T]):
    """Those of one kind.

    Questions of the same key are answered in their order, so one that nobody waits for any more
    keeps its place, unless its key is its own (`are_unique`).
    """

    def __init__(self, connection: Connection, are_unique: bool = True) -> None:
        self._connection = connection
        self._are_unique = are_unique
        self._open: "Dict[Hashable, Deque[asyncio.Future[T]]]" = {}

    def add(self, key: Hashable = None) -> "asyncio.Future[T]":
        """Opens a question, which is asked next."""
        future: "asyncio.Future[T]" = self._connection.loop.create_future()
        self._open.setdefault(key, deque()).append(future)
        self._connection.begin_question()
        return future

    async def wait(self, future: "asyncio.Future[T]", key: Hashable = None,
                   timeout: Optional[float] = None) -> T:
        """Waits for the answer; raises CallTimedOut if it doesn't come within `timeout` seconds."""
        timer = None
        if timeout is not None:
            timer = self._connection.loop.call_later(timeout, self._give_up, future, timeout)
        try:
            return await future
        finally:
            if timer is not None:
                timer.cancel()
            if self._are_unique and key in self._open:
                self._take(key)

    @staticmethod
    def _give_up(future: "asyncio.Future[Any]", timeout: float) -> None:
        if not future.done():
            future.set_exception(CallTimedOut(f"no answer within {timeout:g} s"))

    def _take(self, key: Hashable) -> "Optional[asyncio.Future[T]]":
        queue = self._open.get(key)
        if not queue:
            return None
        future = queue.popleft()
        if not queue:
            del self._open[key]
        self._connection.end_question()
        return future

    def answer(self, value: T, key: Hashable = None) -> bool:
        """False if nobody waits for it any more."""
        future = self._take(key)
        if future is None or future.done():
            return False
        future.set_result(value)
        return True

    def fail(self, error: HublinkError, key: Hashable = None) -> None:
        future = self._take(key)
        if future is not None and not future.done():
            future.set_exception(error)

    def fail_all(self, error: HublinkError) -> None:
        for key in list(self._open):
            while (future := self._take(key)) is not None:
                if not future.done():
                    future.set_exception(error)
