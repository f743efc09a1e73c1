// D-Bus by dbus-next: messages of its own level, below the proxies of interfaces.
import dbus from "dbus-next";

const { Message, MessageFlag } = dbus;
const NAME = "hublink.bench.node.";

export async function open(role, address, handlers) {
  const bus = dbus.sessionBus({ busAddress: address });
  const other = NAME + (role === "driver" ? "far" : "driver");
  const message = (member, signature, body, flags) =>
    new Message({
      destination: other,
      path: "/",
      interface: "hublink.bench.Path",
      member,
      signature,
      body,
      flags,
    });
  const send = (member, signature, value) =>
    bus.send(message(member, signature, [value], MessageFlag.NO_REPLY_EXPECTED));
  bus.addMethodHandler((came) => {
    if (came.member === "Call")
      bus.send(Message.newMethodReturn(came, "s", [handlers.onCall(came.body[0])]));
    else if (came.member === "Take") handlers.onMessage(came.body[0]);
    else if (came.member === "Confirm") handlers.onConfirm(came.body[0]);
    else return false;
    return true;
  });
  await bus.requestName(NAME + role, 0);
  return {
    payloadOf: (text) => text,
    textOf: (payload) => payload,
    call: async (text) => (await bus.call(message("Call", "s", [text]))).body[0],
    send: (bytes) => send("Take", "ay", bytes),
    confirm: (count) => send("Confirm", "u", count),
  };
}
