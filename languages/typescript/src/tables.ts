// What a compiled interface consists of: how each message is written and read, and what each side
// takes and sends.

import type { Reader } from "./wire/reader.js";
import type { Writer } from "./wire/writer.js";

/** A list as it may be sent: an array, or a typed one. */
type SendingValue<Value> = Value extends Uint8Array
  ? ArrayLike<number>
  : Value extends readonly (infer Element)[]
    ? ArrayLike<Element>
    : Value extends object
      ? Sending<Value>
      : Value;

/**
 * A message as it may be sent: every field may be left out, which then is 0, false, empty or none.
 * So a field that the next version adds breaks no program.
 */
export type Sending<Message> = {
  readonly [Field in keyof Message]?: SendingValue<Message[Field]> | undefined;
};

/** A message that isn't answered. */
export interface OneWay<Message> {
  /** As in the catalogue. */
  readonly name: string;
  readonly format: string;
  /** Its place among the messages that its sender sends, by name. */
  readonly index: number;
  /** Flags in the receiver's table, and of the packet. */
  readonly entryFlags: number;
  readonly packetFlags: number;
  /** The name of the receiver's handler. */
  readonly handler: string;
  write(out: Writer, message: Sending<Message>): void;
  read(input: Reader): Message;
}

/** A message that is a call. */
export interface TwoWay<Message, Reply> extends OneWay<Message> {
  writeReply(out: Writer, reply: Sending<Reply>): void;
  readReply(input: Reader): Reply;
}

/** What the handler of a call gives: the reply, or a promise of it. */
export type Answer<Reply> = Sending<Reply> | PromiseLike<Sending<Reply>>;

/** A message of whatever type. */
// eslint-disable-next-line @typescript-eslint/no-explicit-any
export type AnyMessage = OneWay<any> & Partial<TwoWay<any, any>>;

/** One side of a spec. Messages and tags are sorted by byte value. */
export interface SideTable {
  readonly spec: string;
  readonly side: string;
  readonly vstamp: string;
  readonly flags: number;
  readonly tags: readonly string[];
  readonly receives: readonly AnyMessage[];
  readonly sends: readonly AnyMessage[];
}
