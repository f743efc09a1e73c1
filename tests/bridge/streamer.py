"""Numbered packets at a rate, and whoever sends them back.

    streamer.py echo SERVICE [options of a plugin]
    streamer.py stream SERVICE RATE [options]
    streamer.py offer SERVICE COUNT [options]
    streamer.py sizes SERVICE [options]
    streamer.py ask - [options]
    streamer.py brief Brief [options]

The second asks for the service and sends until it reads `stop`; then it waits for all that is still
to come back, and tells whether every packet came back once and in its place: "intact: COUNT", or
what is wrong. `ended: COUNT` stands for a link that has ended before, with what came until then in
order. The third registers SERVICE0, SERVICE1 and so on. The
fourth sends packets of all sorts of sizes and says whether they came back: "intact: COUNT". The
next reads requests, a service and its options in each line, and tells what becomes of them. The
last has a packet for each who comes, and closes.
"""

import asyncio
import os
import sys

import hublink


async def echo(plugin, service):
    async def serve(link):
        async for packet in link:
            await link.send(packet)
        print("link ended", flush=True)

    plugin.on_value_request({"color": "blue", "secret": "red"}.get)
    await plugin.provide(service, serve)
    print("ready", flush=True)
    await asyncio.Event().wait()


async def offer(plugin, service, count):
    for number in range(count):
        await plugin.provide(f"{service}{number}", lambda link: None)
    print("ready", flush=True)
    await asyncio.Event().wait()


async def sizes(plugin, service):
    print("ready", flush=True)
    edges = [1 << power for power in range(24)]  # to 8 MiB
    packets = [os.urandom(size) for edge in edges for size in {edge, edge + 1, edge - 1} - {0}]
    async with await plugin.request(service, wait=True) as link:
        sending = asyncio.ensure_future(asyncio.gather(*[link.send(one) for one in packets]))
        for number, packet in enumerate(packets):
            if await link.receive() != packet:
                print(f"broken: packet {number} of {len(packet)} bytes", flush=True)
                return
        await sending
    print(f"intact: {len(packets)}", flush=True)


async def ask(plugin):
    print("ready", flush=True)
    while line := await asyncio.get_running_loop().run_in_executor(None, sys.stdin.readline):
        service, *options = line.split()
        try:
            link = await plugin.request(service, **{name: True for name in options})
        except hublink.RequestFailed as failure:
            print(failure.outcome.name, flush=True)
        else:
            print("LINK", *([await link.receive()] if service == "Brief" else []), flush=True)
            link.close()


async def brief(plugin, service):
    async def serve(link):
        await link.send(b"all there is")
        link.close()

    await plugin.provide(service, serve)
    print("ready", flush=True)
    await asyncio.Event().wait()


async def stream(plugin, service, rate):
    print("ready", flush=True)
    link = await plugin.request(service, wait=True)
    print("linked", flush=True)
    came = 0
    all_back = asyncio.Event()
    sent = 0
    stopping = False

    async def read():
        nonlocal came
        async for packet in link:
            if packet != b"%d" % came:
                print(f"broken: {packet} in place of {came}", flush=True)
                return
            came += 1
            if stopping and came == sent:
                break
        print(f"{'intact' if came == sent and stopping else 'ended'}: {came}", flush=True)
        all_back.set()

    async def commands():
        nonlocal stopping
        await asyncio.get_running_loop().run_in_executor(None, sys.stdin.readline)
        stopping = True

    reader = asyncio.create_task(read())
    commander = asyncio.create_task(commands())
    begin = asyncio.get_running_loop().time()
    try:
        while not stopping and not reader.done():
            await link.send(b"%d" % sent)
            sent += 1
            ahead = begin + sent / rate - asyncio.get_running_loop().time()
            if ahead > 0:
                await asyncio.sleep(ahead)
    except hublink.LinkEnded:
        pass
    # One more, so that something comes back after the word to stop.
    if not reader.done():
        sent += 1
        try:
            await link.send(b"%d" % (sent - 1))
        except hublink.LinkEnded:
            pass
    await all_back.wait()
    commander.cancel()


async def main():
    role, service = sys.argv[1:3]
    async with hublink.connect(sys.argv) as plugin:
        if role == "echo":
            await echo(plugin, service)
        elif role == "offer":
            await offer(plugin, service, int(sys.argv[3]))
        elif role == "sizes":
            await sizes(plugin, service)
        elif role == "brief":
            await brief(plugin, service)
        elif role == "ask":
            await ask(plugin)
        else:
            await stream(plugin, service, float(sys.argv[3]))


asyncio.run(main())
