// The peer of matrix.py in TypeScript's library: `peer.mjs MODULES provider|requester SERVICE`.
// MODULES is the folder with matrix.js, which tsc has made of what stpc has written for one version
// of the interface.
import { createInterface } from "node:readline";
import { pathToFileURL } from "node:url";

import { connectToHub, Refused } from "../../languages/typescript/dist/index.js";

const [modules, role, service] = process.argv.slice(2);
const matrix = await import(pathToFileURL(`${modules}/matrix.js`));
// A version is known by what its classes can do.
const isVersion2 = "extra" in matrix.MatrixRequester.prototype;

const BULK_PACKET = 65536;
const BULK_PACKETS = 320;

const say = (text) => console.log(text);

class Checksum {
  low = 1;
  high = 0;
  packets = 0;
  add(bytes) {
    let { low, high } = this;
    for (let i = 0; i < bytes.length; ++i) {
      low += bytes[i];
      high += low;
      if (i % 4096 === 4095) {
        low %= 65521;
        high %= 65521;
      }
    }
    this.low = low % 65521;
    this.high = high % 65521;
    ++this.packets;
  }
  toString() {
    return `${this.high * 65536 + this.low} of ${this.packets}`;
  }
}

const EIGHTHS = new Set(["single", "real", "rsingle", "rreal"]);

// "name=value;" for each that this version has.
function fields(value, names) {
  const shown = (name, each) => {
    if (typeof each === "object") return [...each].map((one) => shown(name, one)).join(",");
    if (EIGHTHS.has(name)) return String(Math.trunc(each * 8));
    return typeof each === "boolean" ? String(Number(each)) : String(each);
  };
  return names
    .split(" ")
    .filter((name) => name in value)
    .map((name) => `${name}=${shown(name, value[name])};`)
    .join("");
}

const seenOf = (everything) =>
  fields(everything, "added bit half word wide single real text path") +
  fields(everything.inner, "note") +
  fields(everything.inner.deep, "added word texts") +
  fields(everything, "numbers halves bytes");

async function provide(plugin) {
  await plugin.provide(service, (link) => {
    let sum = 0;
    let bulk = new Checksum();
    const side = new matrix.MatrixProvider(link, {
      onEverything: (message) => ({
        seen: seenOf(message),
        rbit: true,
        rword: -(2 ** 31),
        rwide: 2n ** 64n - 1n,
        rreal: -0.25,
        rtext: "grüß",
        ...(isVersion2 ? { radded: 7 } : { rhalf: 65535, rsingle: 0.5, rpath: "/p" }),
      }),
      async onChain({ depth }) {
        if (depth === 0) return { sum: 1 };
        return { sum: (await side.back({ depth })).sum + 1 };
      },
      onRefuse({ why }) {
        throw new Refused(why);
      },
      async onCount({ number }) {
        sum += number;
        if (number % 100 === 0) await side.progress({ number });
      },
      onTotal: () => ({ sum }),
      onExtra: ({ number }) => ({ sum: number + 1 }),
    });
    link.onPacket((bytes) => {
      if (bytes.length === BULK_PACKET) {
        bulk.add(bytes);
      } else if (bytes.toString() === "finish") {
        link.send(String(bulk));
        bulk = new Checksum();
      } else {
        link.send(bytes);
      }
    });
    link.closed.then(() => say("ended"));
  });
  say("ready");
  await plugin.closed;
}

async function exchange(side, progress) {
  const reply = await side.everything({
    bit: true,
    word: -(2 ** 31),
    wide: 2n ** 64n - 1n,
    real: -2.25,
    text: 'ä€😀 "q" \\',
    path: "/a b",
    inner: {
      note: "in",
      deep: { word: 4, texts: ["a", "", "€"], ...(isVersion2 ? { added: 9n } : {}) },
    },
    numbers: [1n, 2n ** 53n + 1n],
    bytes: Uint8Array.of(0, 255),
    ...(isVersion2 ? { added: "new" } : { half: 65535, single: 1.5, halves: [0, 65535] }),
  });
  say("everything: " + reply.seen);
  say("reply: " + fields(reply, "radded rbit rhalf rword rwide rsingle rreal rtext rpath"));
  say(`chain: ${(await side.chain({ depth: 3 })).sum}`);
  await side.refuse({ why: 'not "today" €' }).catch((error) =>
    say(error.outcome === "refused" ? `refused: ${error.message}` : String(error)),
  );
  for (let number = 1; number <= 1000; ++number) await side.count({ number });
  const { sum } = await side.total();
  say(`total: ${sum} progress ${progress.count}`);
  if (isVersion2) {
    const known = side.knows("Extra") ? "known" : "unknown";
    const result = await side.extra({ number: 41 }).then(
      (answer) => answer.sum,
      (error) => error.outcome,
    );
    say(`extra: ${known} ${result}`);
  }
  say("knows: " + ["added", "half"].filter((name) => side.knowsField(name)).join(""));
}

async function sendBulk(link) {
  const checksum = new Checksum();
  for (let i = 0; i < BULK_PACKETS; ++i) {
    const bytes = Buffer.alloc(BULK_PACKET, i & 0xff);
    checksum.add(bytes);
    await link.send(bytes);
  }
  await link.send("finish");
  const answer = (await link.receive({ timeout: 30_000 })).toString();
  say(answer === String(checksum) ? "bulk: intact" : `bulk: ${answer} instead of ${checksum}`);
}

async function hold(link, side) {
  await side.total();
  say("held");
  await link.closed;
  say("ended");
  say("call: " + (await side.total().then(() => "none", (error) => error.outcome)));
}

async function flood(link, megabytes, nextLine) {
  say("flooding");
  await nextLine();
  const bytes = Buffer.alloc(BULK_PACKET);
  for (let i = 0; i < megabytes * 16; ++i) await link.send(bytes);
  say("handed over");
  await link.send("finish");
  say("flooded: " + (await link.receive({ timeout: 60_000 })).toString());
}

async function request(plugin) {
  const lines = createInterface({ input: process.stdin })[Symbol.asyncIterator]();
  const nextLine = async () => (await lines.next()).value;
  say("ready");
  for (let line; (line = await nextLine()) !== undefined; say("done")) {
    const [what, name, megabytes] = line.split(" ");
    const link = await plugin.request(name);
    const progress = { count: 0 };
    const side = new matrix.MatrixRequester(link, {
      onBack: async ({ depth }) => ({ sum: (await side.chain({ depth: depth - 1 })).sum + 1 }),
      onProgress: () => void ++progress.count,
    });
    if (what === "run") {
      await exchange(side, progress);
      await link.send("hello");
      say("packet: " + (await link.receive({ timeout: 10_000 })).toString());
    } else if (what === "bulk") {
      await sendBulk(link);
    } else if (what === "hold") {
      await hold(link, side);
    } else if (what === "flood") {
      await side.total();
      await flood(link, Number(megabytes), nextLine);
    }
    link.close();
  }
}

const plugin = await connectToHub();
await (role === "provider" ? provide(plugin) : request(plugin));
