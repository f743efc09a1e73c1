"""What generated modules are made of: the sides of an interface, their messages and layouts.

``stpc CATALOGUE --language python`` writes a module with a dataclass for each message and a class
for each side, which derives from :class:`Side`. A side is put onto a link by making an object of
it::

    converter = ConverterRequester(link)
    reply = await converter.to_fahrenheit(ToFahrenheit(celsius=37.0))
"""

import abc
import asyncio
import inspect
import logging
from typing import (Any, Awaitable, ClassVar, Dict, Generic, List, Optional, Sequence, Tuple,
                    TYPE_CHECKING, TypeVar, Union, cast)

from . import _wire
from ._record import MessageEntry, Record, make_formats, make_record
from ._wire import END_WORD, Header
from .codec import (Block, Count, Decoder, Elements, Layout, ListBlock, Packed, Scalar, Text)
from .errors import CallTimedOut, LinkEnded, NotSupported, Refused, TooLarge
from ._reader import Reader

if TYPE_CHECKING:
    from ._endpoint import Endpoint
    from .link import Link

__all__ = ["Answer", "Block", "CALL_TIMEOUT", "Count", "Elements", "Layout", "ListBlock", "OneWay",
           "Packed", "Scalar", "Side", "Tables", "Text", "TwoWay"]

log = logging.getLogger("hublink")

CALL_TIMEOUT = 10.0  #: seconds that a call waits for its answer, unless told otherwise

M = TypeVar("M")
R = TypeVar("R")
T = TypeVar("T")
Answer = Union[T, Awaitable[T]]  #: of a handler, which may be a coroutine function

_MOST_PAYLOAD = _wire.MAX_PACKET_SIZE - _wire.HEADER_SIZE


class _Message:
    """One message of an interface: its name, its layouts and its flags."""

    reply: "Optional[Layout[Any]]" = None

    def __init__(self, name: str, handler: str, fields: "Layout[Any]", format: str,
                 entry_flags: int, packet_flags: int) -> None:
        self.name = name
        self.key = name.encode()
        self.handler = handler  # name of the method that handles it
        self.fields = fields
        self.format = format
        self.entry_flags = entry_flags
        self.packet_flags = packet_flags


class OneWay(_Message, Generic[M]):
    """A message that isn't answered."""

    def __init__(self, name: str, handler: str, fields: Layout[M], *, format: str,
                 entry_flags: int = 0x02, packet_flags: int = 0x02) -> None:
        super().__init__(name, handler, fields, format, entry_flags, packet_flags)


class TwoWay(_Message, Generic[M, R]):
    """A call, and its reply."""

    def __init__(self, name: str, handler: str, fields: Layout[M], reply: Layout[R], *,
                 format: str, entry_flags: int = 0x01, packet_flags: int = 0x01) -> None:
        super().__init__(name, handler, fields, format, entry_flags, packet_flags)
        self.reply = reply


class Tables:
    """What one side tells the other of itself, and what it knows of the other."""

    def __init__(self, spec: str, side: str, vstamp: str, flags: int, tags: Sequence[str],
                 sent: Sequence[_Message], received: Sequence[_Message]) -> None:
        self.spec = spec
        self.side = side
        self.tags = [tag.encode() for tag in tags]
        self.refusal = tags.index("_refused") if "_refused" in tags else -1
        self.sent = sent
        self.by_type = {message.fields.type: message for message in sent}
        self.sent_names = sorted(message.key for message in sent)
        self.received = sorted(received, key=lambda message: message.key)
        self.record = make_record(side, vstamp, flags, self.tags,
                                  [(m.key, m.entry_flags) for m in self.received])
        self.formats = make_formats([(m.key, m.format) for m in self.received])


class _Peer:
    """What the other side's record means: numbers, and decoders that are made when needed."""

    def __init__(self, tables: Tables, record: Record) -> None:
        self.record = record
        self.tags = [record.tags.get(tag, -1) for tag in tables.tags]
        self.refusal = self.tags[tables.refusal] if tables.refusal >= 0 else -1
        self.entries = dict(record.messages)
        if not record.lists_messages:
            for number, message in enumerate(sorted(tables.sent, key=lambda each: each.key)):
                self.entries[message.key] = MessageEntry(message.key, number, message.entry_flags)
        self.numbers: Dict[str, int] = {}
        for message in tables.sent:
            entry = self.entries.get(message.key)
            if entry is not None and entry.id != _wire.NO_MESSAGE:
                self.numbers[message.name] = entry.id
            elif record.flags & _wire.TAKES_UNLISTED:
                self.numbers[message.name] = _wire.NO_MESSAGE
        self._decoders: "Dict[int, Decoder[Any]]" = {}

    def decoder(self, layout: "Layout[Any]") -> "Decoder[Any]":
        decoder = self._decoders.get(id(layout))
        if decoder is None:
            decoder = self._decoders[id(layout)] = Decoder(layout, self.tags)
        return decoder

    def reply_of(self, message: "TwoWay[M, R]", payload: bytes) -> R:
        """Reads a response; raises Refused if it is a refusal."""
        if self.refusal >= 0:
            reader = Reader(payload)
            if reader.has(self.refusal):
                raise Refused(reader.text(self.refusal) or "")
        assert message.reply is not None
        reply: R = self.decoder(message.reply)(payload)
        return reply


# Many links mostly lead to a few kinds of peers.
_peers: Dict[Tuple[int, bytes], _Peer] = {}
_MOST_PEERS = 64


def _peer_of(tables: Tables, payload: bytes) -> _Peer:
    key = (id(tables), payload)
    peer = _peers.get(key)
    if peer is None:
        record = Record()
        record.take(payload, tables.tags, tables.sent_names)
        peer = _Peer(tables, record)
        if len(payload) <= 1 << 16:
            if len(_peers) >= _MOST_PEERS:
                _peers.clear()
            _peers[key] = peer
    return peer


class Side(abc.ABC):
    """One side of an interface on a link.

    Making the object puts it onto the link and sends its record; calls wait for the other side's
    within their time. Overridden handlers may be plain functions or coroutine functions.
    """

    _tables: ClassVar[Tables]

    def __init__(self, link: "Endpoint") -> None:
        self.link = cast("Link", link)  #: the link that it is on
        self._endpoint = link
        self._peer: Optional[_Peer] = None
        self._waiters: "List[asyncio.Future[None]]" = []
        link._attach(self)
        if link.is_up:
            link._send_now(_wire.NEGOTIATION, _wire.NEGOTIATE, _wire.ONE_WAY, self._tables.record)

    # --- What the other side is ---

    async def ready(self, timeout: Optional[float] = CALL_TIMEOUT) -> None:
        """Waits until the other side has said which messages and fields it knows.

        Raises CallTimedOut if it hasn't in time, LinkEnded if the link ends before.
        """
        if self._peer is not None:
            return
        endpoint = self._endpoint
        if not endpoint.is_up:
            raise endpoint._end_error()
        loop = endpoint._connection.loop
        waiter: "asyncio.Future[None]" = loop.create_future()
        self._waiters.append(waiter)
        timer = None
        if timeout is not None:
            timer = loop.call_later(timeout, self._give_up, waiter, timeout)
        endpoint._connection.begin_question()
        try:
            await waiter
        finally:
            endpoint._connection.end_question()
            if timer is not None:
                timer.cancel()
            if waiter in self._waiters:
                self._waiters.remove(waiter)

    @staticmethod
    def _give_up(waiter: "asyncio.Future[None]", timeout: float) -> None:
        if not waiter.done():
            waiter.set_exception(CallTimedOut(
                f"the other side hasn't attached its side of the interface within {timeout:g} s"))

    def knows(self, message: str) -> bool:
        """Whether the other side takes a message of this name; False before :meth:`ready`."""
        if self._peer is None:
            return False
        entry = self._peer.entries.get(message.encode())
        return entry is not None and entry.id != _wire.NO_MESSAGE

    def knows_field(self, field: str) -> bool:
        """Whether the other side knows a field, by its name in the catalogue and of this side."""
        return self._peer is not None and field.encode() in self._peer.record.tags

    @property
    def peer_name(self) -> Optional[str]:
        """What the other side calls itself; None before :meth:`ready`."""
        return self._peer.record.name.decode("utf-8", "surrogateescape") if self._peer else None

    @property
    def peer_vstamp(self) -> Optional[str]:
        """The other side's version stamp, which means nothing to this package."""
        vstamp = self._peer.record.vstamp if self._peer else None
        return None if vstamp is None else vstamp.decode("utf-8", "surrogateescape")

    def link_ended(self) -> None:
        """Called once when the link has ended. Does nothing unless overridden."""

    def try_send(self, message: object) -> bool:
        """Sends a one-way message of this side without waiting, from a plain handler for instance.

        False, and nothing is sent, if so much is queued already that the methods of the messages
        would wait. Raises NotSupported if the other side doesn't take the message, or hasn't told
        yet what it takes (:meth:`ready`).
        """
        if self._endpoint._connection.is_full and self._endpoint.is_up:
            return False
        self._post(message)
        return True

    # --- For the generated methods ---

    def _post(self, value: object) -> None:
        message = self._tables.by_type[type(value)]
        if message.reply is not None:
            raise TypeError(f"{message.name} is a call and has to be awaited")
        payload = self._payload(message, value)
        if not self._endpoint.is_up:
            raise self._endpoint._end_error()
        if self._peer is None:
            raise NotSupported("the other side hasn't told yet what it takes")
        self._endpoint._send_now(_wire.BINARY, self._number(self._peer, message),
                                 message.packet_flags, payload)

    def _number(self, peer: _Peer, message: _Message) -> int:
        number = peer.numbers.get(message.name)
        if number is None:
            raise NotSupported(f"the other side doesn't take {message.name}")
        return number

    def _payload(self, message: _Message, value: Any) -> bytes:
        payload = message.fields.encode(value)
        if len(payload) > _MOST_PAYLOAD:
            raise TooLarge(f"{message.name} has {len(payload)} bytes")
        return payload

    async def _send(self, message: OneWay[M], value: M, timeout: Optional[float]) -> None:
        payload = self._payload(message, value)
        endpoint = self._endpoint
        if self._peer is None:
            await self.ready(timeout)
            assert self._peer is not None
        number = self._number(self._peer, message)
        if endpoint._connection.is_full:
            await endpoint._connection.room()
        if not endpoint.is_up:
            raise endpoint._end_error()
        endpoint._send_now(_wire.BINARY, number, message.packet_flags, payload)

    async def _call(self, message: TwoWay[M, R], value: M, timeout: Optional[float]) -> R:
        payload = self._payload(message, value)
        endpoint = self._endpoint
        if self._peer is None:
            begin = endpoint._connection.loop.time()
            await self.ready(timeout)
            if timeout is not None:
                timeout = max(0.0, begin + timeout - endpoint._connection.loop.time())
        peer = self._peer
        assert peer is not None
        number = self._number(peer, message)
        answer = await endpoint._call(number, message.packet_flags, payload, timeout)
        return peer.reply_of(message, answer)

    # --- What the endpoint hands over ---

    def _take_negotiation(self, header: Header, payload: bytes) -> None:
        if header.id == _wire.FORMAT_QUERY and header.flags & _wire.WANTS_RESPONSE:
            self._endpoint._respond(header, self._tables.formats)
        if header.id != _wire.NEGOTIATE:
            return
        if self._peer is None:
            self._peer = _peer_of(self._tables, payload)
        else:
            record = self._peer.record.copy()
            record.take(payload, self._tables.tags, self._tables.sent_names)
            self._peer = _Peer(self._tables, record)
        waiters, self._waiters = self._waiters, []
        for waiter in waiters:
            if not waiter.done():
                waiter.set_result(None)

    def _entry_flags(self, number: int) -> int:
        received = self._tables.received
        if number >= len(received):
            return 0
        return received[number].entry_flags & (_wire.IN_CHAIN_ONLY | _wire.ANY_TIME)

    def _handle(self, header: Header, payload: bytes) -> Optional[Awaitable[Any]]:
        """Runs a handler; gives the rest of one that is a coroutine function."""
        received = self._tables.received
        wants_answer = bool(header.flags & _wire.WANTS_RESPONSE)
        if self._peer is None or header.id >= len(received):
            if wants_answer:
                self._endpoint._respond(header, END_WORD)
            return None
        message = received[header.id]
        try:
            value = self._peer.decoder(message.fields)(payload)
            result = getattr(self, message.handler)(value)
            if inspect.isawaitable(result):
                return self._finish(message, header, result, wants_answer)
            if wants_answer:
                self._answer(message, header, result)
        except Exception as error:
            self._refuse(message, header, error, wants_answer)
        return None

    async def _finish(self, message: _Message, header: Header, rest: Awaitable[Any],
                      wants_answer: bool) -> None:
        try:
            result = await rest
            if wants_answer:
                self._answer(message, header, result)
        except Exception as error:
            self._refuse(message, header, error, wants_answer)
        except asyncio.CancelledError:
            if wants_answer:
                self._refuse(message, header, Refused("cancelled"), True)
            raise

    def _answer(self, message: _Message, header: Header, result: Any) -> None:
        if message.reply is None:
            payload = END_WORD
        elif not isinstance(result, message.reply.type):
            raise TypeError(f"{message.handler} has to give a {message.reply.type.__name__}, "
                            f"not {result!r:.100}")
        else:
            payload = message.reply.encode(result)
        if len(payload) > _MOST_PAYLOAD:
            raise TooLarge(f"the reply to {message.name} has {len(payload)} bytes")
        if self._endpoint.is_up:
            self._endpoint._respond(header, payload)

    def _refuse(self, message: _Message, header: Header, error: Exception,
                wants_answer: bool) -> None:
        if not isinstance(error, Refused) or not wants_answer:
            log.error("%s of %s has failed", message.handler, self._tables.spec, exc_info=error)
        if not wants_answer or not self._endpoint.is_up:
            return
        payload = END_WORD
        if self._tables.refusal >= 0:
            data = str(error).replace("\0", " ").encode("utf-8", "surrogateescape")[:1 << 16]
            size = len(data)
            payload = (_wire.PAIR.pack(self._tables.refusal << 8 | 0x10, size + 1) + data
                       + bytes(4 - (size & 3)) + END_WORD)
        self._endpoint._respond(header, payload)

    def _link_ended(self) -> None:
        waiters, self._waiters = self._waiters, []
        for waiter in waiters:
            if not waiter.done():
                waiter.set_exception(LinkEnded("the link has ended"))
        try:
            self.link_ended()
        except Exception:
            log.exception("link_ended of %s has failed", self._tables.spec)
