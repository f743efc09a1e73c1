"""A poor cable: passes Ethernet frames between two interfaces, late, and loses some of them.

    cable.py INTERFACE INTERFACE DELAY_MS LOSS_PERCENT

Neither interface may have an address. Prints "ready", and works until it is ended."""

import collections
import random
import selectors
import socket
import sys
import time

ALL_PROTOCOLS = 3  # ETH_P_ALL of packet(7)
LARGEST = 65536


def main():
    names, delay, loss = sys.argv[1:3], float(sys.argv[3]) / 1000, float(sys.argv[4]) / 100
    ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ALL_PROTOCOLS))
            for _ in names]
    waiting = selectors.DefaultSelector()
    for end, name, other in zip(ends, names, reversed(ends)):
        end.bind((name, ALL_PROTOCOLS))
        waiting.register(end, selectors.EVENT_READ, other)
    chance = random.Random(1)
    late = collections.deque()  # (when it is due, the interface, the frame)
    print("ready", flush=True)
    while True:
        timeout = max(0, late[0][0] - time.monotonic()) if late else None
        for key, _ in waiting.select(timeout):
            frame, (_, _, kind, *_) = key.fileobj.recvfrom(LARGEST)
            if kind != socket.PACKET_OUTGOING and chance.random() >= loss:
                late.append((time.monotonic() + delay, key.data, frame))
        while late and late[0][0] <= time.monotonic():
            _, end, frame = late.popleft()
            try:
                end.send(frame)
            except OSError:
                pass  # the interface is down: lost as well


main()
