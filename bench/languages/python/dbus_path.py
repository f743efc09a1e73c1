"""D-Bus by dbus-next: messages of its own level, below the proxies of interfaces."""

from dbus_next import Message, MessageFlag
from dbus_next.aio import MessageBus

NAME = "hublink.bench.python."


class Path:
    def __init__(self, bus, role):
        self.bus = bus
        self.other = NAME + ("far" if role == "driver" else "driver")

    def message(self, member, signature, value, flags=MessageFlag.NONE):
        return Message(destination=self.other, path="/", interface="hublink.bench.Path",
                       member=member, signature=signature, body=[value], flags=flags)

    def send_one(self, member, signature, value):
        return self.bus.send(self.message(member, signature, value, MessageFlag.NO_REPLY_EXPECTED))

    @staticmethod
    def payload_of(text):
        return text

    @staticmethod
    def text_of(payload):
        return payload

    async def call(self, text):
        return (await self.bus.call(self.message("Call", "s", text))).body[0]

    # Each is awaited: the library ends the connection when a burst fills the socket.
    def send(self, data):
        return self.send_one("Take", "ay", data)

    def confirm(self, count):
        self.send_one("Confirm", "u", count)


async def open(role, address, end):
    bus = await MessageBus(bus_address=address).connect()

    def came(message):
        if message.member == "Call":
            return Message.new_method_return(message, "s", [end.on_call(message.body[0])])
        if message.member == "Take":
            end.on_message(message.body[0])
        elif message.member == "Confirm":
            end.on_confirm(message.body[0])
        else:
            return None
        return True

    bus.add_message_handler(came)
    await bus.request_name(NAME + role)
    return Path(bus, role)
