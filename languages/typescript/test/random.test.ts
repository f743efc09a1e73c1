// Random and damaged input: only the documented exception comes out, and nothing hangs or grows.
import assert from "node:assert/strict";
import { test } from "node:test";
import { ProtocolError } from "hublink";
import { PacketCutter } from "#internal/wire/packets.js";
import { Reader } from "#internal/wire/reader.js";
import { PeerRecord, writeRecord } from "#internal/wire/record.js";
import * as first from "./generated/1/vectors.js";
import { tableOf, viewOf } from "./support.js";

const ROUNDS = 4000;
const table = tableOf(first.VectorsLeft);
const messages = [...table.sends, ...table.receives];
const tagMap = Int32Array.from(table.tags, (_, index) => index);
const record = writeRecord({
  ...table,
  receives: table.receives.map((one) => ({ ...one, flags: one.entryFlags })),
});

/** Numbers from 0 up to `below`, the same in each run. */
function generator(seed: number): (below: number) => number {
  let state = seed;
  return (below) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return Math.floor((state / 2 ** 32) * below);
  };
}

// Words that look like fields of this interface, lengths and numbers that hardly fit, and noise.
function payload(random: (below: number) => number): Buffer {
  const bytes = Buffer.alloc(4 * random(60) + random(4));
  const kinds = [0x10, 0x21, 0x22, 0x24, 0x28, 0x34, 0x38, 0x40, 0x50];
  for (let at = 0; at + 4 <= bytes.length; at += 4) {
    const word = ((random(40) << 8) | (kinds[random(kinds.length)] ?? 0)) >>> 0;
    const choices = [word, word, random(64), random(2 ** 32), 0xffffffff];
    bytes.writeUInt32LE(choices[random(choices.length)] ?? 0, at);
  }
  return bytes;
}

function damaged(text: string, random: (below: number) => number): string {
  let out = text;
  for (let i = random(8); i >= 0; --i) {
    const at = random(out.length);
    const piece = ["[", "]", "{", "}", '"', "\\", "(0xffffffff )[ ", "\0", " "];
    out =
      out.slice(0, at) + (piece[random(9)] ?? "") + out.slice(at + random(9));
  }
  return out;
}

test("payloads", () => {
  const random = generator(1);
  const reader = new Reader();
  for (let round = 0; round < ROUNDS; ++round) {
    const bytes = payload(random);
    const view = viewOf(bytes);
    for (const message of messages) {
      const read = (): unknown =>
        message.read(reader.open(bytes, view, 0, 0, bytes.length, tagMap));
      const size = JSON.stringify(read(), (_, value: unknown) =>
        typeof value === "bigint" ? String(value) : value,
      ).length;
      // An element takes a byte at least, and few characters.
      assert.ok(size < 1000 + 100 * bytes.length);
    }
  }
});

test("records", () => {
  const random = generator(2);
  for (let round = 0; round < ROUNDS; ++round) {
    const peer = new PeerRecord(table.tags, table.sends);
    peer.take(damaged(record, random));
    assert.equal(peer.tagMap.length, table.tags.length);
  }
  // Brackets without end, and values that all run to the end, take no time to speak of.
  for (const piece of ["{[", "(", 'a:"', "msgs:(0xffffffff )[ { "])
    new PeerRecord(table.tags, table.sends).take(piece.repeat(200_000));
});

test("streams", () => {
  const random = generator(3);
  let refused = 0;
  for (let round = 0; round < ROUNDS; ++round) {
    const cutter = new PacketCutter((packet) => {
      assert.ok(packet.keep().bytes.length <= stream.length);
    });
    const sizes = [44, 44, 44, 32, 128, 0, 43, 132, random(2 ** 32)];
    const lengths = [0, 4, 5, 100, 0x0fffffff, 0xffffffff];
    const stream = Buffer.alloc(random(300));
    for (let at = 0; at + 8 <= stream.length; at += 44) {
      stream.writeUInt32LE(sizes[random(sizes.length)] ?? 0, at);
      stream.writeUInt32LE(lengths[random(lengths.length)] ?? 0, at + 4);
    }
    try {
      for (let at = 0; at < stream.length;) {
        const part = Buffer.from(stream.subarray(at, (at += 1 + random(80))));
        cutter.feed(part, viewOf(part), part.length);
      }
    } catch (error) {
      assert.ok(error instanceof ProtocolError, String(error));
      ++refused;
    }
  }
  assert.ok(refused > ROUNDS / 10);
});
