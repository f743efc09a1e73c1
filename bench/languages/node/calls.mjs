// Hublink: calls and messages of an interface.
import { BenchDriver, BenchFar } from "../../../build/bench_languages/bench.js";
import { openHub } from "./packets.mjs";

const SERVICE = "node calls";
const text = (same) => same;

export function open(role, address, handlers) {
  return openHub(role, address, SERVICE, (link) => {
    if (role === "far") {
      const far = new BenchFar(link, {
        onEcho: (message) => ({ answer: handlers.onCall(message.text) }),
        onTake: (message) => handlers.onMessage(message.data),
      });
      return { textOf: text, confirm: (count) => far.confirm({ taken: count }) };
    }
    const driver = new BenchDriver(link, {
      onConfirm: (message) => handlers.onConfirm(message.taken),
    });
    return {
      payloadOf: text,
      textOf: text,
      call: async (payload) => (await driver.echo({ text: payload })).answer,
      // The window bounds what waits, as it does for those who have no promise to give.
      send: (bytes) => void driver.take({ data: bytes }),
    };
  });
}
