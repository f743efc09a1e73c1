// How the elements of arrays are written and read: as fields of their own, or bare.

import type { Reader } from "./reader.js";
import {
  checkedByte,
  checkedF4,
  checkedU2,
  checkedU4,
  checkedU8,
  type Writer,
} from "./writer.js";

/** An element of a pointer array, which is a field by itself. */
export interface ElementKind<T> {
  put(writer: Writer, tag: number, value: T): void;
  /** Reads it with the cursor on its value. */
  get(reader: Reader): T;
}

/** An element of a dynamic array, which stands behind the one before. */
export interface BareKind<T> {
  /** In bytes. */
  readonly size: number;
  /** Writes it at an offset of the writer's buffer. */
  put(writer: Writer, at: number, value: T): void;
  get(reader: Reader): T;
}

const byte = (reader: Reader): number => reader.readByte();
const u2 = (reader: Reader): number => reader.readU2();
const u4 = (reader: Reader): number => reader.word() | 0;
const u8 = (reader: Reader): bigint => reader.readU8();
const f4 = (reader: Reader): number => reader.readF4();
const f8 = (reader: Reader): number => reader.readF8();
const text = (reader: Reader): string => reader.readText() ?? "";
const nullable = (reader: Reader): string | null => reader.readText();

const kind = <T>(
  put: ElementKind<T>["put"],
  get: ElementKind<T>["get"],
): ElementKind<T> => ({ put, get });

export const element = {
  u1: kind<number>((out, tag, value) => out.byte(tag, value), byte),
  u2: kind<number>((out, tag, value) => out.u2(tag, value), u2),
  u4: kind<number>((out, tag, value) => out.u4(tag, value), u4),
  u8: kind<bigint>((out, tag, value) => out.u8(tag, value), u8),
  f4: kind<number>((out, tag, value) => out.f4(tag, value), f4),
  f8: kind<number>((out, tag, value) => out.f8(tag, value), f8),
  str: kind<string>((out, tag, value) => out.str(tag, value), text),
  nullable: kind<string | null>(
    (out, tag, value) => out.str(tag, value),
    nullable,
  ),
  fn: kind<string>((out, tag, value) => out.fn(tag, value), text),
  nullableFn: kind<string | null>(
    (out, tag, value) => out.fn(tag, value),
    nullable,
  ),
};

const bareKind = <T>(
  size: number,
  put: BareKind<T>["put"],
  get: BareKind<T>["get"],
): BareKind<T> => ({ size, put, get });

export const bare = {
  u1: bareKind<number>(
    1,
    (out, at, value) => (out.bytes[at] = checkedByte(value)),
    byte,
  ),
  u2: bareKind<number>(
    2,
    (out, at, value) => out.view.setUint16(at, checkedU2(value), true),
    u2,
  ),
  u4: bareKind<number>(
    4,
    (out, at, value) => out.view.setInt32(at, checkedU4(value), true),
    u4,
  ),
  u8: bareKind<bigint>(
    8,
    (out, at, value) => {
      const checked = checkedU8(value);
      out.view.setUint32(at, Number(checked >> 32n), true);
      out.view.setUint32(at + 4, Number(checked & 0xffffffffn), true);
    },
    u8,
  ),
  f4: bareKind<number>(
    4,
    (out, at, value) => out.view.setFloat32(at, checkedF4(value), true),
    f4,
  ),
  f8: bareKind<number>(8, (out, at, value) => out.putF8(at, value), f8),
};
