"""Reading the fields of a binary message by the sender's tags.

Nothing here fails: what is missing or cut short reads as 0, None or an empty range, and no read
goes past the message, whatever its bytes say. Fields that are read in the order in which they were
written cost one step each; for the others an index of the range is made once.
"""

import struct
from typing import Dict, List, NamedTuple, Optional, Tuple

from ._wire import WORD

_U16 = struct.Struct("<H")
_F4 = struct.Struct("<f")
_U8 = struct.Struct("<Q")
_F8 = struct.Struct("<d")

COUNT_TAG = 22
ELEMENT_TAG = 23
_COUNT_WORD = COUNT_TAG << 8 | 0x24


class Count(NamedTuple):
    """A count field, read before the array that it counts."""

    value: int
    behind: int  # offset of what follows the field; 0 if the field isn't there


_NO_COUNT = Count(0, 0)


class Range(NamedTuple):
    """Of the payload: what is read at present."""

    start: int
    end: int
    fields: Optional[Dict[int, int]] = None  # the index


class Reader:
    """The fields of one message, or of the block or array in it that was entered."""

    def __init__(self, payload: bytes) -> None:
        self._data = payload
        self._start = 0               # of the search for fields
        self._end = len(payload)
        self._cursor = 0
        self._limit = self._end       # of the value that is read
        self._index: Optional[Dict[int, int]] = None  # of the range: fields by tag
        # Where pointer arrays stand that were entered: their fields have the same tags as others.
        self._entered: List[Range] = []

    # --- Bare values at the cursor ---

    def _word(self) -> int:
        at = (self._cursor + 3) & ~3
        if at + 4 > self._limit:
            self._cursor = self._limit
            return 0
        self._cursor = at + 4
        word: int = WORD.unpack_from(self._data, at)[0]
        return word

    def _pair(self) -> int:
        high = self._word()
        return high << 32 | self._word()

    # --- Fields ---

    def _find(self, tag: int) -> bool:
        """Moves to the value of the first field with this tag; False if there is none."""
        sequential = self._start == self._cursor
        self._cursor = self._start
        self._limit = end = self._end
        if tag < 0:
            self._limit = self._cursor
            return False
        jumps = tag != COUNT_TAG and tag != ELEMENT_TAG
        while True:
            word = self._word()
            if word == 0:
                self._limit = self._cursor
                return False
            length = word & 0x0F
            if length == 0:
                length = self._word()
            cursor = self._cursor
            if word >> 8 == tag and (jumps or not self._is_entered(cursor)):
                break
            sequential = False
            if jumps:
                jumps = False
                self._cursor = self._place_of(tag)
            else:
                self._cursor = cursor + min(length, end - cursor)
        if word & 0xF0 == 0x10:
            cursor -= 4  # the reader of texts takes the length word itself
            length += 4
            self._cursor = cursor
        if length < end - cursor:
            self._limit = cursor + length
        if sequential:
            self._start = self._limit
        return True

    def _place_of(self, tag: int) -> int:
        """Where the first field of a tag stands that isn't one of an array's; else the end."""
        if self._index is None:
            self._index = self._fields_from(self._start)
        place = self._index.get(tag, self._end)
        # The one that the index knows was read before.
        return place if place >= self._start else self._start

    def _fields_from(self, offset: int) -> Dict[int, int]:
        """The first field of each tag."""
        data, end = self._data, self._end
        found: Dict[int, int] = {}
        at = (offset + 3) & ~3
        unpack = WORD.unpack_from
        while at + 4 <= end:
            word = unpack(data, at)[0]
            if word == 0:
                break
            found.setdefault(word >> 8, at)
            length = word & 0x0F
            at += 4
            if length == 0:
                if at + 4 > end:
                    break
                length = unpack(data, at)[0]
                at += 4
            at = (at + length + 3) & ~3
        return found

    def _is_entered(self, offset: int) -> bool:
        for entered in self._entered:
            if self._start <= entered.start < offset <= entered.end:
                return True
        return False

    def byte(self, tag: int) -> int:
        self._find(tag)
        if self._cursor >= self._limit:
            self._cursor = self._limit
            return 0
        self._cursor += 1
        return self._data[self._cursor - 1]

    def u1(self, tag: int) -> bool:
        return self.byte(tag) != 0

    def u2(self, tag: int) -> int:
        self._find(tag)
        at = (self._cursor + 1) & ~1
        if at + 2 > self._limit:
            self._cursor = self._limit
            return 0
        self._cursor = at + 2
        value: int = _U16.unpack_from(self._data, at)[0]
        return value

    def u4(self, tag: int) -> int:
        self._find(tag)
        word = self._word()
        return word - 0x100000000 if word >= 0x80000000 else word

    def u8(self, tag: int) -> int:
        self._find(tag)
        return self._pair()

    def f4(self, tag: int) -> float:
        self._find(tag)
        value: float = _F4.unpack(WORD.pack(self._word()))[0]
        return value

    def f8(self, tag: int) -> float:
        self._find(tag)
        value: float = _F8.unpack(_U8.pack(self._pair()))[0]
        return value

    def text(self, tag: int) -> Optional[str]:
        """None for a null text and a missing field. Bytes that are no UTF-8 are kept escaped."""
        self._find(tag)
        length = self._word()
        if length > self._limit - self._cursor:
            self._cursor = self._limit
            return None
        if length <= 0:
            return None
        start = self._cursor
        self._cursor = end = start + length
        data = self._data[start:end]
        zero = data.find(0)
        if zero >= 0:
            data = data[:zero]
        return data.decode("utf-8", "surrogateescape")

    def enter(self, tag: int) -> Range:
        """Makes a block, or the value of an array, the range of the following reads."""
        self._find(tag)
        saved = Range(self._start, self._end, self._index)
        self._start, self._end, self._index = self._cursor, self._limit, None
        return saved

    def leave(self, saved: Range) -> None:
        self._start, self._end, self._index = saved

    # --- Arrays ---

    def count(self, tag: int) -> Count:
        present = self._find(tag)
        value = self._word()
        return Count(value, self._limit) if present else _NO_COUNT

    def enter_elements(self, count: Count) -> Tuple[int, Range]:
        """Makes the elements that `count` belongs to the range of the following reads.

        Gives how many there are. The array is the first behind the count field that has that many
        elements and hasn't been entered yet; one directly behind it is taken in any case.
        """
        begin = max(count.behind, self._start)
        self._limit = self._end
        array, first, held = Range(begin, begin), begin, 0
        start = begin if count.behind != 0 else self._end
        while True:
            self._cursor = start
            word, value, behind = self._step_over()
            if word == 0:
                break
            if word == _COUNT_WORD and not self._is_entered(behind):
                number, end = 0, behind
                while number < value:
                    element, _, element_end = self._step_over()
                    if element >> 8 != ELEMENT_TAG:
                        break
                    number, end = number + 1, element_end
                matches = number == count.value == value
                if matches or start == begin:
                    array, first, held = Range(start, end), behind, number
                if matches:
                    break
            start = behind
        saved = Range(self._start, self._end, self._index)
        if array.start == self._start:
            saved = saved._replace(start=array.end)
        elif array.end != begin:
            self._entered.append(array)
        self._start, self._end, self._index = first, array.end, None
        self._cursor = first
        return held, saved

    def _step_over(self) -> Tuple[int, int, int]:
        """Word, first word of the value, and end of the field at the cursor."""
        word = self._word()
        length = word & 0x0F
        if word != 0 and length == 0:
            length = self._word()
        cursor, value = self._cursor, 0
        if length == 4 and self._limit - cursor >= 4:
            value = WORD.unpack_from(self._data, cursor)[0]
        self._cursor = cursor + min(length, self._limit - cursor)
        return word, value, self._cursor

    def packed(self, tag: int, size: int) -> Tuple[int, bytes]:
        """The number and the bytes of the values of an array, each of `size` bytes."""
        saved = self.enter(tag)
        announced = self._word()
        held = max(self._limit - self._cursor, 0) // size
        number = min(announced, held)
        start = self._cursor
        if number > 0 and size > 1:
            align = min(size, 4) - 1
            start = (start + align) & ~align
        data = self._data[start:start + number * size]
        self._cursor = self._limit if announced > held else start + number * size
        self.leave(saved)
        return number, data

    def has(self, tag: int) -> bool:
        """Whether the message has the field; the reading begins anew."""
        found = self._find(tag)
        self._start = self._cursor = 0
        return found


def pair_of_f8(value: float) -> int:
    """A double as the number of 8 bytes that it is on the wire."""
    bits: int = _U8.unpack(_F8.pack(value))[0]
    return bits


def swap_words(value: int) -> int:
    """A number of 8 bytes has its high word first."""
    return (value & 0xFFFFFFFF) << 32 | value >> 32
