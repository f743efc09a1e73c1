// Hublink: packets on a link, the first byte of which says what they are.
import { connectToHub } from "../../../languages/typescript/dist/index.js";

const TAKE = 7;
const CONFIRM = 8;
const SERVICE = "node packets";

// The far end's path, which is there when its driver comes.
export async function openHub(role, address, service, make) {
  const plugin = await connectToHub({ zone: address });
  if (role === "driver") return make(await plugin.request(service));
  const offered = {};
  await plugin.provide(service, (link) => Object.assign(offered, make(link)));
  return offered;
}

export function open(role, address, handlers) {
  return openHub(role, address, SERVICE, (link) => {
    let answered;
    link.onPacket(
      (bytes) => {
        if (bytes[0] === TAKE) handlers.onMessage(bytes);
        else if (bytes[0] === CONFIRM) handlers.onConfirm(bytes.readUInt32LE(4));
        else if (answered) answered(Buffer.from(bytes));
        else link.send(handlers.onCall(bytes));
      },
      { borrow: true },
    );
    return {
      payloadOf: (text) => Buffer.from(text),
      textOf: (payload) => payload.toString(),
      call: (payload) =>
        new Promise((resolve) => {
          answered = resolve;
          link.send(payload);
        }),
      send: (bytes) => (link.trySend(bytes) ? undefined : link.send(bytes)),
      confirm: (count) => {
        const bytes = Buffer.alloc(8, CONFIRM);
        bytes.writeUInt32LE(count, 4);
        link.send(bytes);
      },
    };
  });
}
