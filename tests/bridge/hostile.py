"""A member of the realm that means ill, on the NATS server, in the protocol's own words.

    hostile.py HOST PORT TARGET [PASSWORD]

Speaks as the machine "eve" to the bridge of TARGET, reads along, and forges what others say. With a
password it is the user "eve" of a server that holds each to its name: it reads nothing of others
then, and sends them away in vain. Prints what it was given that it shouldn't have got, then
"done"."""

import json
import os
import random
import socket
import struct
import sys
import time

OPEN, OPENED, DATA, CREDIT, CLOSE, VALUE, VALUED = range(1, 8)
FIRST, NAK, RESET = 1, 2, 4
FLOOD = 20000
PLUGINS = 1300  # that one machine shows, more than it may have at once


class Server:
    """A connection to nats-server: text lines, and payloads behind some."""

    def __init__(self, host, port, password):
        self.socket = socket.create_connection((host, port))
        self.stream = self.socket.makefile("rb")
        self.stream.readline()
        self.violations = 0
        own = {"user": "eve", "pass": password} if password else {}
        self.send(b"CONNECT %s\r\n" % json.dumps(
            {"verbose": False, "headers": True, "lang": "none", "version": "0", **own}).encode())
        # What she may read by the server's permissions, and what she would like to.
        for number, subject in enumerate((b"eve.>", b"all.>") if password else (b">",)):
            self.send(b"SUB hublink.test.%s %d\r\n" % (subject, number))
        if password:
            self.send(b"SUB hublink.test.> 9\r\n")
        self.barrier()

    def send(self, data):
        self.socket.sendall(data)

    def publish(self, to, sender, what, payload=b"", headers=None):
        subject = f"hublink.test.{to}.{sender}.{what}"
        if headers is None:
            self.send(b"PUB %s %d\r\n%s\r\n" % (subject.encode(), len(payload), payload))
            return
        head = "NATS/1.0\r\n" + "".join(f"{k}: {v}\r\n" for k, v in headers.items()) + "\r\n"
        self.send(b"HPUB %s %d %d\r\n%s%s\r\n" % (
            subject.encode(), len(head), len(head) + len(payload), head.encode(), payload))

    def next(self):
        """Subject, payload and header lines of the next message; None for the answer to a PING."""
        while True:
            words = self.stream.readline().split()
            if not words:
                sys.exit("the server has closed the connection")
            if words[0] == b"PONG":
                return None
            if words[0] == b"PING":
                self.send(b"PONG\r\n")
            if words[0] == b"-ERR":
                self.violations += 1
            if words[0] in (b"MSG", b"HMSG"):
                payload = self.stream.read(int(words[-1]))
                self.stream.readline()
                head = int(words[-2]) if words[0] == b"HMSG" else 0
                return words[1].decode(), payload[head:], payload[:head].decode().splitlines()

    def barrier(self):
        self.send(b"PING\r\n")
        while self.next() is not None:
            pass

    def gathered(self, seconds):
        """What comes within a time."""
        messages = []
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.send(b"PING\r\n")
            while (message := self.next()) is not None:
                messages.append(message)
            time.sleep(0.02)
        return messages


def text(value):
    return struct.pack("<I", 0xFFFFFFFF) if value is None else (
        struct.pack("<I", len(value)) + value)


def frame(kind, link, body=b""):
    return struct.pack("<BII", kind, len(body), link) + body


def message(session, sequence, frames=b"", ack=1, window=1 << 20, flags=FIRST):
    return struct.pack("<QQQIB3x", session, sequence, ack, window, flags) + frames


def wish(link, service, flags=2, provider=-1, requester=77):
    return frame(OPEN, link, struct.pack("<IiB", requester, provider, flags) + text(service)
                 + text(b"eve")
                 + text(None) + struct.pack("<I", 0))


def frames_of(payload):
    place = 32
    while place + 9 <= len(payload):
        kind, size, link = struct.unpack_from("<BII", payload, place)
        yield kind, link, payload[place + 9:place + 9 + size]
        place += 9 + size


def main():
    host, port, target, *password = sys.argv[1:]
    is_bound = bool(password)
    server = Server(host, int(port), password[0] if is_bound else None)
    mine = {"Hublink-Incarnation": "e1", "Hublink-Since": 1, "Hublink-State": 1,
            "Hublink-Version": "x", "Hublink-Page": "1/1"}
    server.publish("all", "eve", "state", b'{"services":[]}', mine)

    # What isn't exported, the hub itself, a program that a pattern doesn't have started.
    session = random.getrandbits(64)
    names = [b"Secret", b"hublink.status", b"hublink.abroad", b"Startable", b"", b"x" * 5000]
    opens = b"".join(wish(number, name) for number, name in enumerate(names))
    named = [(b"Echo", n) for n in (0, 1, 999999)] + [(b"Stars", n) for n in range(1, 20)]
    opens += b"".join(wish(100 + i, name, provider=n) for i, (name, n) in enumerate(named))
    asked = b"".join(frame(VALUE, 0, struct.pack("<Iii", n, n, 77) + text(b"color"))
                     for n in range(20))
    server.publish(target, "eve", "session", message(session, 1, opens + asked))
    answers = {}
    got = []
    heard = []
    for subject, payload, head in server.gathered(2.5):
        heard.append((subject, payload, head))
        if subject != f"hublink.test.eve.{target}.session":
            continue
        for kind, link, body in frames_of(payload):
            if kind == OPENED:
                answers[link] = body[0]
            elif kind == VALUED and body[4:] != text(None):
                got.append(f"a value: {body}")
            elif kind == DATA:
                got.append("data")
    got += [f"link {link}: {outcome}" for link, outcome in answers.items() if outcome != 2]
    if len(answers) != len(names) + len(named):
        got.append(f"{len(answers)} answers only")

    # Ever new plugins, each with a link that ends. The last is served like the first.
    session = random.getrandbits(64)
    served = 0
    for sequence in range(1, PLUGINS // 100 + 1):
        numbers = range(sequence * 100, sequence * 100 + 100)
        server.publish(target, "eve", "session", message(session, 2 * sequence - 1, b"".join(
            wish(number, b"Echo", requester=number) for number in numbers)))
        while served < sequence * 100:
            served += sum(kind == OPENED and body[0] == 0 for _, payload, _ in server.gathered(0.05)
                          for kind, _, body in frames_of(payload))
        server.publish(target, "eve", "session", message(session, 2 * sequence, b"".join(
            frame(CLOSE, number) for number in numbers)))
    # Others' words again, in another order, and with a bit of their own.
    spoken = [one for one in heard if one[0].endswith(".session") and ".eve." not in one[0]]
    if bool(spoken) == is_bound:
        got.append(f"{len(spoken)} messages of others")
    for subject, payload, _ in random.sample(spoken, min(len(spoken), 500)):
        _, _, to, sender, what = subject.split(".")
        server.publish(to, sender, what, payload)
    if is_bound:
        # Each is heard to be alive: with what it says there, it is said to have gone.
        alive = {subject.split(".")[3]: head[1:-1] for subject, _, head in heard
                 if subject.endswith(".alive")}
        if len(alive) < 2:
            got.append(f"{alive} alive")
        before = server.violations
        for sender, head in alive.items():
            server.publish("all", sender, "bye", b"", dict(line.split(": ") for line in head))
        server.barrier()
        if server.violations != before + len(alive):
            got.append(f"{server.violations - before} refusals")
    # Sizes beyond all bounds, kinds that there are not, windows of nothing, sequences from afar.
    huge = struct.pack("<BII", DATA, 0xFFFFFFFF, 1)
    for damaged in (b"", b"x", message(1, 1)[:20], message(1, 1, huge),
                    message(1, 1, frame(99, 1)), message(1, 1, window=0),
                    message(1, 1, frame(OPEN, 1, b"\xff" * 50)),
                    message(1, 2**63, frame(CLOSE, 1)), message(1, 1, ack=2**64 - 1),
                    message(1, 1, flags=0xFF), message(1, 1, frame(CREDIT, 1, b"\xff" * 4)),
                    message(1, 1, frame(DATA, 1, bytes(100000))),
                    message(1, 1, frame(OPENED, 1, bytes(12)))):
        server.publish(target, "eve", "session", damaged)
        server.publish(target, f"eve{random.random():.6f}".replace(".", ""), "session", damaged)
    # What isn't JSON, isn't a page, isn't a name.
    for page in ("0/0", "2/1", "1/999999999", "x"):
        server.publish("all", "eve", "state", b"{" * 1000, {**mine, "Hublink-Page": page})
    server.publish("all", "a b", "alive")
    server.publish("all", "all", "alive", b"", mine)
    # Floods.
    for number in range(FLOOD):
        server.publish(target, "eve", "hello", b"", mine)
        server.publish(target, "eve", "session",
                       message(random.getrandbits(64), 1, wish(1, b"Echo")))
        server.publish("all", f"m{number}", "alive", b"", mine)
        server.publish(target, "eve", "ping", os.urandom(8))
    server.barrier()
    for one in got:
        print("got", one, flush=True)
    print("done", flush=True)


main()
