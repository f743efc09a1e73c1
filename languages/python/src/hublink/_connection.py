"""The connection to a hub: packets out of the stream and into it, and the calls that are open.

A packet goes to the endpoint (:mod:`hublink._endpoint`) with its two RNs. What is sent in one turn
of the event loop is written together, but for the first of it, which goes at once.
"""

import asyncio
import logging
from typing import Callable, Dict, List, Optional, Tuple, TYPE_CHECKING

from . import _wire
from ._wire import Header
from .errors import HublinkError, ProtocolError

if TYPE_CHECKING:
    from ._endpoint import Endpoint, HandlerContext

log = logging.getLogger("hublink")

SEND_LIMIT = 8 << 20
RECEIVE_LIMIT = 8 << 20

_BUFFER_SIZE = 256 << 10
_LARGEST_KEPT = 4 << 20  # of a buffer that has grown for a large packet
_WRITE_SIZE = 64 << 10  # what is written at once, even if more is to come
_NO_LIMIT = 1 << 62


class Call:
    """A two-way call that waits for its answer."""

    __slots__ = ("endpoint", "chain", "depth", "flags", "context", "answer")

    def __init__(self, endpoint: "Endpoint", chain: int, depth: int, flags: int,
                 context: "Optional[HandlerContext]", answer: "asyncio.Future[bytes]") -> None:
        self.endpoint = endpoint
        self.chain = chain
        self.depth = depth
        self.flags = flags
        self.context = context  # of the handler that has made it
        self.answer = answer


class Connection(asyncio.BufferedProtocol):
    """One connection; `ended` is called once when it has gone."""

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self.ended: Callable[[], None] = lambda: None
        self.error: Optional[HublinkError] = None
        self.endpoints: Dict[Tuple[int, int], "Endpoint"] = {}  # by own and other RN
        self.calls: Dict[int, Call] = {}                        # by sequence number
        self.holds = 0         # open calls that hold others back
        self.handlers = 0      # that run, or wait for something
        self.waiting: Dict["Endpoint", None] = {}  # endpoints with messages that wait for a turn
        self._turns = 0        # how often something may have come to its turn
        self._is_serving = False
        self.unread_limit = RECEIVE_LIMIT
        self._unread = 0       # bytes that have come and nobody has taken
        self._questions = 0    # answers that somebody waits for
        self._reading = True
        self._transport: Optional[asyncio.Transport] = None
        self._lost = False
        self._sequence = 0
        self._buffer = bytearray(_BUFFER_SIZE)
        self._start = 0        # of what isn't parsed; up to 3 bytes of fill may still have to come
        self._end = 0
        self._corked = False
        self._out: List[bytes] = []
        self._out_size = 0
        self._full = False
        self._room: List["asyncio.Future[None]"] = []
        self._closed: "asyncio.Future[None]" = loop.create_future()

    # --- Life ---

    @property
    def is_up(self) -> bool:
        return not self._lost

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        assert isinstance(transport, asyncio.Transport)
        self._transport = transport
        self.set_send_limit(SEND_LIMIT)

    def connection_lost(self, error: Optional[Exception]) -> None:
        self._end_it()
        if not self._closed.done():
            self._closed.set_result(None)

    def close(self) -> None:
        """Ends the connection; what is queued is written first."""
        if self._lost:
            return
        self._flush()
        self._end_it()
        if self._transport is not None:
            if not self._reading:  # a transport that doesn't read would never see its end
                self._transport.resume_reading()
            self._transport.close()

    def abort(self) -> None:
        """Ends the connection at once."""
        self._end_it()
        if self._transport is not None:
            self._transport.abort()

    async def wait_closed(self) -> None:
        await asyncio.shield(self._closed)

    def _end_it(self) -> None:
        if self._lost:
            return
        self._lost = True
        self._out.clear()
        calls, self.calls = list(self.calls.values()), {}
        endpoints = list(self.endpoints.values())
        self.endpoints.clear()
        for call in calls:
            self._finish(call, None, call.endpoint._end_error())
        for endpoint in endpoints:
            endpoint._ended()
        self.wake_senders()
        self.ended()

    # --- Reading ---

    def get_buffer(self, sizehint: int) -> memoryview:
        if self._end == len(self._buffer):
            self._make_room()
        return memoryview(self._buffer)[self._end:]

    def _make_room(self) -> None:
        """Grows only with bytes that have come, since each doubling needs a full buffer."""
        rest = self._buffer[self._start:self._end]
        size = len(self._buffer)
        if len(rest) > size // 2:
            size *= 2
        elif len(rest) <= _BUFFER_SIZE // 2:
            size = _BUFFER_SIZE
        buffer = bytearray(size)
        buffer[:len(rest)] = rest
        self._buffer = buffer
        self._start, self._end = 0, len(rest)

    def buffer_updated(self, count: int) -> None:
        self._end += count
        corked, self._corked = self._corked, True
        try:
            self._parse()
        except ProtocolError as error:
            log.error("the other side of the connection to the hub breaks the protocol: %s", error)
            self.error = error
            self.abort()
        finally:
            self._corked = corked
            if self._out:
                self._flush()

    def _parse(self) -> None:
        buffer, start, end = self._buffer, self._start, self._end
        unpack_sizes = _wire.SIZES.unpack_from
        unpack_header = _wire.HEADER_BEHIND_SIZES.unpack_from
        view = memoryview(buffer)
        try:
            while end - start >= 8 and not self._lost:
                header_size, size = unpack_sizes(buffer, start)
                if header_size != 44 or size > 0xFFFFF00:
                    _wire.check_sizes(header_size, size)
                total = header_size + size
                if total > end - start:
                    break
                if header_size >= 44:
                    header = Header._make(unpack_header(buffer, start + 8))
                else:
                    header = _wire.read_header(view, start, header_size)
                payload = bytes(view[start + header_size:start + total])
                start += (total + 3) & ~3
                self._start = start
                self._deliver(header, payload)
        finally:
            view.release()
        if start >= end:  # mostly: the next bytes go to the front
            self._start, self._end = start - end, 0
            if len(self._buffer) > _LARGEST_KEPT:
                self._buffer = bytearray(_BUFFER_SIZE)

    def _deliver(self, header: Header, payload: bytes) -> None:
        if header.response_to:
            call = self.calls.get(header.response_to)
            if call is not None and call.endpoint._is_from(header):
                del self.calls[header.response_to]
                self._finish(call, payload, None)
            return
        endpoint = self.endpoints.get((header.destination, header.source))
        if endpoint is not None:
            endpoint._take(header, payload)

    def eof_received(self) -> None:
        """The transport closes."""

    # --- What has come and isn't taken holds back the rest, unless somebody waits for an answer ---

    def add_unread(self, size: int) -> None:
        self._unread += size
        if self._reading and self._unread > self.unread_limit and self._questions == 0:
            self._set_reading(False)

    def drop_unread(self, size: int) -> None:
        self._unread -= size
        if not self._reading and self._unread <= self.unread_limit // 2:
            self._set_reading(True)

    def begin_question(self) -> None:
        self._questions += 1
        if not self._reading:
            self._set_reading(True)

    def end_question(self) -> None:
        self._questions -= 1
        if self._reading and self._unread > self.unread_limit and self._questions == 0:
            self._set_reading(False)

    def _set_reading(self, reads: bool) -> None:
        if self._lost or self._transport is None or self._transport.is_closing():
            return
        self._reading = reads
        if reads:
            self._transport.resume_reading()
        else:
            self._transport.pause_reading()

    # --- Writing ---

    def next_sequence(self) -> int:
        """Of the packet that is written next."""
        self._sequence = self._sequence + 1 if self._sequence < 0xFFFFFFFF else 1
        return self._sequence

    def write(self, packet: bytes) -> None:
        """Queues a packet; never waits."""
        if self._lost:
            return
        if not self._corked:
            self._corked = True
            self.loop.call_soon(self._uncork)
            assert self._transport is not None
            self._transport.write(packet)
            return
        self._out.append(packet)
        self._out_size += len(packet)
        if self._out_size >= _WRITE_SIZE:
            self._flush()

    def _uncork(self) -> None:
        self._corked = False
        if self._out:
            self._flush()

    def _flush(self) -> None:
        if not self._out or self._lost:
            return
        assert self._transport is not None
        data = self._out[0] if len(self._out) == 1 else b"".join(self._out)
        self._out.clear()
        self._out_size = 0
        self._transport.write(data)

    def set_send_limit(self, size: int) -> None:
        """How many bytes may wait to be written before senders wait; 0: no limit."""
        assert self._transport is not None
        high = size if size > 0 else _NO_LIMIT
        self._transport.set_write_buffer_limits(high=high, low=high // 2)

    @property
    def is_full(self) -> bool:
        return self._full

    def pause_writing(self) -> None:
        self._full = True

    def resume_writing(self) -> None:
        self._full = False
        self.wake_senders()

    def wake_senders(self) -> None:
        waiters, self._room = self._room, []
        for waiter in waiters:
            if not waiter.done():
                waiter.set_result(None)

    def room(self) -> "asyncio.Future[None]":
        """Done when half of the limit has gone, or when a link or the connection has ended."""
        waiter: "asyncio.Future[None]" = self.loop.create_future()
        if self._full and not self._lost:
            self._room.append(waiter)
        else:
            waiter.set_result(None)
        return waiter

    # --- Calls ---

    def open_call(self, sequence: int, call: Call) -> None:
        self.calls[sequence] = call
        if call.flags & _wire.HOLD_OTHERS:
            self.holds += 1
        self.begin_question()
        if call.context is not None:
            call.context.begin_wait()

    def close_call(self, sequence: int, error: HublinkError) -> None:
        """Gives up a call, if it still waits. An answer that comes later is dropped."""
        call = self.calls.pop(sequence, None)
        if call is not None:
            self._finish(call, None, error)

    def close_calls_of(self, endpoint: "Endpoint", error: HublinkError) -> None:
        for sequence in [s for s, call in self.calls.items() if call.endpoint is endpoint]:
            self.close_call(sequence, error)

    def _finish(self, call: Call, payload: Optional[bytes], error: Optional[HublinkError]) -> None:
        if call.flags & _wire.HOLD_OTHERS:
            self.holds -= 1
        self.end_question()
        if call.context is not None:
            call.context.end_wait()
        if not call.answer.done():
            if payload is not None:
                call.answer.set_result(payload)
            else:
                assert error is not None
                call.answer.set_exception(error)
        self.serve_waiting()

    def serve_waiting(self) -> None:
        """Hands over messages whose turn may have come."""
        self._turns += 1
        if not self.waiting or self._is_serving:
            return  # who is at it looks again
        self._is_serving = True
        try:
            seen = -1
            while seen != self._turns:
                seen = self._turns
                for endpoint in list(self.waiting):
                    endpoint._pump()
        finally:
            self._is_serving = False

    def may_run(self, flags: int, chain: int, depth: int) -> bool:
        """Whether a message may be handled while the calls that are open wait."""
        if flags & _wire.ANY_TIME or (not self.calls and self.handlers == 0):
            return True
        if not flags & _wire.IN_CHAIN_ONLY and self.holds == 0:
            return True
        depth &= 0xFFFF
        return any(call.chain == chain and depth > call.depth for call in self.calls.values())
