"""Hublink: calls and messages of an interface."""

import bench
import hublink
from packets_path import offer

SERVICE = "python calls"


class Driver(bench.BenchDriver):
    def __init__(self, link, end):
        super().__init__(link)
        self.end = end

    def on_confirm(self, message):
        self.end.on_confirm(message.taken)

    @staticmethod
    def payload_of(text):
        return text

    @staticmethod
    def text_of(payload):
        return payload

    async def call(self, text):
        return (await self.echo(bench.Echo(text))).answer

    def send(self, data):
        message = bench.Take(data)
        return None if self.try_send(message) else self.take(message)


class Far(bench.BenchFar):
    def __init__(self, link, end):
        super().__init__(link)
        self.end = end

    def on_echo(self, message):
        return bench.EchoReply(self.end.on_call(message.text))

    def on_take(self, message):
        self.end.on_message(message.data)

    @staticmethod
    def text_of(payload):
        return payload

    def confirm(self, count):
        self.try_send(bench.Confirm(count))


async def open(role, address, end):
    plugin = await hublink.connect(["", "-hl_zone", address])
    if role == "driver":
        return Driver(await plugin.request(SERVICE), end)
    return await offer(plugin, SERVICE, lambda link: Far(link, end))
