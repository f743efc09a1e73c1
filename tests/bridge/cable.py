"""A poor cable: passes Ethernet frames between two interfaces, late, and loses some of them.

    cable.py INTERFACE INTERFACE DELAY_MS LOSS_PERCENT RATE

RATE is in bytes per second each way, 0 for as many as come. What waits is bounded as a router's
queue is: the frames beyond are lost. Neither interface may have an address. Prints "ready", and
works until it is ended."""

import collections
import random
import selectors
import socket
import sys
import time

ALL_PROTOCOLS = 3  # ETH_P_ALL of packet(7)
LARGEST = 65536
QUEUE = 256 << 10  # bytes each way


def main():
    names, delay, loss = sys.argv[1:3], float(sys.argv[3]) / 1000, float(sys.argv[4]) / 100
    rate = float(sys.argv[5])
    ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ALL_PROTOCOLS))
            for _ in names]
    waiting = selectors.DefaultSelector()
    for end, name, other in zip(ends, names, reversed(ends)):
        end.bind((name, ALL_PROTOCOLS))
        waiting.register(end, selectors.EVENT_READ, other)
    chance = random.Random(1)
    late = {end: collections.deque() for end in ends}  # (when it is due, the frame), by where to
    free_at = dict.fromkeys(ends, 0)  # when all that waits has left
    print("ready", flush=True)
    while True:
        first = min((queue[0][0] for queue in late.values() if queue), default=None)
        timeout = None if first is None else max(0, first - time.monotonic())
        for key, _ in waiting.select(timeout):
            frame, (_, _, kind, *_) = key.fileobj.recvfrom(LARGEST)
            if kind == socket.PACKET_OUTGOING or chance.random() < loss:
                continue
            to, leaves = key.data, time.monotonic()
            if rate:
                begins = max(leaves, free_at[to])
                if (begins - leaves) * rate > QUEUE:
                    continue
                leaves = free_at[to] = begins + len(frame) / rate
            late[to].append((leaves + delay, frame))
        for end, queue in late.items():
            while queue and queue[0][0] <= time.monotonic():
                try:
                    end.send(queue.popleft()[1])
                except OSError:
                    pass  # the interface is down: lost as well


main()
