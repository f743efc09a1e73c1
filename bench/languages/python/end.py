"""One end of a path between two programs, in Python: `end.py PATH driver|far ADDRESS`.

It says "ready", and the driver then does what standard input asks for, line by line. What carries
the messages is the module of the path; what is sent and timed is the same for all, and the same as
end.mjs does for Node, which tells what a path is.
"""

import asyncio
import importlib
import json
import sys
import time

WINDOW = 4 << 20  # bytes that may be under way unconfirmed
BATCH = 64 << 10  # bytes between two looks at what has come
CONFIRMATIONS = 4  # in each window
ORDER = "stream"


def window_of(size):
    return max(CONFIRMATIONS, WINDOW // size)


class End:
    """Both ends; the far one answers a call with what it brings, and counts what comes one way."""

    def __init__(self, kind):
        self.kind = kind
        self.size = self.count = self.taken = 0
        self.part = 1
        self.confirmed = 0
        self.confirmation = asyncio.Event()

    def fail(self, what):
        sys.exit(f"{self.kind}: {what}")

    def on_call(self, payload):
        words = self.path.text_of(payload).split(" ")
        if words[0] == ORDER:
            self.size, self.count = int(words[1]), int(words[2])
            self.taken, self.part = 0, window_of(self.size) // CONFIRMATIONS
        return payload

    def on_message(self, data):
        self.taken += 1
        taken = self.taken
        if len(data) != self.size or taken > self.count or data[0] != 7:
            self.fail("other messages have arrived than were sent")
        if taken % self.part == 0 or taken == self.count:
            self.path.confirm(taken)

    def on_confirm(self, count):
        self.confirmed = count
        self.confirmation.set()

    async def await_confirmation(self):
        self.confirmation.clear()
        await self.confirmation.wait()

    async def round_trips(self, count):
        text = "x" * 64
        payload = self.path.payload_of(text)
        times = []
        for _ in range(count):
            start = time.perf_counter()
            back = await self.path.call(payload)
            times.append((time.perf_counter() - start) * 1e6)
            if self.path.text_of(back) != text:
                self.fail("another answer has come than was sent")
        times.sort()
        return {"median": times[count // 2], "p99": times[int(count * 0.99)]}

    async def stream(self, size, count):
        data = b"\7" * size
        batch = max(1, BATCH // size)
        window = window_of(size)
        send = self.path.send
        self.confirmed = 0
        await self.path.call(self.path.payload_of(f"{ORDER} {size} {count}"))
        start = time.perf_counter()
        sent = 0
        while sent < count:
            end = min(count, sent + batch)
            while end - self.confirmed > window:
                await self.await_confirmation()
            for _ in range(end - sent):
                wait = send(data)
                if wait is not None:
                    await wait
            sent = end
            await asyncio.sleep(0)
        while self.confirmed < count:
            await self.await_confirmation()
        return {"seconds": time.perf_counter() - start}

    async def run(self, role, address):
        self.path = await importlib.import_module(f"{self.kind}_path").open(role, address, self)
        print("ready", flush=True)
        loop = asyncio.get_running_loop()
        while line := await loop.run_in_executor(None, sys.stdin.readline):
            order = json.loads(line)
            if "size" in order:
                result = await self.stream(order["size"], order["count"])
            else:
                result = await self.round_trips(order["count"])
            print(json.dumps(result), flush=True)


async def main():
    kind, role, address = sys.argv[1:4]
    await End(kind).run(role, address)


asyncio.run(main())
