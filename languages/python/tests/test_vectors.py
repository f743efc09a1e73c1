"""The vectors of the C++ library: the same bytes are written, the same values read."""

import dataclasses
import json
import struct
import unittest
import unittest.mock

from .support import TOP, generate

from hublink import _wire, interface
from hublink._connection import Connection
from hublink._record import Record
from hublink.errors import ProtocolError, Refused

VECTORS = TOP / "languages" / "vectors"


def cases(name):
    return json.loads((VECTORS / name).read_text())


def side_of(catalogue, side):
    """By the catalogue's path or, of the vectors' own, its name."""
    module = generate(TOP / catalogue if "/" in catalogue else VECTORS / catalogue)
    spec = "Hublink" if "hublink" in catalogue else "Vectors"
    return getattr(module, spec + side.capitalize())._tables


def message_of(catalogue, name):
    """The message, and the tables of the side that takes it."""
    for side in ("left", "right"):
        tables = side_of(catalogue, side)
        for message in tables.received:
            if message.name == name:
                return message, tables
    raise KeyError(name)


def given(value, kind=None):
    """A value as authors have it."""
    if isinstance(value, dict) and len(value) == 1:
        form, text = next(iter(value.items()))
        if form == "%u8%":
            return int(text)
        if form in ("%f4%", "%f8%"):
            return struct.unpack(">f" if form == "%f4%" else ">d", bytes.fromhex(text))[0]
    if dataclasses.is_dataclass(kind):
        hints = {field.name: field for field in dataclasses.fields(kind)}
        return kind(**{name: given(part, type_of(hints[name])) for name, part in value.items()})
    if isinstance(value, list):
        element = None if kind is None else str
        return bytes(value) if kind is bytes else [given(part, element) for part in value]
    if value is None and kind is str:
        return ""
    return value


def type_of(field):
    """Of a field's value; None for a nullable text, or an array of such."""
    if "Optional" in str(field.type):
        return None
    if field.default is not dataclasses.MISSING:
        return type(field.default)
    return type(field.default_factory())


def same(left, right):
    """Equal, but for zeros of another sign, and with all that are no number equal."""
    if isinstance(left, float):
        return struct.pack("<d", left) == struct.pack("<d", right) or (
            left != left and right != right)
    if dataclasses.is_dataclass(left):
        return type(left) is type(right) and all(
            same(getattr(left, f.name), getattr(right, f.name)) for f in dataclasses.fields(left))
    if isinstance(left, list):
        return len(left) == len(right) and all(map(same, left, right))
    return left == right


class Transport:
    """Takes what a connection writes, without a socket."""

    def __init__(self):
        self.aborted = False

    def abort(self):
        self.aborted = True


class VectorTest(unittest.TestCase):
    def check_each(self, name, check):
        found = cases(name)
        self.assertGreater(len(found), 0)
        for case in found:
            with self.subTest(file=name, case=case["name"]):
                check(case)

    def check_message(self, case):
        message, tables = message_of("vectors.stp", case["message"])
        payload = bytes.fromhex(case["payload"])
        names = [tag.encode() for tag in case["tags"]] if "tags" in case else tables.tags
        tags = [names.index(tag) if tag in names else -1 for tag in tables.tags]
        value = given(case["value"], message.fields.type)
        found = message.fields.decode(payload, tags)
        self.assertTrue(same(found, value), f"{found} isn't {value}")
        if case.get("writes"):
            self.assertEqual(message.fields.encode(value).hex(), case["payload"])

    def test_fields(self):
        self.check_each("fields.json", self.check_message)

    def test_malformed(self):
        self.check_each("malformed.json", self.check_message)

    def test_plain(self):
        self.check_each("plain.json", self.check_plain)

    def check_plain(self, case):
        payload, value = bytes.fromhex(case["payload"]), bytes.fromhex(case["value"])
        self.assertEqual(_wire.plain_bytes(payload), value)
        if case.get("writes"):
            self.assertEqual(_wire.make_plain(1, 2, 3, 4, 5, value)[44:], payload)

    def test_packets(self):
        for step in (1, 7, 1 << 20):
            self.check_each("packets.json", lambda case: self.check_stream(case, step))

    def check_stream(self, case, step):
        loop = unittest.mock.Mock()
        connection = Connection(loop)
        connection._transport = Transport()
        packets = []
        connection._deliver = lambda header, payload: packets.append((header, payload))
        stream = bytes.fromhex(case["stream"])
        if case["verdict"] == "refused":
            self.assertRaises(ProtocolError, self.feed_raw, connection, stream, step)
        else:
            self.feed_raw(connection, stream, step)
            rest = connection._end - connection._start
            self.assertEqual(rest > 0, case["verdict"] == "incomplete" and stream != b"")
        self.assertEqual(len(packets), len(case["packets"]))
        written = b""
        for (header, payload), wanted in zip(packets, case["packets"]):
            self.check_packet(header, payload, wanted)
            written += _wire.make_packet(header, payload)
        if case.get("writes"):
            self.assertEqual(written, stream)

    @staticmethod
    def feed_raw(connection, stream, step):
        for at in range(0, len(stream), step):
            part = stream[at:at + step]
            while part:
                room = connection.get_buffer(-1)
                count = min(len(room), len(part))
                room[:count] = part[:count]
                room.release()
                connection._end += count
                part = part[count:]
                connection._parse()

    def check_packet(self, header, payload, wanted):
        found = dict(header._asdict(), payload=payload.hex())
        self.assertEqual(found, dict(wanted))

    def test_records(self):
        self.check_each("records.json", self.check_record)

    def check_record(self, case):
        tables = side_of(case["catalogue"], case["side"])
        payload = bytes.fromhex(case["payload"])
        record = Record()
        record.take(payload, tables.tags, tables.sent_names)
        peer = interface._Peer(tables, record)
        sends = {}
        for message in tables.sent:
            entry = peer.entries.get(message.key)
            known = entry is not None and entry.id != _wire.NO_MESSAGE
            sends[message.name] = {"id": entry.id, "flags": entry.flags} if known else None
        vstamp = None if record.vstamp is None else record.vstamp.decode()
        found = {"name": record.name.decode(), "vstamp": vstamp, "flags": record.flags,
                 "tags": {tag.decode(): number for tag, number in record.tags.items()
                          if not tag.endswith(b"!")},
                 "sends": sends}
        if "hublink" in case["catalogue"]:
            found["tags"].pop("_refused", None)  # the hub doesn't refuse
        self.assertEqual(found, case["peer"])
        if "writes" in case:
            writer = side_of(case["writes"]["catalogue"], case["writes"]["side"])
            self.assertEqual(writer.record, payload)

    def test_versions(self):
        self.check_each("versions.json", self.check_version)

    def check_version(self, case):
        files = {1: "vectors.stp", 2: "vectors_2.stp"}
        written, writer = message_of(files[case["writer"]], case["message"])
        read, reader = message_of(files[case["reader"]], case["message"])
        payload = bytes.fromhex(case["payload"])
        record = Record()
        record.take(writer.record, reader.tags, [])
        peer = interface._Peer(reader, record)
        if case["verdict"] == "refusal":
            with self.assertRaises(Refused) as caught:
                peer.reply_of(read, payload)
            self.assertEqual(str(caught.exception), case["refusal"])
            return
        is_reply = case["part"] == "reply"
        layout = written.reply if is_reply else written.fields
        self.assertEqual(layout.encode(given(case["given"], layout.type)), payload)
        layout = read.reply if is_reply else read.fields
        found = peer.reply_of(read, payload) if is_reply else peer.decoder(layout)(payload)
        self.assertTrue(same(found, given(case["value"], layout.type)), found)
