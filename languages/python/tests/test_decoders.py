"""Random input: the decoders raise nothing but ProtocolError, end, and grow with what has come."""

import json
import os
import random
import unittest
import unittest.mock

from .support import TOP, generate

from hublink import _wire
from hublink._connection import Connection
from hublink._endpoint import Endpoint
from hublink.errors import ProtocolError

SEED = int(os.environ.get("HUBLINK_SEED", "1"))
ROUNDS = int(os.environ.get("HUBLINK_ROUNDS", "1500"))
VECTORS = TOP / "languages" / "vectors"
WORDS = (0, 1, 44, 0x1604 << 4, 0x1624, 0x1710, 0x7FFFFFFF, 0xFFFFFFFF, 0x10000000)
TEXTS = (b"{", b"}", b"[", b"]", b"(", b")", b'"', b"\\", b" ", b":", b"\0", b"name:", b"msgs:",
         b"0xffffffff", b"null ", b"(0xffffff )[ ")


def vectors(name, key):
    return [bytes.fromhex(case[key]) for case in json.loads((VECTORS / name).read_text())]


class DecoderTest(unittest.TestCase):
    def setUp(self):
        self.random = random.Random(SEED)
        self.vectors = generate(VECTORS / "vectors.stp")

    def damaged(self, data, parts):
        """With some bytes changed, cut, doubled, or replaced by what means something."""
        data = bytearray(data)
        for _ in range(self.random.randint(1, 4)):
            place = self.random.randint(0, len(data))
            kind = self.random.randrange(4)
            if kind == 0:
                data[place:place + 1] = bytes([self.random.randrange(256)])
            elif kind == 1:
                del data[place:place + self.random.randint(1, 16)]
            elif kind == 2:
                data[place:place] = data[place:place + self.random.randint(1, 64)]
            else:
                part = self.random.choice(parts)
                data[place:place + len(part)] = part
        return bytes(data)

    def test_messages(self):
        parts = [_wire.WORD.pack(word) for word in WORDS]
        payloads = vectors("fields.json", "payload") + vectors("malformed.json", "payload")
        layouts = [message.fields for side in (self.vectors.VectorsLeft, self.vectors.VectorsRight)
                   for message in side._tables.sent]
        count = len(self.vectors.VectorsLeft._tables.tags)
        for _ in range(ROUNDS):
            payload = self.damaged(self.random.choice(payloads), parts)
            tags = list(range(count))
            if self.random.random() < 0.5:
                self.random.shuffle(tags)
            layout = self.random.choice(layouts)
            value = layout.decode(payload, tags)
            # What was read can be written.
            written = layout.encode(value)
            again = layout.decode(written, range(count))
            self.assertEqual(layout.encode(again), written)

    def test_conversations(self):
        payloads = vectors("records.json", "payload")
        messages = vectors("fields.json", "payload")
        reply = self.vectors.ConfirmReply(True)
        self.left = type("Left", (self.vectors.VectorsLeft,),
                         {"on_confirm": lambda self, message: reply})
        parts = [*TEXTS, *(_wire.WORD.pack(word) for word in WORDS)]
        for _ in range(ROUNDS // 3):
            connection = Connection(unittest.mock.Mock())
            connection._transport = unittest.mock.Mock()
            side = self.left(Endpoint(connection, 2, 1))
            for kind in (_wire.NEGOTIATION, _wire.BINARY, _wire.NEGOTIATION, _wire.BINARY):
                payload = self.damaged(self.random.choice(
                    payloads if kind == _wire.NEGOTIATION else messages), parts)
                header = _wire.Header(1, 2, 5, 0, kind, self.random.choice((0, 1, 1, 2, 99)),
                                      self.random.choice((0, 1, 2, 4, 16)), 5, 1)
                with self.silent():
                    connection._deliver(header, payload)
            self.assertEqual((connection.handlers, side._endpoint._running), (0, 0))

    @staticmethod
    def silent():
        return unittest.mock.patch("hublink.interface.log")

    def test_streams(self):
        streams = vectors("packets.json", "stream")
        parts = [_wire.WORD.pack(word) for word in WORDS]
        for _ in range(ROUNDS):
            stream = b"".join(self.damaged(self.random.choice(streams), parts)
                              for _ in range(self.random.randint(1, 3)))
            self.check_stream(stream)
        # A packet of a size that never comes.
        start = _wire.SIZES.pack(44, 0x0FFFFF00)
        self.check_stream(start + bytes(1 << 20))

    def check_stream(self, stream):
        connection = Connection(unittest.mock.Mock())
        connection._deliver = lambda header, payload: self.assertLessEqual(
            len(payload), len(stream))
        at = 0
        try:
            while at < len(stream):
                room = connection.get_buffer(-1)
                count = min(len(room), len(stream) - at,
                            self.random.choice((1, 3, 17, 1 << 16, 1 << 20)))
                room[:count] = stream[at:at + count]
                room.release()
                at += count
                connection._end += count
                connection._parse()
        except ProtocolError:
            pass
        self.assertLessEqual(len(connection._buffer), 4 * at + (256 << 10))
