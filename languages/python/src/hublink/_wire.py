"""The packet format: headers, the test that a receiver applies, and packets of plain bytes.

A stream is an unbroken sequence of packets. A packet is a header of little-endian words, a
payload, and fill up to the next multiple of 4. docs/wire_format.md tells the whole of it.
"""

import struct
from typing import NamedTuple, Optional, Union

from .errors import ProtocolError

Buffer = Union[bytes, bytearray, memoryview]

HEADER_SIZE = 44
MIN_HEADER_SIZE = 32
MAX_HEADER_SIZE = 128
MAX_PACKET_SIZE = 0x10000000

HUB_RN = 1
PLUGIN_RN = 2

NEGOTIATION = 12
BINARY = 15
PLAIN = 16
RESPONSE = 0xFFFFFFFF

NEGOTIATE = 1
FORMAT_QUERY = 2
READY = 3

NO_MESSAGE = 0xFFFFFFFF

WANTS_RESPONSE = 0x01
ONE_WAY = 0x02
IN_CHAIN_ONLY = 0x04
ANY_TIME = 0x10
HOLD_OTHERS = 0x40

TAKES_UNLISTED = 0x01  # flag of a side: messages that it doesn't list may be sent to it

HEADER = struct.Struct("<2I2i7I")
HEADER_BEHIND_SIZES = struct.Struct("<2i7I")
SIZES = struct.Struct("<2I")
WORD = struct.Struct("<I")
PAIR = struct.Struct("<2I")
END_WORD = bytes(4)
FILL = (b"", bytes(3), bytes(2), bytes(1))  # by the size modulo 4

_PLAIN_WORD = 0x150  # the field of a packet of plain bytes: tag 1, an array without its count
_PLAIN_HEADER = struct.Struct("<2I2i7I2I")
MAX_PLAIN_SIZE = MAX_PACKET_SIZE - 128


class Header(NamedTuple):
    """The words of a packet's header behind the two sizes."""

    source: int
    destination: int
    sequence: int
    response_to: int
    type: int
    id: int
    flags: int
    chain: int
    depth: int


def check_sizes(header: int, payload: int) -> None:
    """Raises ProtocolError unless a packet may have these two sizes."""
    if (header < MIN_HEADER_SIZE or header > MAX_HEADER_SIZE or header & 3
            or header + payload > MAX_PACKET_SIZE):
        raise ProtocolError(f"no packet has {header} + {payload} bytes")


def read_header(packet: Buffer, start: int, size: int) -> Header:
    """The words of a header of `size` bytes; those that it lacks are 0."""
    if size >= HEADER_SIZE:
        return Header._make(HEADER_BEHIND_SIZES.unpack_from(packet, start + 8))
    whole = bytes(packet[start:start + size]) + bytes(HEADER_SIZE - size)
    return Header._make(HEADER_BEHIND_SIZES.unpack_from(whole, 8))


def make_packet(header: Header, payload: bytes) -> bytes:
    """A packet of a payload whose end word, if it has one, is in it."""
    size = len(payload)
    return HEADER.pack(HEADER_SIZE, size, *header) + payload + FILL[size & 3]


def make_plain(source: int, destination: int, sequence: int, chain: int, depth: int,
               data: Buffer) -> bytes:
    """A packet of plain bytes."""
    size = len(data)
    fill = -size & 3
    head = _PLAIN_HEADER.pack(HEADER_SIZE, 12 + size + fill, source, destination, sequence, 0,
                              PLAIN, 0, ONE_WAY, chain, depth, _PLAIN_WORD, size)
    return b"".join((head, data, bytes(4 + fill)))


def plain_bytes(payload: bytes) -> Optional[bytes]:
    """The bytes of a packet of type PLAIN; None for one that isn't well-formed."""
    if len(payload) < 8:
        return None
    size = WORD.unpack_from(payload, 4)[0]
    if size > len(payload) - 8:
        return None
    return payload[8:8 + size]
