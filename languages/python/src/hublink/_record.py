"""The record that each side sends of itself at the start, and the reading of the other's.

A record is one text: fields `name:value`, words, quoted texts, numbers, blocks and arrays. Its
lists are sorted by byte value. Nothing that the other side announces is trusted for a size, and
what is missing or garbled reads as nothing.
"""

import copy
import re
from typing import Dict, List, NamedTuple, Optional, Sequence, Tuple

_MOST_EXTRA_MESSAGES = 65536  # messages that this side doesn't know
_MOST_EXTRA_BYTES = 4 << 20
_SEARCHES_PER_TEXT = 16
_SMALL_TEXT = 0x10000

_BLANKS = re.compile(rb" *")
_NUMBER = re.compile(rb"[ \x08-\x0d]*([+-]?)(?:0[xX]([0-9a-fA-F]+)|(0[0-7]*)|([1-9][0-9]*))")
_QUOTED = re.compile(rb'"(?:[^"\\\0]|\\[^\0])*')
_TO_QUOTE = re.compile(rb'[^"\0]*')
_WORD = re.compile(rb"[^ \0]*")
_PLAIN_WORD = re.compile(rb"[^\0]?[^ \]}\0]*")
_TO_COLON = re.compile(rb"[^:\0]*")
_TO_PAREN = re.compile(rb"[^)\0]*")
_IN_BLOCK = re.compile(rb'[^"{\[}\0]*')
_ESCAPE = re.compile(rb"\\(.)", re.DOTALL)


class MessageEntry(NamedTuple):
    """A message that a side takes."""

    name: bytes
    id: int
    flags: int


class AsciiReader:
    """Reads the ascii form: fields by name or in order, blocks and arrays."""

    def __init__(self, payload: bytes) -> None:
        self._text = payload + bytes(4)
        self._size = len(payload)
        self._place = 0   # the cursor
        self._field = 0   # the next field or value of the level, as far as it was read in order
        # Bytes that searches may still step over: a text can be made so that every value in it
        # runs to its end.
        self._budget = _SEARCHES_PER_TEXT * (self._size + 44) + _SMALL_TEXT
        self._index: Optional[Tuple[int, int, List[Tuple[int, bytes]]]] = None

    def _blanks(self, place: int) -> int:
        found = _BLANKS.match(self._text, place)
        return found.end() if found else place

    def _behind(self, pattern: "re.Pattern[bytes]", place: int) -> int:
        found = pattern.match(self._text, place)
        return found.end() if found else place

    def _closes(self, place: int) -> bool:
        return self._text[place] in b"]}\0"

    # --- Stepping over values ---

    def _behind_quoted(self, place: int) -> int:
        end = self._behind(_QUOTED, place)
        if self._text[end] == 0x5C:  # a backslash in front of the end
            end += 1
        return end + 1 if self._text[end] == 0x22 else end

    def _behind_value(self, place: int) -> int:
        text = self._text
        open_: List[bool] = []  # of each open bracket whether it is an array's
        while True:
            if text[place] == 0x28:
                place = self._behind(_TO_PAREN, place)
                if text[place] != 0:
                    place = self._blanks(place + 1)
            byte = text[place]
            if byte == 0x22:
                place = self._behind_quoted(place)
            elif byte in b"{[":
                open_.append(byte == 0x5B)
                place += 1
            else:
                place = self._behind(_PLAIN_WORD, place)
            place = self._blanks(place)
            while open_ and text[place] != 0:
                closing = 0x5D
                if not open_[-1]:
                    closing = 0x7D
                    place = self._behind(_IN_BLOCK, place)
                if text[place] != closing:
                    break
                open_.pop()
                place = self._blanks(place + 1)
            if not open_ or text[place] == 0:
                return place

    def _skip_value(self, place: int) -> int:
        if self._budget < 0:
            return self._size
        behind = self._behind_value(place)
        self._budget -= behind - place
        return behind

    # --- Fields by name ---

    def find(self, name: bytes) -> bool:
        """Moves to the value of a field; False if it isn't there."""
        place = self._size if self._budget < 0 else self._blanks(self._field)
        sequential = place == self._blanks(self._place)
        if not sequential:
            self._place = place
        if self._closes(place):
            return False
        is_next = self._text.startswith(name + b":", place)
        field = place if is_next else self._find_from(place, name)
        if field is None:
            return False
        self._place = value = self._blanks(field + len(name) + 1)
        if is_next and sequential:
            self._field = self._skip_value(value)
        return True

    def _find_from(self, place: int, name: bytes) -> Optional[int]:
        index = self._index
        if index is None or not index[0] <= place < index[1] or all(
                at != place for at, _ in index[2]):
            fields: List[Tuple[int, bytes]] = []
            at = place
            while not self._closes(at):
                colon = self._behind(_TO_COLON, at)
                self._budget -= colon - at
                if self._text[colon] == 0:
                    break
                fields.append((at, self._text[at:colon]))
                at = self._skip_value(self._blanks(colon + 1))
            if not fields:
                return None
            index = self._index = (place, at, fields)
        for at, known in index[2]:
            if at >= place and known == name:
                return at
        return None

    # --- Values ---

    def number(self) -> int:
        """A number of 32 bits, all ones if it needs more; 0 if there is none."""
        found = _NUMBER.match(self._text, self._place)
        if not found:
            return 0
        sign, hexadecimal, octal, decimal = found.groups()
        self._place = found.end()
        digits = hexadecimal or octal or decimal
        if len(digits.lstrip(b"0")) > 11:
            return 0xFFFFFFFF
        value = int(digits, 16 if hexadecimal else 8 if octal else 10)
        if value > 0xFFFFFFFF:
            return 0xFFFFFFFF
        return -value & 0xFFFFFFFF if sign == b"-" else value

    def number_of(self, name: bytes) -> int:
        return self.number() if self.find(name) else 0

    def string(self) -> Optional[bytes]:
        """A quoted text without its quotes and escapes; None for "null " and for anything else."""
        place = self._blanks(self._place)
        if self._text[place] != 0x22:
            self._place = place + 5 if self._text.startswith(b"null ", place) else place
            return None
        behind = self._place = self._behind_quoted(place)
        inner = self._text[place + 1:behind]
        if inner.endswith(b'"') and self._behind(_QUOTED, place) == behind - 1:
            inner = inner[:-1]
        return _ESCAPE.sub(lambda found: b"\n" if found[1] == b"n" else found[1], inner)

    def string_of(self, name: bytes) -> Optional[bytes]:
        return self.string() if self.find(name) else None

    def word(self) -> bytes:
        """The characters up to the next blank; brackets don't end a word."""
        place = self._blanks(self._place)
        behind = self._behind(_WORD, place)
        self._field = self._place = self._blanks(behind)
        return self._text[place:behind]

    def word_of(self, name: bytes) -> bytes:
        mark = self._field
        if not self.find(name):
            return b""
        in_order = self._field != mark
        word = self.word()
        if not in_order:
            self._field = mark
        return word

    # --- Blocks and arrays ---

    def _to_end(self) -> None:
        ends = self._size >= 4 and self._text[self._size - 4] == 0
        self._place = self._size - 4 if ends else self._size

    def _step_into(self, bracket: int) -> None:
        place = self._blanks(self._place)
        if self._text[place] == bracket:
            self._place = place + 1
        else:
            self._to_end()
        self._field = self._place

    def _step_out(self, bracket: int, saved: int) -> None:
        place = self._blanks(self._place)
        if self._text[place] == bracket:
            self._place = place + 1
        else:
            self._to_end()
        self._field = saved

    def enter_block(self) -> int:
        saved = self._field
        self._step_into(0x7B)
        return saved

    def leave_block(self, saved: int) -> None:
        self._step_out(0x7D, saved)

    def enter_array(self) -> Tuple[int, int]:
        """The size in front of the array, 0 if there is none, and what leave_array() needs."""
        saved, size = self._field, 0
        place = self._blanks(self._place)
        if self._text[place] == 0x28:
            self._place = place + 1
            size = self.number()
            place = self._blanks(self._place)
            if self._text[place] == 0x29:
                place += 1
            self._place = place = self._blanks(place)
        present = self._text[place] == 0x5B
        self._step_into(0x5B)
        return (size if present else 0), saved

    def leave_array(self, saved: int) -> None:
        self._step_out(0x5D, saved)

    def next_value(self) -> bool:
        """Walks the elements of an array; False at its end."""
        self._place = place = self._blanks(self._field)
        if self._closes(place):
            return False
        self._field = self._skip_value(place)
        return True


class Record:
    """What a side has said of itself, in one record or in several."""

    def __init__(self) -> None:
        self.name = b""
        self.vstamp: Optional[bytes] = None
        self.flags = 0
        self.tags: Dict[bytes, int] = {}                 # those of this side's names
        self.messages: Dict[bytes, MessageEntry] = {}    # all that it takes
        self.lists_messages = False  # else it takes what this side knows, by this side's numbers
        self._extra_bytes = 0
        self._extras = 0

    def copy(self) -> "Record":
        record = copy.copy(self)
        record.tags, record.messages = dict(self.tags), dict(self.messages)
        return record

    def take(self, payload: bytes, tag_names: Sequence[bytes],
             message_names: Sequence[bytes]) -> None:
        """Reads a record; both lists are this side's and sorted.

        Names of the record that aren't in their order are passed over.
        """
        reader = AsciiReader(payload)
        self.name = reader.word_of(b"name")
        self.vstamp = reader.string_of(b"vstamp")
        self.flags = reader.number_of(b"flags")
        if reader.find(b"tags"):
            self._take_tags(reader, tag_names)
        if reader.find(b"msgs"):
            self.lists_messages = True
            self._take_messages(reader, message_names)

    def _take_tags(self, reader: AsciiReader, names: Sequence[bytes]) -> None:
        size, saved = reader.enter_array()
        known = 0
        position = 0
        while position < size and reader.next_value():
            word = reader.word()
            while known < len(names) and names[known] < word:
                known += 1
            if word and known < len(names) and names[known] == word:
                self.tags[word] = position
            position += 1
        reader.leave_array(saved)

    def _take_messages(self, reader: AsciiReader, names: Sequence[bytes]) -> None:
        size, saved = reader.enter_array()
        known = 0
        position = 0
        while position < size and reader.next_value():
            position += 1
            block = reader.enter_block()
            number = reader.number_of(b"id")
            name = reader.word_of(b"name")
            flags = reader.number_of(b"flags")
            reader.leave_block(block)
            if not name:
                continue
            while known < len(names) and names[known] < name:
                known += 1
            if known < len(names) and names[known] == name:
                self.messages[name] = MessageEntry(name, number, flags)
            elif name not in names:
                self._take_extra(MessageEntry(name, number, flags))
        reader.leave_array(saved)

    def _take_extra(self, entry: MessageEntry) -> None:
        """A message that this side doesn't know."""
        if entry.name not in self.messages:
            if self._extras >= _MOST_EXTRA_MESSAGES or self._extra_bytes >= _MOST_EXTRA_BYTES:
                return
            self._extras += 1
            self._extra_bytes += len(entry.name)
        self.messages[entry.name] = entry


def make_record(name: str, vstamp: str, flags: int, tags: Sequence[bytes],
                messages: Sequence[Tuple[bytes, int]]) -> bytes:
    """The payload of a record; `messages` are names and flags in the order of their numbers."""
    quoted = (vstamp.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n"))
    text = f'name:{name} vstamp:"{quoted}" flags:0x{flags:x} tags:(0x{len(tags):x} )[ '.encode()
    text += b"".join(tag + b" " for tag in tags)
    text += f" ] msgs:(0x{len(messages):x} )[ ".encode()
    text += b"".join(b"{ id:0x%x name:%b flags:0x%x  } " % (number, name_, flags_)
                     for number, (name_, flags_) in enumerate(messages))
    text += b" ] "
    return text + bytes(-len(text) % 4 + 4)


def make_formats(messages: Sequence[Tuple[bytes, str]]) -> bytes:
    """The answer to a question for the formats of the messages that a side takes."""
    text = b"msgs:(0x%x )[ " % len(messages)
    text += b"".join(b'{ name:%b fmt:"%b"  } ' % (name, format_.encode())
                     for name, format_ in messages)
    text += b" ] "
    return text + bytes(-len(text) % 4 + 4)
