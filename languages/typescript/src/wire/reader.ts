// The binary form of a message that is being read.
//
// Fields are found by the sender's tags. A reader that takes them in the order in which they were
// written pays one step for each: the start of the search walks along behind it. One that takes
// them in another order searches from the first field not yet read in order. Nothing here fails:
// what is missing or cut short reads as 0, none or an empty list, and no read goes past the
// message, whatever its bytes say. Alignment is counted from the start of the packet.

import { FieldKind, TAG_COUNT, TAG_ELEMENT } from "./format.js";
import type { BareKind, ElementKind } from "./kinds.js";

const SHORT_TEXT = 24;
const FEW_BYTES = 64;
const COUNT_WORD = (TAG_COUNT << 8) | FieldKind.u32;

/** Where a count field stands, which is read before its pointer array. */
export interface Count {
  value: number;
  /** What follows the field; -1 if it isn't there. */
  behind: number;
}

interface Range {
  start: number;
  end: number;
}

export class Reader {
  /** The peer's tag of each own one, -1 for a field that it doesn't have. */
  tagMap: Int32Array = new Int32Array(0);
  private bytes: Buffer = Buffer.alloc(0);
  private view = new DataView(this.bytes.buffer, 0, 0);
  private base = 0;
  private start = 0;
  private end = 0;
  private cursor = 0;
  private limit = 0;
  /** Where pointer arrays stand that have been read: their fields have the same tags as others. */
  private taken: Range[] = [];

  /** Begins to read a payload, `start` to `end`, of the packet that stands at `base`. */
  open(
    bytes: Buffer,
    view: DataView,
    base: number,
    start: number,
    end: number,
    tagMap: Int32Array,
  ): this {
    this.bytes = bytes;
    this.view = view;
    this.base = base;
    this.start = start;
    this.end = end;
    this.cursor = start;
    this.limit = end;
    this.tagMap = tagMap;
    if (this.taken.length > 0) this.taken = [];
    return this;
  }

  private align(to: number): void {
    this.cursor += -(this.cursor - this.base) & (to - 1);
  }

  /** A word at the cursor; 0, and the cursor on the limit, if there is none. */
  word(): number {
    const at = this.cursor + (-(this.cursor - this.base) & 3);
    if (at + 4 > this.limit) {
      this.cursor = this.limit;
      return 0;
    }
    this.cursor = at + 4;
    return this.view.getUint32(at, true);
  }

  private skip(length: number): void {
    this.cursor += Math.min(length, this.limit - this.cursor);
  }

  /** Puts the cursor on the value of a field; false if the field isn't there. */
  private find(tag: number): boolean {
    let inOrder = this.start === this.cursor;
    if (!inOrder) this.cursor = this.start;
    this.limit = this.end;
    while (tag !== -1) {
      const word = this.word();
      if (word === 0) break;
      let length = word & 0x0f;
      if (length === 0) length = this.word();
      if (
        word >>> 8 !== tag ||
        (this.taken.length > 0 && this.isTaken(this.cursor))
      ) {
        inOrder = false;
        this.skip(length);
        continue;
      }
      // The string reader takes the length word itself.
      if ((word & 0xf0) === FieldKind.string) {
        this.cursor -= 4;
        length += 4;
      }
      if (length < this.limit - this.cursor) this.limit = this.cursor + length;
      if (inOrder) this.start = this.limit;
      return true;
    }
    this.limit = this.cursor;
    return false;
  }

  private own(tag: number): number {
    return this.tagMap[tag] as number;
  }

  u1(tag: number): boolean {
    this.find(this.own(tag));
    return this.readByte() !== 0;
  }

  u2(tag: number): number {
    this.find(this.own(tag));
    return this.readU2();
  }

  u4(tag: number): number {
    this.find(this.own(tag));
    return this.word() | 0;
  }

  u8(tag: number): bigint {
    this.find(this.own(tag));
    return this.readU8();
  }

  f4(tag: number): number {
    this.find(this.own(tag));
    return this.readF4();
  }

  f8(tag: number): number {
    this.find(this.own(tag));
    return this.readF8();
  }

  /** A text; none reads as the empty one. */
  str(tag: number): string {
    this.find(this.own(tag));
    return this.readText() ?? "";
  }

  /** A text, which may be none. */
  nullable(tag: number): string | null {
    this.find(this.own(tag));
    return this.readText();
  }

  /** Makes a block the range of the following reads; what it gives is for {@link leave}. */
  enter(tag: number): Range {
    this.find(this.own(tag));
    const saved = { start: this.start, end: this.end };
    this.start = this.cursor;
    this.end = this.limit;
    return saved;
  }

  leave(saved: Range): void {
    this.start = saved.start;
    this.end = saved.end;
  }

  /** Reads the count field of a pointer array. */
  count(tag: number): Count {
    const isThere = this.find(this.own(tag));
    const value = this.word();
    return isThere ? { value, behind: this.limit } : { value: 0, behind: -1 };
  }

  /**
   * Reads the pointer array that a count belongs to: the first behind the count field that has so
   * many elements and hasn't been read yet; one directly behind it is taken whatever its number of
   * elements. A message may say one count and bring another number; the lesser holds.
   */
  elements<T>(count: Count, kind: ElementKind<T>): T[] {
    const from = Math.max(count.behind, this.start);
    this.limit = this.end;
    const array = { start: from, end: from };
    let first = from;
    let held = 0;
    let start = count.behind < 0 ? this.end : from;
    for (;;) {
      this.cursor = start;
      const word = this.stepOver();
      const headEnd = this.cursor;
      const announced = this.stepped;
      if (word === 0) break;
      if (
        word === COUNT_WORD &&
        !(this.taken.length > 0 && this.isTaken(headEnd))
      ) {
        let number = 0;
        let end = headEnd;
        while (number < announced) {
          const element = this.stepOver();
          if (element >>> 8 !== TAG_ELEMENT) break;
          ++number;
          end = this.cursor;
        }
        const matches = number === count.value && announced === count.value;
        if (matches || start === from) {
          array.start = start;
          array.end = end;
          first = headEnd;
          held = number;
        }
        if (matches) break;
      }
      start = headEnd;
    }
    const saved = { start: this.start, end: this.end };
    if (array.start === this.start) saved.start = array.end;
    else if (array.end !== from) this.taken.push(array);
    this.start = first;
    this.end = array.end;
    this.cursor = first;
    const values: T[] = [];
    for (let i = 0; i < held; ++i) {
      this.find(TAG_ELEMENT);
      const value = kind.get(this);
      if (i < count.value) values.push(value);
    }
    this.leave(saved);
    return values;
  }

  /** The number of bare values at the cursor, of `size` bytes each, bounded by what is there. */
  private beginPacked(size: number): number {
    const announced = this.word();
    return Math.min(
      announced,
      Math.max(0, Math.floor((this.limit - this.cursor) / size)),
    );
  }

  /** Reads a dynamic array of numbers whose count field said `count`; the lesser number holds. */
  packed<T>(tag: number, count: number, kind: BareKind<T>): T[] {
    const saved = this.enter(tag);
    const held = Math.min(this.beginPacked(kind.size), count >>> 0);
    const values: T[] = [];
    for (let i = 0; i < held; ++i) values.push(kind.get(this));
    this.leave(saved);
    return values;
  }

  /** The same for bytes, as a copy. */
  packedBytes(tag: number, count: number): Uint8Array {
    const saved = this.enter(tag);
    const held = Math.min(this.beginPacked(1), count >>> 0);
    const values = this.copyOf(this.cursor, held);
    this.leave(saved);
    return values;
  }

  /** A few bytes are copied faster by hand; many need not be cleared before. */
  private copyOf(from: number, count: number): Uint8Array {
    if (count > FEW_BYTES) {
      const many = Buffer.allocUnsafeSlow(count);
      this.bytes.copy(many, 0, from, from + count);
      return many;
    }
    const few = new Uint8Array(count);
    for (let i = 0; i < count; ++i) few[i] = this.bytes[from + i] as number;
    return few;
  }

  /** A block by the function that reads its fields. */
  block<T>(tag: number, read: (reader: Reader) => T): T {
    const saved = this.enter(tag);
    const value = read(this);
    this.leave(saved);
    return value;
  }

  /** A block that holds just a count and its pointer array. */
  listBlock<T>(tag: number, countTag: number, kind: ElementKind<T>): T[] {
    const saved = this.enter(tag);
    const values = this.elements(this.count(countTag), kind);
    this.leave(saved);
    return values;
  }

  /** A block that holds just a count and its dynamic array. */
  packedBlock<T>(
    tag: number,
    countTag: number,
    arrayTag: number,
    kind: BareKind<T>,
  ): T[] {
    const saved = this.enter(tag);
    const values = this.packed(arrayTag, this.u4(countTag), kind);
    this.leave(saved);
    return values;
  }

  /** The same for bytes. */
  bytesBlock(tag: number, countTag: number, arrayTag: number): Uint8Array {
    const saved = this.enter(tag);
    const values = this.packedBytes(arrayTag, this.u4(countTag));
    this.leave(saved);
    return values;
  }

  /** The last word that {@link stepOver} passed as the value of a field of 4 bytes; else 0. */
  private stepped = 0;

  /** Steps over the field at the cursor; its word, or 0 at the end of the range. */
  private stepOver(): number {
    const word = this.word();
    let length = word & 0x0f;
    if (word !== 0 && length === 0) length = this.word();
    this.stepped =
      length === 4 && this.limit - this.cursor >= 4
        ? this.view.getUint32(this.cursor, true)
        : 0;
    this.skip(length);
    return word;
  }

  /** Whether the field whose words end at `offset` is part of an array that has been read. */
  private isTaken(offset: number): boolean {
    // Not those of a range that is being read just now.
    return this.taken.some(
      (array) =>
        array.start >= this.start &&
        array.start < offset &&
        offset <= array.end,
    );
  }

  readByte(): number {
    if (this.cursor + 1 > this.limit) {
      this.cursor = this.limit;
      return 0;
    }
    return this.bytes[this.cursor++] as number;
  }

  readU2(): number {
    this.align(2);
    if (this.cursor + 2 > this.limit) {
      this.cursor = this.limit;
      return 0;
    }
    this.cursor += 2;
    return this.view.getUint16(this.cursor - 2, true);
  }

  readU8(): bigint {
    const high = BigInt(this.word());
    return (high << 32n) | BigInt(this.word());
  }

  readF4(): number {
    scratch.setUint32(0, this.word(), true);
    return scratch.getFloat32(0, true);
  }

  readF8(): number {
    scratch.setUint32(4, this.word(), true);
    scratch.setUint32(0, this.word(), true);
    return scratch.getFloat64(0, true);
  }

  /** The text at the cursor, which begins with its length; null for none and one that is cut. */
  readText(): string | null {
    const length = this.word();
    if (length === 0 || length > this.limit - this.cursor) {
      if (length !== 0) this.cursor = this.limit;
      return null;
    }
    const from = this.cursor;
    this.cursor += length;
    return textOf(this.bytes, from, from + length);
  }
}

const scratch = new DataView(new ArrayBuffer(8));

/** The text up to its first zero, or to `end` if there is none. */
export function textOf(bytes: Buffer, from: number, end: number): string {
  if (end - from <= SHORT_TEXT) {
    let text = "";
    let at = from;
    for (; at < end; ++at) {
      const byte = bytes[at] as number;
      if (byte === 0) return text;
      if (byte >= 0x80) break;
      text += String.fromCharCode(byte);
    }
    if (at === end) return text;
  }
  let stop = end;
  if (bytes[end - 1] === 0) --stop;
  const zero = bytes.subarray(from, stop).indexOf(0);
  return bytes.toString("utf8", from, zero < 0 ? stop : from + zero);
}
