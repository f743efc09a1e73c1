"""Hublink: packets on a link, the first byte of which says what they are."""

import asyncio

import hublink

CALL, TAKE, CONFIRM = b"c", b"\7", b"n"
SERVICE = "python packets"


class Path:
    def __init__(self, link, end):
        self.link = link
        self.end = end
        self.answer = None
        link.on_packet(self.came)

    def came(self, data):
        kind = data[0]
        if kind == TAKE[0]:
            self.end.on_message(data)
        elif kind == CONFIRM[0]:
            self.end.on_confirm(int(data[1:]))
        elif self.answer is not None:
            answer, self.answer = self.answer, None
            answer.set_result(data)
        else:
            self.link.try_send(self.end.on_call(data))

    @staticmethod
    def payload_of(text):
        return CALL + text.encode()[1:] if text[0] == "x" else text.encode()

    @staticmethod
    def text_of(payload):
        return (b"x" + payload[1:] if payload[0] == CALL[0] else payload).decode()

    def call(self, payload):
        self.answer = asyncio.get_running_loop().create_future()
        self.link.try_send(payload)
        return self.answer

    def send(self, data):
        return None if self.link.try_send(data) else self.link.send(data)

    def confirm(self, count):
        self.link.try_send(CONFIRM + str(count).encode())


async def open(role, address, end):
    plugin = await hublink.connect(["", "-hl_zone", address])
    if role == "driver":
        return Path(await plugin.request(SERVICE), end)
    return await offer(plugin, SERVICE, lambda link: Path(link, end))


class Offer:
    """The far end's path, which is there when its driver comes."""

    path = None

    def text_of(self, payload):
        return self.path.text_of(payload)

    def confirm(self, count):
        self.path.confirm(count)


async def offer(plugin, service, make):
    offered = Offer()

    def connected(link):
        offered.path = make(link)

    await plugin.provide(service, connected)
    return offered
