// The vectors that the C++ library makes: the same bytes, the same values, the same verdicts.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";
import type { AnyMessage, SideTable } from "#internal/tables.js";
import { ProtocolError } from "hublink";
import { Incoming } from "#internal/wire/incoming.js";
import { PacketCutter } from "#internal/wire/packets.js";
import { Reader } from "#internal/wire/reader.js";
import { HublinkPlugin, HublinkRouter } from "#internal/generated/hublink.js";
import { PeerRecord, writeRecord } from "#internal/wire/record.js";
import { Writer } from "#internal/wire/writer.js";
import * as first from "./generated/1/vectors.js";
import * as second from "./generated/2/vectors.js";
import { tableOf, viewOf } from "./support.js";

type Json = Record<string, unknown>;
interface Case extends Json {
  name: string;
  verdict: string;
  writes?: boolean;
  payload: string;
  value: unknown;
}

const VECTORS = new URL("../../../vectors/", import.meta.url);

function cases<Of extends Case>(file: string): Of[] {
  const text = readFileSync(new URL(`${file}.json`, VECTORS), "utf8");
  return JSON.parse(text) as Of[];
}

const tables: Record<string, SideTable> = {
  "1 left": tableOf(first.VectorsLeft),
  "1 right": tableOf(first.VectorsRight),
  "2 left": tableOf(second.VectorsLeft),
  "2 right": tableOf(second.VectorsRight),
  "hub plugin": tableOf(HublinkPlugin),
  "hub router": tableOf(HublinkRouter),
};

function messageOf(version: number, name: string): AnyMessage {
  const sides = ["left", "right"].map(
    (side) => tables[`${String(version)} ${side}`]?.sends ?? [],
  );
  const found = sides.flat().find((message) => message.name === name);
  assert.ok(found, name);
  return found;
}

const tagsOf = (version: number): readonly string[] =>
  tables[`${String(version)} left`]?.tags ?? [];

// What a value of the vectors is here: none is the empty text, unless it may be none.
function fromJson(value: unknown, mayBeNone: boolean): unknown {
  if (value === null) return mayBeNone ? null : "";
  if (Array.isArray(value)) return value.map((one) => fromJson(one, mayBeNone));
  if (typeof value !== "object") return value;
  const [form, text] = Object.entries(value as Json)[0] ?? ["", ""];
  if (form === "%u8%") return BigInt(text as string);
  const bytes = Buffer.from(
    form.startsWith("%") ? (text as string) : "",
    "hex",
  );
  if (form === "%f4%") return bytes.readFloatBE();
  if (form === "%f8%") return bytes.readDoubleBE();
  return Object.fromEntries(
    Object.entries(value).map(([name, inner]) => [
      name,
      fromJson(inner, name === "remark" || (mayBeNone && name === "names")),
    ]),
  );
}

function toPlain(value: unknown): unknown {
  if (value instanceof Uint8Array) return [...value];
  if (Array.isArray(value)) return value.map(toPlain);
  if (typeof value !== "object" || value === null) return value;
  return Object.fromEntries(
    Object.entries(value).map(([name, inner]) => [name, toPlain(inner)]),
  );
}

function valueOf(message: string, value: unknown): unknown {
  const isNullable = message === "Nullable";
  const outer = fromJson(value, isNullable) as Json;
  return outer;
}

function openPayload(payload: string, tagMap: Int32Array): Reader {
  const bytes = Buffer.concat([Buffer.alloc(44), Buffer.from(payload, "hex")]);
  return new Reader().open(bytes, viewOf(bytes), 0, 44, bytes.length, tagMap);
}

function tagMap(own: readonly string[], peer: readonly string[]): Int32Array {
  return Int32Array.from(own, (name) => peer.indexOf(name));
}

const HEADING = { source: 1, destination: 2, type: 15, id: 0, flags: 2 };

function payloadOf(write: (out: Writer) => void): string {
  const out = new Writer(64);
  out.beginPacket(1, { ...HEADING, responseTo: 0, chain: 0, depth: 1 });
  write(out);
  out.finishPacket();
  const size = out.bytes.readUInt32LE(4);
  return out.bytes.toString("hex", 44, 44 + size);
}

interface FieldCase extends Case {
  message: string;
  tags?: string[];
}

for (const file of ["fields", "malformed"])
  test(`${file} read and write like theirs`, () => {
    const own = tagsOf(1);
    for (const one of cases<FieldCase>(file)) {
      const message = messageOf(1, one.message);
      const value = valueOf(one.message, one.value);
      const input = openPayload(one.payload, tagMap(own, one.tags ?? own));
      assert.deepEqual(toPlain(message.read(input)), value, one.name);
      if (!one.writes) continue;
      const written = payloadOf((out) => message.write(out, value as never));
      assert.equal(written, one.payload, one.name);
    }
  });

interface VersionCase extends Case {
  writer: number;
  reader: number;
  message: string;
  part: string;
  refusal?: string;
}

test("versions meet by name", () => {
  for (const one of cases<VersionCase>("versions")) {
    const own = tagsOf(one.reader);
    const input = openPayload(one.payload, tagMap(own, tagsOf(one.writer)));
    const message = messageOf(one.reader, one.message);
    const isReply = one.part === "reply";
    const read: unknown = isReply
      ? message.readReply?.(input)
      : message.read(input);
    assert.deepEqual(toPlain(read), valueOf(one.message, one.value), one.name);
    if (one.verdict === "refusal")
      assert.equal(input.nullable(own.indexOf("_refused")), one.refusal);
  }
});

interface PacketCase extends Case {
  stream: string;
  packets: Record<string, number | string>[];
}

// Whole, in single bytes, and in pieces that end within words.
for (const piece of [1 << 30, 1, 7])
  test(`packets in pieces of ${String(piece)} bytes`, () => {
    for (const one of cases<PacketCase>("packets")) {
      const stream = Buffer.from(one.stream, "hex");
      const came: Record<string, number | string>[] = [];
      const cutter = new PacketCutter((packet) => {
        const { source, destination, sequence, type, id, flags } = packet;
        const { chain, depth, responseTo: response_to } = packet.keep();
        const payload = packet.text();
        came.push({
          ...{ source, destination, sequence, response_to, type, id, flags },
          ...{ chain, depth },
          payload: Buffer.from(payload, "latin1").toString("hex"),
        });
      });
      const feed = (): void => {
        for (let at = 0; at < stream.length; at += piece) {
          const part = Buffer.from(stream.subarray(at, at + piece));
          cutter.feed(part, viewOf(part), part.length);
        }
      };
      if (one.verdict === "refused") assert.throws(feed, ProtocolError);
      else feed();
      assert.deepEqual(came, one.packets, one.name);
    }
  });

test("plain packets", () => {
  for (const one of cases("plain")) {
    const packet = new Incoming();
    const bytes = Buffer.from(one.payload, "hex");
    packet.set(
      bytes,
      viewOf(Buffer.concat([bytes, Buffer.alloc(44)])),
      0,
      0,
      bytes.length,
    );
    const value = Buffer.from(one.value as string, "hex");
    assert.deepEqual(packet.plainBytes(), value, one.name);
    if (one.writes)
      assert.equal(
        payloadOf((out) => out.plain(1, value)),
        one.payload,
      );
  }
});

interface RecordCase extends Case {
  catalogue: string;
  side: string;
  peer: {
    name: string;
    vstamp: string | null;
    flags: number;
    tags: Record<string, number>;
    sends: Record<string, { id: number; flags: number } | null>;
  };
}

test("records", () => {
  for (const one of cases<RecordCase>("records")) {
    const version = one.catalogue.includes("_2") ? "2" : "1";
    const isHub = one.catalogue.endsWith("hublink.stp");
    const table = tables[`${isHub ? "hub" : version} ${one.side}`];
    assert.ok(table);
    const sends = table.sends.map((message) => message.name);
    const payload = Buffer.from(one.payload, "hex");
    // Who has written it, its name says.
    const [, side, of] = /^(\w+) of version (\d)/.exec(one.name) ?? [];
    const writer = tables[`${of ?? ""} ${side ?? ""}`];
    if (one.writes && writer) {
      const receives = writer.receives.map((message) => ({
        ...message,
        flags: message.entryFlags,
      }));
      const written = payloadOf((out) =>
        out.text(writeRecord({ ...writer, receives })),
      );
      assert.equal(written, one.payload, one.name);
    }
    const peer = new PeerRecord(table.tags, table.sends);
    peer.take(payload.toString("latin1"));
    const { name, vstamp, flags, tags, sends: wanted } = one.peer;
    assert.deepEqual(
      [peer.side, peer.vstamp, peer.flags],
      [name, vstamp, flags],
      one.name,
    );
    const known = table.tags
      .map((tag, own): [string, number] => [tag, peer.tagMap[own] ?? -1])
      .filter(
        ([tag, at]) =>
          at !== -1 && !tag.endsWith("!") && !(isHub && tag === "_refused"),
      );
    assert.deepEqual(Object.fromEntries(known), tags, one.name);
    const taken = sends.map((message, index) => {
      const id = peer.ids[index];
      const flags = peer.entryFlags[index];
      return [message, id === 0xffffffff ? null : { id, flags }];
    });
    assert.deepEqual(Object.fromEntries(taken), wanted, one.name);
  }
});
