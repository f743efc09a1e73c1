// NATS by @nats-io/transport-node: requests, and publishing to subjects.
import { connect } from "@nats-io/transport-node";

export async function open(role, address, handlers) {
  const nats = await connect({ servers: address });
  const take = (subject, callback) =>
    nats.subscribe(subject, { callback: (error, message) => callback(message) });
  if (role === "far") {
    take("call", (message) => message.respond(handlers.onCall(message.data)));
    take("take", (message) => handlers.onMessage(message.data));
  } else {
    take("confirm", (message) => handlers.onConfirm(Number(message.string())));
  }
  await nats.flush();
  return {
    payloadOf: (text) => Buffer.from(text),
    textOf: (payload) => Buffer.from(payload.buffer, payload.byteOffset, payload.length).toString(),
    call: async (payload) => (await nats.request("call", payload)).data,
    send: (bytes) => nats.publish("take", bytes),
    confirm: (count) => nats.publish("confirm", String(count)),
  };
}
