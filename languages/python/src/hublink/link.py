"""One end of a connection between two plugins through the hub."""

import asyncio
import inspect
import logging
from collections import deque
from types import TracebackType
from typing import Any, Awaitable, Callable, Deque, Optional, Type, TYPE_CHECKING, Union

from . import _wire
from ._connection import Connection
from ._endpoint import Endpoint, current_chain
from ._wire import Header
from .errors import CallTimedOut, LinkEnded, TooLarge

if TYPE_CHECKING:
    from .plugin import Plugin

__all__ = ["Link", "PacketHandler"]

log = logging.getLogger("hublink")

PacketHandler = Callable[[bytes], Optional[Awaitable[None]]]
EndHandler = Callable[[], Optional[Awaitable[None]]]


class Link(Endpoint):
    """Carries packets of bytes, and the messages of an interface, to another plugin and back.

    Packets are taken one after the other with ``async for packet in link``, with :meth:`receive`,
    or by a handler. A link ends when either side closes it, when the other plugin goes, or with the
    connection to the hub. One that has ended sends nothing, but still gives the packets that came
    before.
    """

    def __init__(self, plugin: "Plugin", connection: Connection, local_rn: int, remote_rn: int,
                 peer_plugin_id: int, service_name: str, owns_rn: bool) -> None:
        super().__init__(connection, local_rn, remote_rn)
        self._plugin = plugin
        self._peer_plugin_id = peer_plugin_id
        self._service_name = service_name
        self._owns_rn = owns_rn
        self._inbox: Deque[bytes] = deque()
        self._handler: Optional[PacketHandler] = None
        self._end_handler: Optional[EndHandler] = None
        self._receivers: "Deque[asyncio.Future[None]]" = deque()
        self._end_told: "asyncio.Future[None]" = connection.loop.create_future()

    @property
    def peer_plugin_id(self) -> int:
        """The number of the plugin at the other end."""
        return self._peer_plugin_id

    @property
    def service_name(self) -> str:
        """The service that this link was asked for by."""
        return self._service_name

    # --- Sending ---

    async def send(self, data: Union[bytes, bytearray, memoryview]) -> None:
        """Sends one packet.

        Returns when it is queued; waits first, without a limit, if so much is queued already that
        the plugin's send limit is reached, until half of that has gone. Raises LinkEnded if the
        link has ended, also in the wait, and TooLarge for a packet of 256 MiB or more.
        """
        if self._connection.is_full and self.is_up:
            await self._connection.room()
        self._queue_packet(data)

    def try_send(self, data: Union[bytes, bytearray, memoryview]) -> bool:
        """The same without waiting; False, and nothing is sent, if too much is queued already."""
        if self._connection.is_full and self.is_up:
            return False
        self._queue_packet(data)
        return True

    async def wait_room(self) -> None:
        """Waits until :meth:`try_send` may go on, or the link has ended."""
        if self.is_up:
            await self._connection.room()

    def _queue_packet(self, data: Union[bytes, bytearray, memoryview]) -> None:
        if not self.is_up:
            raise self._end_error()
        if isinstance(data, memoryview):
            data = data.cast("B")
        if len(data) >= _wire.MAX_PLAIN_SIZE:
            raise TooLarge(f"a packet can't have {len(data)} bytes")
        connection = self._connection
        sequence = connection.next_sequence()
        chain = current_chain()
        connection.write(_wire.make_plain(
            self.local_rn, self.remote_rn, sequence, chain[0] if chain else sequence,
            chain[1] + 1 if chain else 1, data))

    # --- Receiving ---

    def _take(self, header: Header, payload: bytes) -> None:
        if header.type != _wire.PLAIN:
            super()._take(header, payload)
            return
        packet = _wire.plain_bytes(payload)
        if packet is None:
            return
        if self._handler is not None:
            self._enqueue(header, packet)
        else:
            self._keep(packet)

    def _keep(self, packet: bytes) -> None:
        self._inbox.append(packet)
        self._add_unread(len(packet))
        self._wake_receiver()

    def _handle(self, header: Header, payload: bytes) -> Optional[Awaitable[Any]]:
        if header.type != _wire.PLAIN:
            return super()._handle(header, payload)
        if self._handler is None:  # it was taken away since
            self._keep(payload)
            return None
        try:
            result = self._handler(payload)
        except Exception:
            log.exception("the packet handler of a link of %s has failed", self._service_name)
            return None
        if inspect.isawaitable(result):
            return self._logged(result, "packet")
        return None

    async def _logged(self, rest: Awaitable[Any], what: str) -> None:
        try:
            await rest
        except Exception:
            log.exception("the %s handler of a link of %s has failed", what, self._service_name)

    def on_packet(self, handler: Optional[PacketHandler]) -> None:
        """Has each packet that arrives handled, one at a time; those that came before come first.

        The handler may be a plain function or a coroutine function. With None packets are kept
        again for :meth:`receive`.
        """
        self._handler = handler
        if handler is None:
            return
        while self._inbox:
            packet = self._inbox.popleft()
            self._drop_unread(len(packet))
            self._enqueue(_KEPT_PACKET, packet)

    async def receive(self, timeout: Optional[float] = None) -> bytes:
        """The next packet; waits up to `timeout` seconds, without one for ever.

        Raises CallTimedOut if none came, LinkEnded if the link has ended with none left.
        """
        if not self._inbox:
            await self._wait_packet(timeout)
        packet = self._inbox.popleft()
        self._drop_unread(len(packet))
        return packet

    async def _wait_packet(self, timeout: Optional[float]) -> None:
        loop = self._connection.loop
        end = None if timeout is None else loop.time() + timeout
        while not self._inbox:
            if not self.is_up:
                raise self._end_error()
            waiter: "asyncio.Future[None]" = loop.create_future()
            self._receivers.append(waiter)
            timer = loop.call_at(end, self._give_up, waiter) if end is not None else None
            try:
                await waiter
            except asyncio.CancelledError:
                if waiter.done() and not waiter.cancelled() and self._inbox:
                    self._wake_receiver()  # it was meant for one who takes the packet
                raise
            finally:
                if timer is not None:
                    timer.cancel()
                if waiter in self._receivers:
                    self._receivers.remove(waiter)

    @staticmethod
    def _give_up(waiter: "asyncio.Future[None]") -> None:
        if not waiter.done():
            waiter.set_exception(CallTimedOut("no packet in time"))

    def _wake_receiver(self) -> None:
        while self._receivers:
            receiver = self._receivers.popleft()
            if not receiver.done():
                receiver.set_result(None)
                return

    def __aiter__(self) -> "Link":
        return self

    async def __anext__(self) -> bytes:
        try:
            return await self.receive()
        except LinkEnded:
            raise StopAsyncIteration from None

    # --- The end ---

    def on_end(self, handler: Optional[EndHandler]) -> None:
        """Has a function called once when the link ends by the other side or with the connection,
        not by :meth:`close`; at once if it has ended already."""
        self._end_handler = handler
        if not self.is_up and not self._queue and self._running == 0:
            self._drained()

    def _drained(self) -> None:
        handler, self._end_handler = self._end_handler, None
        if handler is None:
            return
        try:
            result = handler()
        except Exception:
            log.exception("the end handler of a link of %s has failed", self._service_name)
            return
        if inspect.isawaitable(result):
            self._spawn(self._logged(result, "end"))

    def _ended(self) -> None:
        if not self.is_up:
            return
        super()._ended()
        self._plugin._forget_link(self)
        receivers, self._receivers = self._receivers, deque()
        for receiver in receivers:
            if not receiver.done():
                receiver.set_result(None)
        self._connection.wake_senders()
        if not self._end_told.done():
            self._end_told.set_result(None)
        if not self._queue and self._running == 0:
            self._drained()

    async def wait_ended(self) -> None:
        """Waits until the link has ended."""
        await asyncio.shield(self._end_told)

    def close(self) -> None:
        """Ends the link; what was sent still arrives, and then the other side is told.

        What has come and wasn't handled is dropped.
        """
        if not self.is_up:
            return
        self._end_handler = None
        self._handler = None
        self._plugin._close_link(self)
        self._inbox.clear()
        self._queue.clear()

    async def __aenter__(self) -> "Link":
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        self.close()


_KEPT_PACKET = Header(0, 0, 0, 0, _wire.PLAIN, 0, _wire.ONE_WAY, 0, 0)
