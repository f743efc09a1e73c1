"""From dataclasses to fields on the wire and back, by the layouts that stpc writes.

A layout lists the fields of a message, a reply or a block in the order of the catalogue. Writing
uses this side's own tags and is prepared once for each layout; reading uses the tags that the other
side has announced, and is prepared once for each announcement (:class:`Decoder`).
"""

import operator
import os
import struct
from typing import (Any, Callable, Generic, List, NamedTuple, Optional, Sequence, Tuple, Type,
                    TypeVar, Union)

from ._reader import COUNT_TAG, ELEMENT_TAG, Reader, pair_of_f8, swap_words
from ._wire import END_WORD, PAIR
from .errors import OutOfRange

__all__ = ["Block", "Count", "Decoder", "Elements", "Layout", "ListBlock", "Packed", "Scalar",
           "Text"]

T = TypeVar("T")

_CLASSES = {"u1": 0x21, "u2": 0x22, "u4": 0x24, "u8": 0x28, "f4": 0x34, "f8": 0x38}
_SIZES = {"u1": 1, "u2": 2, "u4": 4, "u8": 8, "f4": 4, "f8": 8}
_FORMATS = {"u1": "?", "u2": "H", "u4": "i", "u8": "Q", "f4": "f", "f8": "Q"}
_PADDED = {"u1": "?3x", "u2": "H2x"}
_PADDED_ELEMENTS = {"u1": "B3x", "u2": "H2x"}
_STRING, _STRUCT, _ARRAY = 0x10, 0x40, 0x50
_ZEROS = (bytes(4), bytes(3), bytes(2), bytes(1))  # the zero of a text and what fills its word
_PACKED = struct.Struct("<3I")
_COUNT = COUNT_TAG << 8 | 0x24
_ELEMENT = ELEMENT_TAG << 8


class Scalar(NamedTuple):
    """A number."""

    name: str
    tag: int
    type: str


class Text(NamedTuple):
    """A text; the name of a file is made absolute by its sender."""

    name: str
    tag: int
    nullable: bool = False
    path: bool = False


class Count(NamedTuple):
    """The count of the array of this name, which stands somewhere behind it."""

    name: str
    tag: int


class Elements(NamedTuple):
    """An array whose elements are fields of their own; one of u1 is bytes."""

    name: str
    type: str
    nullable: bool = False


class Packed(NamedTuple):
    """An array of bare numbers; one of u1 is bytes."""

    name: str
    tag: int
    type: str


class Block(NamedTuple):
    """Fields within fields."""

    name: str
    tag: int
    layout: "Layout[Any]"


class ListBlock(NamedTuple):
    """A block of a count and its array, which is a list to authors."""

    name: str
    tag: int
    count_tag: int
    array: Union[Elements, Packed]


Item = Union[Scalar, Text, Count, Elements, Packed, Block, ListBlock]
# Appends the bytes of an object's fields, and gives how many of the last ones are fill.
_Put = Callable[[Any, List[bytes]], int]
_Get = Callable[[Reader, Any], Any]


def _swapped(value: int) -> int:
    value = operator.index(value)
    if not 0 <= value < 1 << 64:
        raise OverflowError
    return swap_words(value)


def _swapped_f8(value: float) -> int:
    return swap_words(pair_of_f8(value))


_TO_WIRE = {"u8": _swapped, "f8": _swapped_f8}


def _from_f8(value: int) -> float:
    result: float = struct.unpack("<d", struct.pack("<Q", swap_words(value)))[0]
    return result


_FROM_WIRE = {"u8": swap_words, "f8": _from_f8}


def _encoded(text: Any, nullable: bool, path: bool) -> Optional[bytes]:
    if text is None and nullable:
        return None
    if path:
        text = _absolute(os.fspath(text))
    data: bytes = text.encode("utf-8", "surrogateescape")
    if 0 in data:
        raise ValueError
    return data


def _absolute(path: str) -> str:
    """As the C++ library makes it: cleaned, but for the `/` at the end; an empty name stays so."""
    if not path:
        return path
    if not path.startswith("/"):
        path = f"{os.getcwd()}/{path}"
    kept: List[str] = []
    for name in path.split("/"):
        if name == ".." and kept and kept[-1] != "..":
            kept.pop()
        elif name not in ("", "."):
            kept.append(name)
    end = "/" if kept and path.endswith("/") else ""
    return "/" + "/".join(kept) + end


def _text_field(word: int, data: Optional[bytes]) -> Tuple[bytes, int]:
    if data is None:
        return PAIR.pack(word, 0), 0
    size = len(data)
    return PAIR.pack(word, size + 1) + data + _ZEROS[size & 3], 3 - (size & 3)


def _put_run(items: Sequence[Scalar]) -> _Put:
    """Numbers that follow each other, which are packed at once."""
    words = [item.tag << 8 | _CLASSES[item.type] for item in items]
    pack = struct.Struct("<" + "".join("I" + _PADDED.get(i.type, _FORMATS[i.type])
                                       for i in items)).pack
    fill = -_SIZES[items[-1].type] & 3
    converted = [(2 * place + 1, _TO_WIRE[item.type])
                 for place, item in enumerate(items) if item.type in _TO_WIRE]
    if len(items) == 1:
        word, get, = words[0], operator.attrgetter(items[0].name)
        convert = _TO_WIRE.get(items[0].type)

        def put_one(value: Any, out: List[bytes]) -> int:
            number = get(value)
            out.append(pack(word, convert(number) if convert else number))
            return fill
        return put_one

    get_all = operator.attrgetter(*(item.name for item in items))
    template: List[Any] = [None] * (2 * len(items))
    template[::2] = words

    def put(value: Any, out: List[bytes]) -> int:
        parts = template[:]
        parts[1::2] = get_all(value)
        for place, convert in converted:
            parts[place] = convert(parts[place])
        out.append(pack(*parts))
        return fill
    return put


def _put_text(item: Text) -> _Put:
    name, nullable, path, word = item.name, item.nullable, item.path, item.tag << 8 | _STRING

    def put(value: Any, out: List[bytes]) -> int:
        data, fill = _text_field(word, _encoded(getattr(value, name), nullable, path))
        out.append(data)
        return fill
    return put


def _put_count(item: Count) -> _Put:
    name, word = item.name, item.tag << 8 | _CLASSES["u4"]

    def put(value: Any, out: List[bytes]) -> int:
        out.append(PAIR.pack(word, len(getattr(value, name))))
        return 0
    return put


def _elements(item: Elements, values: Sequence[Any], out: List[bytes]) -> int:
    out.append(PAIR.pack(_COUNT, len(values)))
    fill = 0
    if item.type in ("str", "fn"):
        for value in values:
            data, fill = _text_field(_ELEMENT | _STRING,
                                     _encoded(value, item.nullable, item.type == "fn"))
            out.append(data)
        return fill
    pack = struct.Struct("<I" + _PADDED_ELEMENTS.get(item.type, _FORMATS[item.type])).pack
    word, convert = _ELEMENT | _CLASSES[item.type], _TO_WIRE.get(item.type)
    for value in values:
        out.append(pack(word, convert(value) if convert else value))
        fill = -_SIZES[item.type] & 3
    return fill


def _bytes_of(values: Any) -> bytes:
    if isinstance(values, (bytes, bytearray)):
        return values
    return bytes(memoryview(values))  # a number would be taken for a size


def _packed(item: Packed, values: Sequence[Any], out: List[bytes]) -> int:
    convert = _TO_WIRE.get(item.type)
    if item.type == "u1":
        data = _bytes_of(values)
    elif convert:
        data = struct.pack(f"<{len(values)}Q", *(convert(value) for value in values))
    else:
        data = struct.pack(f"<{len(values)}{_FORMATS[item.type]}", *values)
    fill = -len(data) & 3
    out.append(_PACKED.pack(item.tag << 8 | _ARRAY, len(data) + 4,
                            len(data) // _SIZES[item.type]))
    out.append(data)
    if fill:
        out.append(bytes(fill))
    return fill


def _array(item: Union[Elements, Packed], values: Sequence[Any], out: List[bytes]) -> int:
    if isinstance(item, Elements):
        return _elements(item, values, out)
    return _packed(item, values, out)


def _put_array(item: Union[Elements, Packed]) -> _Put:
    def put(value: Any, out: List[bytes]) -> int:
        return _array(item, getattr(value, item.name), out)
    return put


def _put_struct(name: str, tag: int, inner: _Put) -> _Put:
    word = tag << 8 | _STRUCT

    def put(value: Any, out: List[bytes]) -> int:
        parts: List[bytes] = []
        fill = inner(getattr(value, name), parts)
        data = b"".join(parts)
        out.append(PAIR.pack(word, len(data) - fill))
        out.append(data)
        return fill
    return put


def _put_list_block(item: ListBlock) -> _Put:
    word = item.count_tag << 8 | _CLASSES["u4"]

    def inner(values: Sequence[Any], out: List[bytes]) -> int:
        out.append(PAIR.pack(word, len(values)))
        return _array(item.array, values, out)
    return _put_struct(item.name, item.tag, inner)


def _put_all(items: Sequence[Item]) -> _Put:
    puts: List[_Put] = []
    run: List[Scalar] = []
    for item in [*items, None]:
        if isinstance(item, Scalar):
            run.append(item)
            continue
        if run:
            puts.append(_put_run(run))
            run = []
        if isinstance(item, Text):
            puts.append(_put_text(item))
        elif isinstance(item, Count):
            puts.append(_put_count(item))
        elif isinstance(item, (Elements, Packed)):
            puts.append(_put_array(item))
        elif isinstance(item, Block):
            puts.append(_put_struct(item.name, item.tag, item.layout.put))
        elif isinstance(item, ListBlock):
            puts.append(_put_list_block(item))
    if len(puts) == 1:
        return puts[0]

    def put(value: Any, out: List[bytes]) -> int:
        fill = 0
        for each in puts:
            fill = each(value, out)
        return fill
    return put


class Layout(Generic[T]):
    """The fields of a dataclass in the order of the catalogue."""

    def __init__(self, type_: Type[T], items: Sequence[Item] = ()) -> None:
        self.type = type_
        self.items = tuple(items)
        self.put = _put_all(self.items)

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
                single = _put_all([item])
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
    values: Sequence[Any] = struct.unpack(f"<{number}{_FORMATS[item.type]}", data)
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
            "I" + _PADDED.get(item.type, _FORMATS[item.type]) for item in items) + "I")
        self._words = tuple(tags[item.tag] << 8 | _CLASSES[item.type] for item in items) + (0,)
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
        tag, size, name = tags[item.tag], _SIZES[item.type], item.name

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
