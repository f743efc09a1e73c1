"""Writing the fields of a dataclass: a function is put together for each layout, once.

Numbers that follow each other are packed at once. Everything is filled up to a word as soon as it
is written; who needs the true length, as a block does, takes off the fill of the last field.
"""

import operator
import os
import struct
from typing import Any, Callable, List, Optional, Sequence, Tuple, Union

from ._items import (CLASSES, FORMATS, PADDED, SIZES, Block, Count, Elements, Item, ListBlock,
                     Packed, Scalar, Text)
from ._reader import COUNT_TAG, ELEMENT_TAG, pair_of_f8, swap_words
from ._wire import PAIR

_PADDED_ELEMENTS = {"u1": "B3x", "u2": "H2x"}
_STRING, _STRUCT, _ARRAY = 0x10, 0x40, 0x50
_ZEROS = (bytes(4), bytes(3), bytes(2), bytes(1))  # the zero of a text and what fills its word
_PACKED = struct.Struct("<3I")
_COUNT = COUNT_TAG << 8 | 0x24
_ELEMENT = ELEMENT_TAG << 8

# Appends the bytes of an object's fields, and gives how many of the last ones are fill.
Put = Callable[[Any, List[bytes]], int]


def _swapped(value: int) -> int:
    value = operator.index(value)
    if not 0 <= value < 1 << 64:
        raise OverflowError
    return swap_words(value)


def _swapped_f8(value: float) -> int:
    return swap_words(pair_of_f8(value))


_TO_WIRE = {"u8": _swapped, "f8": _swapped_f8}


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


def _put_run(items: Sequence[Scalar]) -> Put:
    """Numbers that follow each other, which are packed at once."""
    words = [item.tag << 8 | CLASSES[item.type] for item in items]
    pack = struct.Struct("<" + "".join("I" + PADDED.get(i.type, FORMATS[i.type])
                                       for i in items)).pack
    fill = -SIZES[items[-1].type] & 3
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


def _put_text(item: Text) -> Put:
    name, nullable, path, word = item.name, item.nullable, item.path, item.tag << 8 | _STRING

    def put(value: Any, out: List[bytes]) -> int:
        data, fill = _text_field(word, _encoded(getattr(value, name), nullable, path))
        out.append(data)
        return fill
    return put


def _put_count(item: Count) -> Put:
    name, word = item.name, item.tag << 8 | CLASSES["u4"]

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
    pack = struct.Struct("<I" + _PADDED_ELEMENTS.get(item.type, FORMATS[item.type])).pack
    word, convert = _ELEMENT | CLASSES[item.type], _TO_WIRE.get(item.type)
    for value in values:
        out.append(pack(word, convert(value) if convert else value))
        fill = -SIZES[item.type] & 3
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
        data = struct.pack(f"<{len(values)}{FORMATS[item.type]}", *values)
    fill = -len(data) & 3
    out.append(_PACKED.pack(item.tag << 8 | _ARRAY, len(data) + 4,
                            len(data) // SIZES[item.type]))
    out.append(data)
    if fill:
        out.append(bytes(fill))
    return fill


def _array(item: Union[Elements, Packed], values: Sequence[Any], out: List[bytes]) -> int:
    if isinstance(item, Elements):
        return _elements(item, values, out)
    return _packed(item, values, out)


def _put_array(item: Union[Elements, Packed]) -> Put:
    def put(value: Any, out: List[bytes]) -> int:
        return _array(item, getattr(value, item.name), out)
    return put


def _put_struct(name: str, tag: int, inner: Put) -> Put:
    word = tag << 8 | _STRUCT

    def put(value: Any, out: List[bytes]) -> int:
        parts: List[bytes] = []
        fill = inner(getattr(value, name), parts)
        data = b"".join(parts)
        out.append(PAIR.pack(word, len(data) - fill))
        out.append(data)
        return fill
    return put


def _put_list_block(item: ListBlock) -> Put:
    word = item.count_tag << 8 | CLASSES["u4"]

    def inner(values: Sequence[Any], out: List[bytes]) -> int:
        out.append(PAIR.pack(word, len(values)))
        return _array(item.array, values, out)
    return _put_struct(item.name, item.tag, inner)


def put_all(items: Sequence[Item]) -> Put:
    puts: List[Put] = []
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
