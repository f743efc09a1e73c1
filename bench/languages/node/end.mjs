// One end of a path between two programs, in Node: `node end.mjs PATH driver|far ADDRESS`. It says
// "ready", and the driver then does what standard input asks for, line by line. What carries the
// messages is the module of the path; what is sent and timed is the same for all (end.py does it for
// Python).
//
// A path is opened with the far end's handlers, and gives
//   payloadOf(text), textOf(payload)  what a call carries, made of a text and back;
//   call(payload)                     a round trip: what the far end's onCall answers;
//   send(bytes)                       one message one way, a promise if it has to wait;
//   confirm(count)                    the far end's word of how much has come, to onConfirm.
import { performance } from "node:perf_hooks";
import { createInterface } from "node:readline";

const WINDOW = 4 << 20; // bytes that may be under way unconfirmed
const BATCH = 64 << 10; // bytes between two looks at what has come
const CONFIRMATIONS = 4; // in each window
const ORDER = "stream";

const [kind, role, address] = process.argv.slice(2);

function fail(what) {
  console.error(`${kind}: ${what}`);
  process.exit(1);
}

const windowOf = (size) => Math.max(CONFIRMATIONS, Math.floor(WINDOW / size));

// The far end: it answers a call with what it brings, and counts what comes one way.
let stream = { size: 0, count: 0, taken: 0, part: 0 };
let confirmed = 0;
let wake = () => {};

const handlers = {
  onCall(payload) {
    const words = path.textOf(payload).split(" ");
    if (words[0] === ORDER) {
      const [size, count] = words.slice(1).map(Number);
      stream = { size, count, taken: 0, part: windowOf(size) / CONFIRMATIONS };
    }
    return payload;
  },
  onMessage(bytes) {
    const taken = ++stream.taken;
    if (bytes.length !== stream.size || taken > stream.count || bytes[0] !== 7)
      fail("other messages have arrived than were sent");
    if (taken % stream.part === 0 || taken === stream.count) path.confirm(taken);
  },
  onConfirm(count) {
    confirmed = count;
    wake();
  },
};

const { open } = await import(`./${kind}.mjs`);
const path = await open(role, address, handlers);
console.log("ready");

async function roundTrips(count) {
  const text = "x".repeat(64);
  const payload = path.payloadOf(text);
  const times = [];
  for (let i = 0; i < count; ++i) {
    const start = performance.now();
    const back = await path.call(payload);
    times.push((performance.now() - start) * 1000);
    if (path.textOf(back) !== text) fail("another answer has come than was sent");
  }
  times.sort((a, b) => a - b);
  return { median: times[count >> 1], p99: times[Math.floor(count * 0.99)] };
}

async function streamOf(size, count) {
  const bytes = Buffer.alloc(size, 7);
  const batch = Math.max(1, BATCH / size);
  const window = windowOf(size);
  confirmed = 0;
  await path.call(path.payloadOf(`${ORDER} ${size} ${count}`));
  const start = performance.now();
  for (let sent = 0; sent < count; ) {
    const end = Math.min(count, sent + batch);
    while (end - confirmed > window) await new Promise((resolve) => (wake = resolve));
    for (; sent < end; ++sent) {
      const wait = path.send(bytes);
      if (wait) await wait;
    }
    await new Promise(setImmediate);
  }
  while (confirmed < count) await new Promise((resolve) => (wake = resolve));
  return { seconds: (performance.now() - start) / 1000 };
}

if (role === "driver") {
  for await (const line of createInterface({ input: process.stdin })) {
    const order = JSON.parse(line);
    const result =
      order.size === undefined
        ? await roundTrips(order.count)
        : await streamOf(order.size, order.count);
    console.log(JSON.stringify(result));
  }
  process.exit(0);
} else {
  process.stdin.on("end", () => process.exit(0)).resume();
}
