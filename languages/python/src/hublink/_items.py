"""What a layout lists, an item for each field of a catalogue, and how numbers are stored."""

from typing import Any, NamedTuple, Union

CLASSES = {"u1": 0x21, "u2": 0x22, "u4": 0x24, "u8": 0x28, "f4": 0x34, "f8": 0x38}
SIZES = {"u1": 1, "u2": 2, "u4": 4, "u8": 8, "f4": 4, "f8": 8}
FORMATS = {"u1": "?", "u2": "H", "u4": "i", "u8": "Q", "f4": "f", "f8": "Q"}
PADDED = {"u1": "?3x", "u2": "H2x"}  # behind another field


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
    layout: Any  # a Layout


class ListBlock(NamedTuple):
    """A block of a count and its array, which is a list to authors."""

    name: str
    tag: int
    count_tag: int
    array: Union[Elements, Packed]


Item = Union[Scalar, Text, Count, Elements, Packed, Block, ListBlock]
