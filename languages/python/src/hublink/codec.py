"""From dataclasses to fields on the wire and back, by the layouts that stpc writes.

A layout lists the fields of a message, a reply or a block in the order of the catalogue. Writing
uses this side's own tags and is prepared once for each layout; reading uses the tags that the other
side has announced, and is prepared once for each announcement (:class:`Decoder`).
"""

import struct
from typing import Any, Callable, Generic, List, Optional, Sequence, Tuple, Type, TypeVar, Union

from ._encoder import put_all
from ._items import (CLASSES, FORMATS, PADDED, SIZES, Block, Count, Elements, Item, ListBlock,
                     Packed, Scalar, Text)
from ._reader import ELEMENT_TAG, Reader, swap_words
from ._wire import END_WORD
from .errors import OutOfRange

__all__ = ["Block", "Count", "Decoder", "Elements", "Layout", "ListBlock", "Packed", "Scalar",
           "Text"]

T = TypeVar("T")

_Get = Callable[[Reader, Any], Any]


def _from_f8(value: int) -> float:
    result: float = struct.unpack("<d", struct.pack("<Q", swap_words(value)))[0]
    return result


_FROM_WIRE = {"u8": swap_words, "f8": _from_f8}


class Layout(Generic[T]):
    """The fields of a dataclass in the order of the catalogue."""

    def __init__(self, type_: Type[T], items: Sequence[Item] = ()) -> None:
        self.type = type_
        self.items = tuple(items)
        self.put = put_all(self.items)

    def encode(self, value: T) -> bytes:
        """The payload of a message, with its end word."""
        out: List[bytes] = []
        try:
            self.put(value, out)
        except (struct.error, OverflowError, ValueError, TypeError, AttributeError) as error:
            raise OutOfRange(self.fault(value) or f"{self.type.__name__}: {error}") from None
        out.append(END_WORD)
        return b"".join(out)

    def fault(self, value: T) -> Optional[str]:
        """What is wrong with the value of a field; None if nothing is."""
        for item in self.items:
            try:
                single = put_all([item])
                single(value, [])
            except (struct.error, OverflowError, ValueError, TypeError, AttributeError):
                wrong = getattr(value, item.name, value)
                if isinstance(item, Block):
                    return item.layout.fault(wrong) or f"{self.type.__name__}.{item.name}"
                return f"{self.type.__name__}.{item.name} can't be {wrong!r:.100}"
        return None

    def decode(self, payload: bytes, tags: Sequence[int]) -> T:
        """Reads a message of a sender whose number of this side's tag `i` is `tags[i]`, or -1."""
        return Decoder(self, tags)(payload)


def _get_elements(item: Union[Elements, Packed]) -> Callable[[Reader, int], Any]:
    texts = item.type in ("str", "fn")
    if texts and isinstance(item, Elements) and item.nullable:
        return Reader.text
    if texts:
        return lambda reader, tag: reader.text(tag) or ""
    return {"u1": Reader.byte, "u2": Reader.u2, "u4": Reader.u4, "u8": Reader.u8,
            "f4": Reader.f4, "f8": Reader.f8}[item.type]


def _unpacked(item: Packed, number: int, data: bytes) -> Any:
    if item.type == "u1":
        return data
    values: Sequence[Any] = struct.unpack(f"<{number}{FORMATS[item.type]}", data)
    convert = _FROM_WIRE.get(item.type)
    return [convert(value) for value in values] if convert else list(values)


def _cut(values: Any, count: int) -> Any:
    """What is announced and what has come: the lesser holds."""
    return values if len(values) <= count else values[:count]


class Decoder(Generic[T]):
    """Reads one kind of message as one sender writes it."""

    def __init__(self, layout: Layout[T], tags: Sequence[int]) -> None:
        self._type: Type[T] = layout.type
        self._fields = [self._getter(item, tags) for item in layout.items]
        self._fixed: Optional[struct.Struct] = None
        items = layout.items
        if items and all(isinstance(item, Scalar) and tags[item.tag] >= 0 for item in items):
            self._prepare_fixed([item for item in items if isinstance(item, Scalar)], tags)

    def _prepare_fixed(self, items: Sequence[Scalar], tags: Sequence[int]) -> None:
        """Nothing but numbers: one look if they come in the order of the catalogue."""
        self._fixed = struct.Struct("<" + "".join(
            "I" + PADDED.get(item.type, FORMATS[item.type]) for item in items) + "I")
        self._words = tuple(tags[item.tag] << 8 | CLASSES[item.type] for item in items) + (0,)
        self._converted = [(place, _FROM_WIRE[item.type])
                           for place, item in enumerate(items) if item.type in _FROM_WIRE]

    def __call__(self, payload: bytes) -> T:
        fixed = self._fixed
        if fixed is not None and len(payload) == fixed.size:
            parts = fixed.unpack(payload)
            if parts[::2] == self._words:
                if not self._converted:
                    return self._type(*parts[1::2])
                values = list(parts[1::2])
                for place, convert in self._converted:
                    values[place] = convert(values[place])
                return self._type(*values)
        return self.read(Reader(payload))

    def read(self, reader: Reader) -> T:
        """The same of the range that is entered."""
        values: List[Any] = []
        counts: List[Any] = []
        for is_value, get in self._fields:
            value = get(reader, counts)
            if is_value:
                values.append(value)
        return self._type(*values)

    def _getter(self, item: Item, tags: Sequence[int]) -> Tuple[bool, _Get]:
        """Whether it gives a value, and what reads it."""
        if isinstance(item, Scalar):
            tag, read = tags[item.tag], getattr(Reader, item.type)
            return True, lambda reader, counts: read(reader, tag)
        if isinstance(item, Text):
            tag = tags[item.tag]
            if item.nullable:
                return True, lambda reader, counts: reader.text(tag)
            return True, lambda reader, counts: reader.text(tag) or ""
        if isinstance(item, Count):
            tag, name = tags[item.tag], item.name
            return False, lambda reader, counts: counts.append((name, reader.count(tag)))
        if isinstance(item, Elements):
            return True, self._elements_getter(item)
        if isinstance(item, Packed):
            return True, self._packed_getter(item, tags)
        if isinstance(item, Block):
            decoder, tag = Decoder(item.layout, tags), tags[item.tag]

            def get_block(reader: Reader, counts: List[Any]) -> Any:
                saved = reader.enter(tag)
                value = decoder.read(reader)
                reader.leave(saved)
                return value
            return True, get_block
        return True, self._list_block_getter(item, tags)

    @staticmethod
    def _elements_getter(item: Elements) -> _Get:
        get = _get_elements(item)
        name, are_bytes = item.name, item.type == "u1"

        def get_array(reader: Reader, counts: List[Any]) -> Any:
            count = dict(counts)[name]
            held, saved = reader.enter_elements(count)
            values: Any = [get(reader, ELEMENT_TAG) for _ in range(held)]
            reader.leave(saved)
            if are_bytes:
                values = bytes(values)
            return _cut(values, count.value)
        return get_array

    @staticmethod
    def _packed_getter(item: Packed, tags: Sequence[int]) -> _Get:
        tag, size, name = tags[item.tag], SIZES[item.type], item.name

        def get_array(reader: Reader, counts: List[Any]) -> Any:
            return _cut(_unpacked(item, *reader.packed(tag, size)), dict(counts)[name].value)
        return get_array

    def _list_block_getter(self, item: ListBlock, tags: Sequence[int]) -> _Get:
        _, count = self._getter(Count(item.array.name, item.count_tag), tags)
        _, array = self._getter(item.array, tags)
        tag = tags[item.tag]

        def get_list(reader: Reader, counts: List[Any]) -> Any:
            saved = reader.enter(tag)
            inner: List[Any] = []
            count(reader, inner)
            values = array(reader, inner)
            reader.leave(saved)
            return values
        return get_list
