"""One end of a conversation on a connection: with the hub, or with another plugin over a link.

Messages are handled one at a time, in the order in which they come. While a handler awaits a
two-way call, others may be handled within it, as their flags allow. A call that is made in a
handler belongs to the chain of the message that is handled.
"""

import asyncio
import contextlib
import contextvars
import logging
from collections import deque
from typing import Any, Awaitable, Deque, Iterator, Optional, Set, Tuple, TYPE_CHECKING

from . import _wire
from ._connection import Call, Connection
from ._wire import Header
from .errors import CallTimedOut, HublinkError, LinkEnded

if TYPE_CHECKING:
    from .interface import Side

log = logging.getLogger("hublink")

# Of messages for which there is no side yet, so many are kept, and so many bytes but for the last.
_MOST_STRAYS = 4096
_MOST_STRAY_BYTES = 16 << 20


class HandlerContext:
    """The handling of one message."""

    __slots__ = ("endpoint", "chain", "depth", "_waits", "is_active")

    def __init__(self, endpoint: "Endpoint", chain: int, depth: int) -> None:
        self.endpoint = endpoint
        self.chain = chain
        self.depth = depth
        self._waits = 0  # calls that it awaits
        self.is_active = True

    def begin_wait(self) -> None:
        self._waits += 1
        if self._waits == 1 and self.is_active:
            self.endpoint._running -= 1
            self.endpoint._pump()

    def end_wait(self) -> None:
        self._waits -= 1
        if self._waits == 0 and self.is_active:
            self.endpoint._running += 1

    def finish(self) -> None:
        if self._waits == 0:
            self.endpoint._running -= 1
        self.is_active = False


_handled: "contextvars.ContextVar[Optional[HandlerContext]]" = contextvars.ContextVar(
    "hublink_handled", default=None)


class Endpoint:
    """A pair of RNs, the side of an interface that is attached to it, and what waits for it."""

    def __init__(self, connection: Connection, local_rn: int, remote_rn: int) -> None:
        self._connection = connection
        self.local_rn = local_rn
        self.remote_rn = remote_rn
        self.is_up = True
        self._running = 0  # handlers that run and don't await a call
        self._side: "Optional[Side]" = None
        self._queue: Deque[Tuple[Header, bytes]] = deque()
        self._is_pumping = False
        self._strays: Deque[Tuple[Header, bytes]] = deque()
        self._stray_bytes = 0
        self._unread = 0  # bytes of what has come and waits, as long as the link is up
        self._tasks: "Set[asyncio.Task[None]]" = set()
        connection.endpoints[local_rn, remote_rn] = self

    def _is_from(self, header: Header) -> bool:
        return header.source == self.remote_rn and header.destination == self.local_rn

    # --- Receiving ---

    def _take(self, header: Header, payload: bytes) -> None:
        """A packet has come, which is no response."""
        kind = header.type
        if kind == _wire.BINARY or kind == _wire.NEGOTIATION:
            if self._side is None or self._strays:
                self._keep_stray(header, payload)
            else:
                self._give(self._side, header, payload)
        elif header.flags & _wire.WANTS_RESPONSE:
            self._respond(header, _wire.END_WORD)  # nobody here takes it

    def _give(self, side: "Side", header: Header, payload: bytes) -> None:
        if header.type == _wire.NEGOTIATION:
            side._take_negotiation(header, payload)
        else:
            self._enqueue(header, payload)

    def _keep_stray(self, header: Header, payload: bytes) -> None:
        self._strays.append((header, payload))
        self._stray_bytes += len(payload)
        while len(self._strays) > 1 and (len(self._strays) > _MOST_STRAYS
                                         or self._stray_bytes > _MOST_STRAY_BYTES):
            self._stray_bytes -= len(self._strays.popleft()[1])

    def _attach(self, side: "Side") -> None:
        """Gives the side what has come before it, in the next turn of the loop."""
        if self._side is not None:
            raise ValueError("a link carries one interface, and this one has it already")
        self._side = side
        if self._strays:
            self._connection.loop.call_soon(self._take_strays)

    def _take_strays(self) -> None:
        strays, self._strays = self._strays, deque()
        assert self._side is not None
        for header, payload in strays:
            self._give(self._side, header, payload)

    def _enqueue(self, header: Header, payload: bytes) -> None:
        """Handles a message as soon as it is its turn."""
        if self._running == 0 and not self._queue and self._may_run(header):
            self._run(header, payload)
            return
        self._queue.append((header, payload))
        self._connection.waiting[self] = None
        self._add_unread(len(payload))
        self._pump()

    def _may_run(self, header: Header) -> bool:
        flags = header.flags
        if self._side is not None and header.type == _wire.BINARY:
            flags |= self._side._entry_flags(header.id)
        return self._connection.may_run(flags, header.chain, header.depth)

    def _pump(self) -> None:
        """Handles what waits here and may run."""
        if self._is_pumping:
            return  # it goes on where it is at work
        self._is_pumping = True
        try:
            while self._queue and self._running == 0:
                for place, (header, payload) in enumerate(self._queue):
                    if self._may_run(header):
                        break
                else:
                    return
                del self._queue[place]
                self._queue_shrank(len(payload))
                self._run(header, payload)
        finally:
            self._is_pumping = False

    def _add_unread(self, size: int) -> None:
        if self.is_up:
            self._unread += size
            self._connection.add_unread(size)

    def _drop_unread(self, size: int) -> None:
        if self.is_up:
            self._unread -= size
            self._connection.drop_unread(size)

    def _queue_shrank(self, size: int) -> None:
        self._drop_unread(size)
        if not self._queue:
            self._connection.waiting.pop(self, None)

    def _run(self, header: Header, payload: bytes) -> None:
        context = HandlerContext(self, header.chain, header.depth)
        self._running += 1
        self._connection.handlers += 1
        token = _handled.set(context)
        rest: Optional[Awaitable[Any]] = None
        try:
            rest = self._handle(header, payload)
            if rest is not None:
                self._spawn(self._run_rest(context, rest))
        finally:
            _handled.reset(token)
            if rest is None:
                self._done(context)

    async def _run_rest(self, context: HandlerContext, rest: Awaitable[Any]) -> None:
        try:
            await rest
        finally:
            self._done(context)

    def _done(self, context: HandlerContext) -> None:
        context.finish()
        self._connection.handlers -= 1
        if self._queue:
            self._pump()
        elif not self.is_up and self._running == 0:
            self._drained()
        self._connection.serve_waiting()

    def _drained(self) -> None:
        """The end has come, and all that came before has been handled."""

    def _handle(self, header: Header, payload: bytes) -> Optional[Awaitable[Any]]:
        """Handles a message; gives what is still to be awaited. Raises nothing."""
        return self._side._handle(header, payload) if self._side is not None else None

    def _spawn(self, work: Any) -> None:
        """Runs a coroutine for as long as the endpoint lives, and keeps it from being forgotten."""
        task: "asyncio.Task[None]" = self._connection.loop.create_task(work)
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    # --- Sending ---

    def _send_now(self, kind: int, number: int, flags: int, payload: bytes) -> None:
        """Queues a one-way message."""
        connection = self._connection
        sequence = connection.next_sequence()
        context = _handled.get()
        if context is not None and context.is_active:
            chain, depth = context.chain, context.depth + 1
        else:
            chain, depth = sequence, 1
        size = len(payload)
        connection.write(_wire.HEADER.pack(44, size, self.local_rn, self.remote_rn, sequence, 0,
                                           kind, number, flags, chain, depth) + payload)

    def _respond(self, header: Header, payload: bytes) -> None:
        """Answers a call."""
        connection = self._connection
        connection.write(_wire.HEADER.pack(
            44, len(payload), self.local_rn, self.remote_rn, connection.next_sequence(),
            header.sequence, _wire.RESPONSE, _wire.RESPONSE, 0, header.chain, header.depth)
            + payload)

    async def _call(self, number: int, flags: int, payload: bytes,
                    timeout: Optional[float]) -> bytes:
        """Sends a two-way message and waits for the payload of its answer."""
        connection = self._connection
        if connection.is_full:
            timeout = await self._await_room(timeout)
        if not self.is_up:
            raise self._end_error()
        sequence = connection.next_sequence()
        context = _handled.get()
        if context is not None and context.is_active:
            chain, depth = context.chain, context.depth + 1
        else:
            chain, depth, context = sequence, 1, None
        connection.write(_wire.HEADER.pack(
            44, len(payload), self.local_rn, self.remote_rn, sequence, 0, _wire.BINARY, number,
            flags, chain, depth) + payload)
        answer: "asyncio.Future[bytes]" = connection.loop.create_future()
        call = Call(self, chain, depth & 0xFFFF, flags, context, answer)
        connection.open_call(sequence, call)
        timer = None
        if timeout is not None:
            timer = connection.loop.call_later(timeout, connection.close_call, sequence,
                                               CallTimedOut(f"no answer within {timeout:g} s"))
        try:
            return await answer
        finally:
            if timer is not None:
                timer.cancel()
            if sequence in connection.calls:  # cancelled
                connection.close_call(sequence, CallTimedOut("cancelled"))

    async def _await_room(self, timeout: Optional[float]) -> Optional[float]:
        """What is left of the time."""
        loop = self._connection.loop
        begin = loop.time()
        try:
            await asyncio.wait_for(self._connection.room(), timeout)
        except asyncio.TimeoutError:
            raise CallTimedOut("what was sent before hasn't left in time") from None
        return None if timeout is None else max(0.0, timeout - (loop.time() - begin))

    # --- The end ---

    def _ended(self) -> None:
        """The other side or the connection has gone."""
        if not self.is_up:
            return
        connection = self._connection
        self._drop_unread(self._unread)
        self.is_up = False
        if connection.endpoints.get((self.local_rn, self.remote_rn)) is self:
            del connection.endpoints[self.local_rn, self.remote_rn]
        connection.close_calls_of(self, self._end_error())
        if self._side is None:
            self._strays.clear()
        else:
            self._side._link_ended()

    def _end_error(self) -> HublinkError:
        return LinkEnded("the link has ended")


def current_chain() -> Optional[Tuple[int, int]]:
    """Chain and depth of the message that is handled, or None."""
    context = _handled.get()
    return (context.chain, context.depth) if context is not None and context.is_active else None


@contextlib.contextmanager
def outside_of_handlers() -> Iterator[None]:
    """What begins here, though it may be in a handler, belongs to no chain."""
    token = _handled.set(None)
    try:
        yield
    finally:
        _handled.reset(token)
