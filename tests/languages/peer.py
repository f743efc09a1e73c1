"""The peer of matrix.py in Python: `peer.py MODULES provider|requester SERVICE`.

MODULES is the folder with matrix.py as stpc has written it for one version of the interface.
"""

import asyncio
import importlib
import sys
import zlib

import hublink

sys.path[0] = sys.argv[1]  # where this file lies there is a matrix.py, too
matrix = importlib.import_module("matrix")

BULK_PACKET = 65536
BULK_PACKETS = 320


class Checksum:
    def __init__(self):
        self.value = 1
        self.packets = 0

    def add(self, data):
        self.value = zlib.adler32(data, self.value)
        self.packets += 1

    def __str__(self):
        return f"{self.value} of {self.packets}"


def shown(value):
    if isinstance(value, str):
        return value
    if isinstance(value, float):
        return str(int(value * 8))
    if isinstance(value, (list, bytes)):
        return ",".join(map(shown, value))
    return str(int(value))


def fields(value, names):
    """ "name=value;" for each that this version has."""
    return "".join(f"{name}={shown(getattr(value, name))};" for name in names.split()
                   if hasattr(value, name))


def seen_of(everything):
    return (fields(everything, "added bit half word wide single real text path")
            + fields(everything.inner, "note") + fields(everything.inner.deep, "added word texts")
            + fields(everything, "numbers halves bytes"))


def fill(value, **given):
    for name, each in given.items():
        if hasattr(value, name):
            setattr(value, name, each)


def say(text):
    print(text, flush=True)


class Provider(matrix.MatrixProvider):
    def __init__(self, link):
        super().__init__(link)
        self.link = link
        self.sum = 0
        self.bulk = Checksum()
        link.on_packet(self.take)

    async def take(self, data):
        if len(data) == BULK_PACKET:
            self.bulk.add(data)
        elif data == b"finish":
            await self.link.send(str(self.bulk).encode())
            self.bulk = Checksum()
        else:
            await self.link.send(data)

    def on_everything(self, message):
        reply = matrix.EverythingReply(seen=seen_of(message))
        fill(reply, radded=7, rbit=True, rhalf=65535, rword=-2**31, rwide=2**64 - 1, rsingle=0.5,
             rreal=-0.25, rtext="grüß", rpath="/p")
        return reply

    async def on_chain(self, message):
        if message.depth == 0:
            return matrix.ChainReply(sum=1)
        inner = await self.back(matrix.Back(depth=message.depth))
        return matrix.ChainReply(sum=inner.sum + 1)

    def on_refuse(self, message):
        raise hublink.Refused(message.why)

    async def on_count(self, message):
        self.sum += message.number
        if message.number % 100 == 0:
            await self.progress(matrix.Progress(number=message.number))

    def on_total(self, message):
        return matrix.TotalReply(sum=self.sum)

    def on_extra(self, message):
        return matrix.ExtraReply(sum=message.number + 1)

    def link_ended(self):
        say("ended")


class Requester(matrix.MatrixRequester):
    progressed = 0

    async def on_back(self, message):
        inner = await self.chain(matrix.Chain(depth=message.depth - 1))
        return matrix.BackReply(sum=inner.sum + 1)

    def on_progress(self, message):
        self.progressed += 1


async def exchange(requester):
    everything = matrix.Everything()
    fill(everything, added="new", bit=True, half=65535, word=-2**31, wide=2**64 - 1, single=1.5,
         real=-2.25, text='ä€😀 "q" \\', path="/a b", numbers=[1, 2**53 + 1], halves=[0, 65535],
         bytes=b"\0\xff")
    everything.inner.note = "in"
    fill(everything.inner.deep, added=9, word=4, texts=["a", "", "€"])
    reply = await requester.everything(everything)
    say("everything: " + reply.seen)
    say("reply: "
        + fields(reply, "radded rbit rhalf rword rwide rsingle rreal rtext rpath"))
    say(f"chain: {(await requester.chain(matrix.Chain(depth=3))).sum}")
    try:
        await requester.refuse(matrix.Refuse(why='not "today" €'))
    except hublink.Refused as refused:
        say(f"refused: {refused}")
    for number in range(1, 1001):
        await requester.count(matrix.Count(number=number))
    total = await requester.total()
    say(f"total: {total.sum} progress {requester.progressed}")
    if hasattr(matrix, "Extra"):
        known = "known" if requester.knows("Extra") else "unknown"
        try:
            say(f"extra: {known} {(await requester.extra(matrix.Extra(number=41))).sum}")
        except hublink.NotSupported:
            say(f"extra: {known} not supported")
    say("knows: " + "".join(name for name in ("added", "half") if requester.knows_field(name)))


async def send_bulk(link):
    checksum = Checksum()
    for i in range(BULK_PACKETS):
        data = bytes([i & 0xFF]) * BULK_PACKET
        checksum.add(data)
        await link.send(data)
    await link.send(b"finish")
    answer = (await link.receive(30)).decode()
    say("bulk: intact" if answer == str(checksum) else f"bulk: {answer} instead of {checksum}")


async def hold(link, requester):
    await requester.total()
    say("held")
    await link.wait_ended()
    say("ended")
    try:
        await requester.total()
        say("call: none")
    except hublink.LinkEnded:
        say("call: link ended")


async def flood(plugin, link, megabytes):
    say("flooding")
    await next_line(plugin)
    data = bytes(BULK_PACKET)
    for _ in range(megabytes * 16):
        await link.send(data)
    say("handed over")
    await link.send(b"finish")
    say("flooded: " + (await link.receive(60)).decode())


def next_line(plugin):
    return plugin.loop.run_in_executor(None, sys.stdin.readline)


async def request(plugin, line):
    what, service, *rest = line.split()
    async with await plugin.request(service) as link:
        requester = Requester(link)
        if what == "run":
            await exchange(requester)
            await link.send(b"hello")
            say("packet: " + (await link.receive(10)).decode())
        elif what == "bulk":
            await send_bulk(link)
        elif what == "hold":
            await hold(link, requester)
        elif what == "flood":
            await requester.total()
            await flood(plugin, link, int(rest[0]))
    say("done")


async def main():
    role, service = sys.argv[2:4]
    async with hublink.connect(sys.argv) as plugin:
        if role == "provider":
            await plugin.provide(service, Provider)
        say("ready")
        if role == "provider":
            await plugin.wait_closed()
            return
        while line := await next_line(plugin):
            await request(plugin, line)


asyncio.run(main())
