// Compiled interfaces over a real hub: calls, calls within calls, versions, failures.
import assert from "node:assert/strict";
import { test } from "node:test";
import { Refused } from "hublink";
import * as first from "./generated/1/vectors.js";
import * as second from "./generated/2/vectors.js";
import { fails, Hub } from "./support.js";

const FULL = {
  bit: true,
  half: 7,
  number: -3,
  wide: 1n << 63n,
  single: 0.5,
  real: Math.PI,
  text: "ä€𝄞",
  path: "/a",
};

test("calls are answered, refused and given up", async (context) => {
  const hub = new Hub(context);
  const errors: unknown[] = [];
  const released: (() => void)[] = [];
  const { provider, link } = await hub.pair((end) => {
    new first.VectorsRight(end, {
      onAsk: async ({ question, word }) => {
        if (question === "refuse") throw new Refused("not today");
        if (question === "fail") throw new Error("broken");
        if (question === "wait")
          await new Promise<void>((resolve) => released.push(resolve));
        return { ...FULL, number: word };
      },
      onPing: () => ({}),
    });
  });
  provider.onError = (error) => errors.push(error);
  const left = new first.VectorsLeft(link, { onConfirm: () => ({}) });
  const reply = await left.ask({ question: "all", word: -3 });
  assert.deepEqual(reply, FULL);
  assert.deepEqual(await left.ping(), {});
  assert.ok(left.knows("Ask") && left.knowsField("question"));
  assert.ok(!left.knows("Urgent") && !left.knowsField("nothing"));
  const refused = { outcome: "refused", message: "not today" };
  await assert.rejects(left.ask({ question: "refuse" }), refused);
  const broken = { outcome: "refused", message: "broken" };
  await assert.rejects(left.ask({ question: "fail" }), broken);
  assert.equal(errors.length, 1);
  const late = left.ask({ question: "wait" }, { timeout: 20 });
  await assert.rejects(late, fails("timed out"));
  const signal = AbortSignal.timeout(20);
  const aborted = left.ask({ question: "wait" }, { signal });
  await assert.rejects(aborted, { name: "TimeoutError" });
  // One at a time: the second only begins when the first has been answered, and both too late.
  while (released.length < 1) await left.ping({}, { timeout: 1 }).catch(String);
  released[0]?.();
  while (released.length < 2) await left.ping({}, { timeout: 1 }).catch(String);
  released[1]?.();
  assert.deepEqual(await left.ask({ question: "all", word: -3 }), FULL);
  const large = left.ask({ word: 2 ** 31 });
  await assert.rejects(large, fails("out of range"));
  await assert.rejects(left.scalars({ wide: -1n }), fails("out of range"));
  await assert.rejects(left.scalars({ half: 65536 }), fails("out of range"));
  const open = left.ask({ question: "wait" });
  await Promise.all([
    assert.rejects(open, fails("link ended")),
    provider.close(),
  ]);
  await assert.rejects(left.ask(), fails("link ended"));
});

test("a call within a call belongs to its chain", async (context) => {
  const hub = new Hub(context);
  const order: string[] = [];
  const { link } = await hub.pair((end) => {
    const right: first.VectorsRight = new first.VectorsRight(end, {
      async onAsk({ question }) {
        await right.urgent({ word: 1 });
        const sure = await right.confirm({ question });
        // Behind an await it's still the same chain.
        const again = await right.confirm({ question: "again" });
        return { bit: sure.bit && again.bit };
      },
      onPing: () => {
        // Not in the chain of the call: it waits for that.
        void right.confirm({ question: "outside" }).then(
          () => order.push("outside"),
          () => undefined,
        );
        return {};
      },
    });
  });
  const left: first.VectorsLeft = new first.VectorsLeft(link, {
    onConfirm: ({ question }) => {
      order.push(question);
      return { bit: question !== "no" };
    },
    onUrgent: ({ word }) => order.push(`urgent ${String(word)}`),
  });
  assert.equal((await left.ask({ question: "yes" })).bit, true);
  assert.equal((await left.ask({ question: "no" })).bit, false);
  const once = (word: string): string[] => ["urgent 1", word, "again"];
  assert.deepEqual(order, [...once("yes"), ...once("no")]);
});

test("versions talk in both directions", async (context) => {
  const hub = new Hub(context);
  const seen: unknown[] = [];
  const { link, made } = await hub.pair(
    (end): second.VectorsRight =>
      new second.VectorsRight(end, {
        onAsk: async ({ question, urgency }) => {
          seen.push(urgency);
          const { bit, number } = await made.confirm({
            question,
            details: ["x"],
          });
          return { text: question, added: 1n, number, bit };
        },
        onPing: () => ({ text: "new" }),
        onScalars: (message) => seen.push(message),
        onLoose: (message) => seen.push(message),
      }),
  );
  const left = new first.VectorsLeft(link, {
    onConfirm: ({ question }) => ({ bit: question === "old" }),
  });
  // Before the record has come, messages wait in their order.
  void left.scalars({ wide: 5n, half: 3, text: "t" });
  void left.loose({ texts: ["a", "b"], numbers: [1, 2, 3], last: 9 });
  const reply = await left.ask({ question: "old", word: 4 });
  assert.equal(reply.text, "old");
  assert.equal(reply.bit, true);
  assert.equal(reply.half, 0);
  assert.deepEqual(await left.ping(), {});
  assert.deepEqual(seen, [
    { wide: 5n, added: "", text: "t", bit: false, real: 0 },
    {
      mark: 0,
      added: "",
      numbers: [1, 2, 3],
      bit: false,
      texts: ["a", "b"],
      last: 9,
    },
    0,
  ]);
  assert.ok(!left.knows("Old") && !left.knowsField("single"));
  await assert.rejects(left.old(), fails("not supported"));
  await assert.rejects(made.progress({ real: 1 }), fails("not supported"));
});

test("a peer without an interface is no hang", async (context) => {
  const hub = new Hub(context);
  const { link, made } = await hub.pair((end) => end);
  const left = new first.VectorsLeft(link, { onConfirm: () => ({}) });
  await assert.rejects(left.ask({}, { timeout: 20 }), fails("timed out"));
  await assert.rejects(left.ready({ timeout: 20 }), fails("timed out"));
  // Packets and messages share the link, and the record that came early isn't lost.
  link.send("plain");
  assert.equal(String(await made.receive()), "plain");
  new first.VectorsRight(made, {
    onAsk: () => ({ text: "here" }),
    onPing: () => ({}),
  });
  assert.equal((await left.ask()).text, "here");
  const waiting = left.ask({ question: "x" }, { timeout: -1 });
  made.close();
  await assert.rejects(waiting, fails("link ended"));
});

test("what came before the end of a link is still handled", async (context) => {
  const hub = new Hub(context);
  const words: number[] = [];
  let tell!: () => void;
  const all = new Promise<void>((resolve) => (tell = resolve));
  const { link } = await hub.pair((end) => {
    new first.VectorsRight(end, {
      onAsk: () => ({}),
      onPing: () => ({}),
      onLoose: async ({ last }) => {
        await end.closed;
        words.push(last);
        if (words.length === 3) tell();
      },
    });
  });
  const left = new first.VectorsLeft(link, { onConfirm: () => ({}) });
  for (const last of [1, 2, 3]) await left.loose({ last });
  link.close();
  await all;
  assert.deepEqual(words, [1, 2, 3]);
});

test("nothing is lost behind a slow handler", async (context) => {
  const hub = new Hub(context);
  let release!: () => void;
  const released = new Promise<void>((resolve) => (release = resolve));
  const seen: number[] = [];
  const { link } = await hub.pair((end) => {
    new first.VectorsRight(end, {
      onAsk: () => ({}),
      onPing: () => ({}),
      onLoose: async ({ last }) => {
        await released;
        seen.push(last);
      },
    });
    return end;
  });
  const left = new first.VectorsLeft(link, { onConfirm: () => ({}) });
  await left.ready();
  const numbers = new Int32Array(1 << 18);
  const count = 80; // MiB: more than either end takes in before it waits
  for (let last = 0; last < count; ++last) void left.loose({ numbers, last });
  // The hub may hold the rest, so whether all has been sent says nothing; but none is handled.
  assert.deepEqual(seen, []);
  release();
  await left.ping({}, { timeout: -1 });
  assert.deepEqual(seen, [...Array(count).keys()]);
});
