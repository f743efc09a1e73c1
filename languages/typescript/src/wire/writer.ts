// Packets that are being written, one behind the other, into a buffer that grows.
//
// A packet begins at a multiple of 4 of the buffer, so that the format's alignment is that of the
// buffer. A packet that can't be finished is taken back, and leaves nothing.

import { HublinkError } from "../errors.js";
import {
  At,
  FieldKind,
  HEADER_SIZE,
  MAX_PACKET_SIZE,
  TAG_COUNT,
  TAG_ELEMENT,
} from "./format.js";
import type { BareKind, ElementKind } from "./kinds.js";
import { absolutePath } from "./path.js";

const FIRST_SIZE = 16 * 1024;
// Texts of up to so many characters are written by hand, which is faster for them.
const SHORT_TEXT = 48;

function outOfRange(value: unknown, kind: string): HublinkError {
  return new HublinkError("out of range", `${String(value)} is no ${kind}`);
}

/** What a packet says in its header, besides its sizes and its sequence. */
export interface Heading {
  source: number;
  destination: number;
  type: number;
  id: number;
  flags: number;
  responseTo: number;
  /** 0: the packet's own sequence. */
  chain: number;
  depth: number;
}

export class Writer {
  bytes: Buffer;
  view: DataView;
  /** Behind the last byte that was written. */
  end = 0;
  private start = 0;

  constructor(size = FIRST_SIZE) {
    this.bytes = Buffer.allocUnsafeSlow(size);
    this.view = new DataView(
      this.bytes.buffer,
      this.bytes.byteOffset,
      this.bytes.length,
    );
  }

  private reserve(count: number): void {
    if (this.end + count > this.bytes.length) this.grow(count);
  }

  private grow(count: number): void {
    // The end word and the fill come on top of what a packet may have.
    if (this.end - this.start + count > MAX_PACKET_SIZE + HEADER_SIZE)
      throw new HublinkError(
        "too large",
        "the packet would have more than 256 MiB",
      );
    const bytes = Buffer.allocUnsafeSlow(
      Math.max(2 * this.bytes.length, this.end + count),
    );
    this.bytes.copy(bytes, 0, 0, this.end);
    this.bytes = bytes;
    this.view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
  }

  beginPacket(sequence: number, heading: Heading): void {
    this.reserve(HEADER_SIZE);
    const at = this.end;
    const view = this.view;
    this.start = at;
    view.setUint32(at, HEADER_SIZE, true);
    view.setInt32(at + At.source, heading.source, true);
    view.setInt32(at + At.destination, heading.destination, true);
    view.setUint32(at + At.sequence, sequence, true);
    view.setUint32(at + At.responseTo, heading.responseTo, true);
    view.setUint32(at + At.type, heading.type, true);
    view.setUint32(at + At.id, heading.id, true);
    view.setUint32(at + At.flags, heading.flags, true);
    view.setUint32(
      at + At.chain,
      heading.chain === 0 ? sequence : heading.chain,
      true,
    );
    view.setUint32(at + At.depth, heading.depth, true);
    this.end = at + HEADER_SIZE;
  }

  /** Writes the end word, the size and the fill. */
  finishPacket(): void {
    this.word(0);
    const size = this.end - this.start;
    if (size > MAX_PACKET_SIZE)
      throw new HublinkError(
        "too large",
        "the packet would have more than 256 MiB",
      );
    this.view.setUint32(this.start + At.payloadSize, size - HEADER_SIZE, true);
  }

  /** Takes back the packet that was begun last. */
  cancelPacket(): void {
    this.end = this.start;
  }

  /** Zeros up to the next multiple of 4. */
  private align(): void {
    while ((this.end & 3) !== 0) this.bytes[this.end++] = 0;
  }

  private word(value: number): void {
    this.reserve(7);
    this.align();
    this.view.setUint32(this.end, value, true);
    this.end += 4;
  }

  /** A field word with a word of value. */
  private pair(tag: number, kind: number, value: number): void {
    this.reserve(11);
    this.align();
    this.view.setUint32(this.end, (tag << 8) | kind, true);
    this.view.setInt32(this.end + 4, value, true);
    this.end += 8;
  }

  u1(tag: number, value: boolean): void {
    this.reserve(8);
    this.align();
    this.view.setUint32(this.end, (tag << 8) | FieldKind.u8, true);
    this.bytes[this.end + 4] = value ? 1 : 0;
    this.end += 5;
  }

  /** A byte, as an element of an array. */
  byte(tag: number, value: number): void {
    this.u1(tag, false);
    this.bytes[this.end - 1] = checkedByte(value);
  }

  u2(tag: number, value: number): void {
    const checked = checkedU2(value);
    this.reserve(9);
    this.align();
    this.view.setUint32(this.end, (tag << 8) | FieldKind.u16, true);
    this.view.setUint16(this.end + 4, checked, true);
    this.end += 6;
  }

  u4(tag: number, value: number): void {
    this.pair(tag, FieldKind.u32, checkedU4(value));
  }

  u8(tag: number, value: bigint): void {
    const checked = checkedU8(value);
    this.pair(tag, FieldKind.u64, Number(checked >> 32n) | 0);
    this.word(Number(checked & 0xffffffffn));
  }

  f4(tag: number, value: number): void {
    const checked = checkedF4(value);
    this.pair(tag, FieldKind.f32, 0);
    this.view.setFloat32(this.end - 4, checked, true);
  }

  f8(tag: number, value: number): void {
    if (typeof value !== "number") throw outOfRange(value, "number");
    this.pair(tag, FieldKind.f64, 0);
    this.reserve(4);
    this.putF8(this.end - 4, value);
    this.end += 4;
  }

  /** Two words, the high one first. */
  putF8(at: number, value: number): void {
    this.view.setFloat64(at, value, true);
    const low = this.view.getUint32(at, true);
    this.view.setUint32(at, this.view.getUint32(at + 4, true), true);
    this.view.setUint32(at + 4, low, true);
  }

  /** A text; null is none. */
  str(tag: number, value: string | null): void {
    if (value === null) {
      this.pair(tag, FieldKind.string, 0);
      return;
    }
    if (typeof value !== "string") throw outOfRange(value, "text");
    this.pair(tag, FieldKind.string, 0);
    const from = this.end;
    const length = value.length;
    // A character takes no more than three bytes.
    this.reserve(
      (length <= SHORT_TEXT ? 3 * length : Buffer.byteLength(value)) + 1,
    );
    this.writeText(value, length);
    this.bytes[this.end++] = 0;
    this.view.setUint32(from - 4, this.end - from, true);
  }

  private writeText(value: string, length: number): void {
    const bytes = this.bytes;
    if (length <= SHORT_TEXT) {
      let at = this.end;
      let i = 0;
      for (; i < length; ++i) {
        const unit = value.charCodeAt(i);
        if (unit === 0 || unit >= 0x80) break;
        bytes[at++] = unit;
      }
      if (i === length) {
        this.end = at;
        return;
      }
    }
    // Every reader would take the zero for the end.
    if (value.includes("\0"))
      throw outOfRange(JSON.stringify(value), "text: it has a zero in it");
    this.end += bytes.write(value, this.end);
  }

  /** A file name, made absolute. */
  fn(tag: number, value: string | null): void {
    this.str(tag, absolutePath(value));
  }

  /** Begins a block; what it gives is for {@link endBlock}. */
  beginBlock(tag: number): number {
    this.pair(tag, FieldKind.struct, 0);
    return this.end;
  }

  endBlock(mark: number): void {
    this.view.setUint32(mark - 4, this.end - mark, true);
  }

  /** A pointer array behind its count field: the count once more, and each element by itself. */
  elements<T>(values: ArrayLike<T>, kind: ElementKind<T>): void {
    const count = values.length;
    this.pair(TAG_COUNT, FieldKind.u32, count);
    for (let i = 0; i < count; ++i) kind.put(this, TAG_ELEMENT, values[i] as T);
  }

  /** A dynamic array, a field by itself. */
  packed<T>(tag: number, values: ArrayLike<T>, kind: BareKind<T>): void {
    const count = values.length;
    const size = kind.size;
    this.pair(tag, FieldKind.array, 0);
    const mark = this.end;
    this.word(count);
    this.reserve(count * size);
    const from = this.end;
    this.end += count * size;
    if (size === 1 && values instanceof Uint8Array)
      this.bytes.set(values, from);
    else
      for (let i = 0; i < count; ++i)
        kind.put(this, from + i * size, values[i] as T);
    this.endBlock(mark);
  }

  /** A block by the function that writes its fields. */
  block<T>(
    tag: number,
    value: T,
    put: (writer: Writer, value: T) => void,
  ): void {
    const mark = this.beginBlock(tag);
    put(this, value);
    this.endBlock(mark);
  }

  /** A block that holds just a count and its pointer array. */
  listBlock<T>(
    tag: number,
    countTag: number,
    values: ArrayLike<T>,
    kind: ElementKind<T>,
  ): void {
    const mark = this.beginBlock(tag);
    this.u4(countTag, values.length);
    this.elements(values, kind);
    this.endBlock(mark);
  }

  /** A block that holds just a count and its dynamic array. */
  packedBlock<T>(
    tag: number,
    countTag: number,
    arrayTag: number,
    values: ArrayLike<T>,
    kind: BareKind<T>,
  ): void {
    const mark = this.beginBlock(tag);
    this.u4(countTag, values.length);
    this.packed(arrayTag, values, kind);
    this.endBlock(mark);
  }

  /** An array of bytes without the count in front: what a packet of plain bytes holds. */
  plain(tag: number, values: Uint8Array): void {
    this.pair(tag, FieldKind.array, values.length);
    this.reserve(values.length);
    this.bytes.set(values, this.end);
    this.end += values.length;
  }

  /** Raw bytes: the text of a record. */
  text(value: string): void {
    const size = Buffer.byteLength(value);
    this.reserve(size);
    this.bytes.write(value, this.end);
    this.end += size;
  }
}

export function checkedByte(value: number): number {
  if ((value & 0xff) !== value) throw outOfRange(value, "byte");
  return value;
}

export function checkedU2(value: number): number {
  if ((value & 0xffff) !== value)
    throw outOfRange(value, "integer of 16 bits without a sign");
  return value;
}

export function checkedU4(value: number): number {
  if ((value | 0) !== value) throw outOfRange(value, "integer of 32 bits");
  return value;
}

export function checkedF4(value: number): number {
  if (
    typeof value !== "number" ||
    (Math.abs(Math.fround(value)) === Infinity && isFinite(value))
  )
    throw outOfRange(value, "number of 32 bits");
  return value;
}

export function checkedU8(value: bigint): bigint {
  if (typeof value !== "bigint" || value < 0n || value > 0xffffffffffffffffn)
    throw outOfRange(value, "bigint of 64 bits without a sign");
  return value;
}
