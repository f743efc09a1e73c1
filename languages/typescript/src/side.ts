// One side of an interface on a link: what the classes that stpc writes are built on.
//
// A side that is put onto a link sends its record at once, and takes in what the other end has sent
// before. Messages that are sent before the peer's record has come wait for it, in their order.

import {
  DONE,
  failed,
  Unread,
  type Connection,
  type OpenCall,
} from "./connection.js";
import { runIn, type HandlerContext } from "./context.js";
import { deadlineAfter } from "./deadlines.js";
import { HublinkError } from "./errors.js";
import type {
  AnyMessage,
  OneWay,
  Sending,
  SideTable,
  TwoWay,
} from "./tables.js";
import {
  Flag,
  Negotiation,
  NO_MESSAGE,
  PacketType,
  TAKES_UNLISTED,
} from "./wire/format.js";
import type { Incoming } from "./wire/incoming.js";
import { Reader } from "./wire/reader.js";
import { PeerRecord, writeFormats, writeRecord } from "./wire/record.js";
import type { Heading, Writer } from "./wire/writer.js";

/** How long a call waits, unless told otherwise. */
export const CALL_TIMEOUT = 10_000;
const REFUSED_TAG = "_refused";

/** How long something may take, and how it is given up. */
export interface WaitOptions {
  /** Milliseconds; a negative number means no limit. */
  timeout?: number | undefined;
  /** Rejects with the signal's reason. What comes later is dropped. */
  signal?: AbortSignal | undefined;
}

/** What a side can be put onto: a link. */
export interface Endpoint {
  readonly connection: Connection;
  readonly localRn: number;
  readonly remoteRn: number;
  readonly isUp: boolean;
  /** Whether what handlers do after an `await` belongs to the chain of their message. */
  readonly keepsChains: boolean;
  /** Takes a side, which is then given what comes, and what came before. */
  attach(side: SideBase): void;
  /** What calls fail with once it has ended. */
  endReason(): HublinkError;
}

/** What an endpoint calls. */
export interface SideBase {
  packetCame(packet: Incoming): void;
  retry(): void;
  ended(reason: HublinkError): void;
}

/** Something that waits for the peer's record. */
interface Pending {
  run(): void;
  fail(reason: unknown): void;
}

const AsyncFunction = (async () => DONE).constructor;
const reader = new Reader();
type Handler = (message: unknown) => unknown;

function isPromise(value: unknown): value is PromiseLike<unknown> {
  return (
    typeof (value as { then?: unknown } | null | undefined)?.then === "function"
  );
}

const textOfError = (error: unknown): string =>
  error instanceof Error ? error.message : String(error);

export abstract class Side<Handlers extends object> {
  // Private to the language: the messages of an interface may be called like any of this.
  readonly #table: SideTable;
  readonly #handlers: Handlers;
  readonly #peer: PeerRecord;
  readonly #connection: Connection;
  readonly #keepsChains: boolean;
  readonly #heading: Heading;
  readonly #refusedTag: number;
  #isReady = false;
  #end: HublinkError | undefined;
  #pending: Pending[] = [];
  #putOff: Incoming[] = [];
  #putOffAt = 0; // how many of them have been handled
  readonly #unread: Unread;
  readonly #contexts: HandlerContext[] = [];
  readonly #base: SideBase = {
    packetCame: (packet) => this.#packetCame(packet),
    retry: () => this.#retry(),
    ended: (reason) => this.#linkEnded(reason),
  };
  /** Plain functions that have given a promise before. */
  readonly #slowHandlers = new Set<string>();

  protected constructor(
    endpoint: Endpoint,
    table: SideTable,
    handlers: Handlers,
  ) {
    this.#table = table;
    this.#handlers = handlers;
    this.#connection = endpoint.connection;
    this.#unread = new Unread(this.#connection);
    this.#keepsChains = endpoint.keepsChains;
    this.#peer = new PeerRecord(table.tags, table.sends);
    this.#refusedTag = table.tags.indexOf(REFUSED_TAG);
    this.#heading = {
      source: endpoint.localRn,
      destination: endpoint.remoteRn,
      type: 0,
      id: 0,
      flags: 0,
      responseTo: 0,
      chain: 0,
      depth: 1,
    };
    if (!endpoint.isUp) {
      this.#end = endpoint.endReason();
      return;
    }
    this.#sendRecord();
    endpoint.attach(this.#base);
  }

  /** What a side takes and sends, for tools. */
  static tableOf(side: Side<object>): SideTable {
    return side.#table;
  }

  /**
   * Waits for the peer's record, before which nothing is known of it. Without it, each call waits by
   * itself.
   *
   * @throws {@link HublinkError}: `timed out` (after 10 seconds unless told otherwise), `link ended`
   */
  async ready(options: WaitOptions = {}): Promise<void> {
    options.signal?.throwIfAborted();
    if (this.#end) throw this.#end;
    if (this.#isReady) return;
    await this.#whenReady(options, () => undefined);
  }

  /**
   * Whether the peer takes a message, by its name in the catalogue; false before its record has come
   * (see {@link ready}).
   */
  knows(message: string): boolean {
    const index = this.#table.sends.findIndex((sent) => sent.name === message);
    return this.#isReady && index >= 0 && this.#peer.ids[index] !== NO_MESSAGE;
  }

  /** The same for a field. */
  knowsField(field: string): boolean {
    const index = this.#table.tags.indexOf(field);
    return index >= 0 && this.#peer.tagMap[index] !== -1;
  }

  // --- Sending ---

  protected sendMessage<Message>(
    message: OneWay<Message>,
    fields: Sending<Message>,
  ): Promise<void> {
    try {
      if (this.#end) throw this.#end;
      if (!this.#isReady) {
        const sent = this.#whenReady({}, () => this.#queue(message, fields, 0));
        sent.catch(() => undefined);
        return sent;
      }
      this.#queue(message, fields, 0);
    } catch (error) {
      return failed(error);
    }
    return this.#connection.isFull()
      ? this.#connection.room(() => this.#end !== undefined)
      : DONE;
  }

  protected callMessage<Message, Reply>(
    message: TwoWay<Message, Reply>,
    fields: Sending<Message>,
    options: WaitOptions = {},
  ): Promise<Reply> {
    const { signal } = options;
    const deadline = deadlineAfter(options.timeout ?? CALL_TIMEOUT);
    return new Promise<Reply>((resolve, reject) => {
      if (signal?.aborted) throw signal.reason;
      if (this.#end) throw this.#end;
      const begin = (): void =>
        this.#beginCall(message, fields, deadline, signal, resolve, reject);
      if (this.#isReady) {
        begin();
        return;
      }
      this.#whenReady(
        { timeout: deadline - performance.now(), signal },
        begin,
      ).catch(reject);
    });
  }

  #beginCall<Message, Reply>(
    message: TwoWay<Message, Reply>,
    fields: Sending<Message>,
    deadline: number,
    signal: AbortSignal | undefined,
    resolve: (reply: Reply) => void,
    reject: (reason: unknown) => void,
  ): void {
    const connection = this.#connection;
    const heading = { ...this.#heading };
    const context = connection.place(heading);
    const sequence = this.#queue(message, fields, 0, heading);
    const onAbort = (): void => {
      connection.closeCall(call);
      reject(signal?.reason);
    };
    const call: OpenCall = {
      heading,
      context,
      sequence,
      chain: heading.chain === 0 ? sequence : heading.chain,
      deadline,
      answer: (packet) => {
        signal?.removeEventListener("abort", onAbort);
        const refusal = this.#readReply(message, packet, resolve);
        if (refusal !== null) reject(new HublinkError("refused", refusal));
      },
      fail: (reason) => {
        signal?.removeEventListener("abort", onAbort);
        reject(reason);
      },
      expire: () => {
        connection.closeCall(call);
        call.fail(
          new HublinkError("timed out", `${message.name}: no answer in time`),
        );
      },
    };
    connection.openCall(call);
    signal?.addEventListener("abort", onAbort, { once: true });
  }

  /** The text of a refusal, or null. */
  #readReply<Reply>(
    message: { readReply(input: Reader): Reply },
    packet: Incoming,
    resolve: (reply: Reply) => void,
  ): string | null {
    this.#open(packet);
    const reply = message.readReply(reader);
    if (this.#refusedTag >= 0 && this.#peer.tagMap[this.#refusedTag] !== -1) {
      const refusal = reader.nullable(this.#refusedTag);
      if (refusal !== null) return refusal;
    }
    resolve(reply);
    return null;
  }

  #open(packet: Incoming): Reader {
    const { bytes, view, base, payload, end } = packet;
    return reader.open(bytes, view, base, payload, end, this.#peer.tagMap);
  }

  /** Queues a message; its sequence. */
  #queue<Message>(
    message: OneWay<Message>,
    fields: Sending<Message>,
    responseTo: number,
    heading: Heading = this.#heading,
  ): number {
    const id = this.#peer.ids[message.index] as number;
    if (id === NO_MESSAGE && (this.#peer.flags & TAKES_UNLISTED) === 0)
      throw new HublinkError(
        "not supported",
        `the other side doesn't take ${message.name}`,
      );
    if (heading === this.#heading) this.#connection.place(heading);
    heading.type = PacketType.binary;
    heading.id = id;
    heading.flags = message.packetFlags;
    heading.responseTo = responseTo;
    const { transport } = this.#connection;
    const out = transport.begin(heading);
    try {
      message.write(out, fields);
      return transport.commit();
    } catch (error) {
      out.cancelPacket();
      throw error;
    }
  }

  #put(heading: Heading, write: (out: Writer) => void): number {
    const { transport } = this.#connection;
    const out = transport.begin(heading);
    try {
      write(out);
      return transport.commit();
    } catch (error) {
      out.cancelPacket();
      throw error;
    }
  }

  #sendRecord(): void {
    const heading = this.#heading;
    const table = this.#table;
    this.#connection.place(heading);
    heading.type = PacketType.negotiation;
    heading.id = Negotiation.record;
    heading.flags = Flag.oneWay;
    heading.responseTo = 0;
    this.#put(heading, (out) => out.text(writeRecord(this.#ownRecord(table))));
  }

  #ownRecord(table: SideTable): Parameters<typeof writeRecord>[0] {
    return {
      ...table,
      receives: table.receives.map(({ name, format, entryFlags }) => ({
        name,
        format,
        flags: entryFlags,
      })),
    };
  }

  /** Runs something when the peer's record is there, behind what waits for it already. */
  #whenReady(options: WaitOptions, run: () => void): Promise<void> {
    const { signal } = options;
    const { deadlines } = this.#connection;
    return new Promise((resolve, reject) => {
      const finish = (): void => {
        deadlines.remove(entry);
        this.#connection.countQuestions(-1);
        signal?.removeEventListener("abort", onAbort);
        this.#pending = this.#pending.filter((other) => other !== entry);
      };
      const entry = {
        deadline: deadlineAfter(options.timeout ?? CALL_TIMEOUT),
        run: () => {
          finish();
          try {
            run();
            resolve();
          } catch (error) {
            reject(error instanceof Error ? error : new Error(String(error)));
          }
        },
        fail: (reason: unknown) => {
          finish();
          // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- a signal's
          reject(reason);
        },
        expire: () => {
          entry.fail(
            new HublinkError(
              "timed out",
              "the other side has sent no record in time",
            ),
          );
        },
      };
      const onAbort = (): void => entry.fail(signal?.reason);
      this.#pending.push(entry);
      deadlines.add(entry);
      this.#connection.countQuestions(1);
      signal?.addEventListener("abort", onAbort, { once: true });
    });
  }

  // --- Receiving ---

  #packetCame(packet: Incoming): void {
    switch (packet.type) {
      case PacketType.negotiation:
        this.#negotiationCame(packet);
        break;
      case PacketType.binary:
        // Nothing overtakes what is about to be offered again.
        if (
          (this.#putOff.length > 0 && this.#connection.isRetryScheduled) ||
          !this.#handleIfMay(packet)
        ) {
          const kept = packet.keep();
          this.#putOff.push(kept);
          this.#unread.add(kept.bytes.length);
          this.#connection.notePutOff(this.#base);
        }
        break;
      default:
        // Nobody is to wait for an answer that never comes.
        if ((packet.flags & Flag.wantsResponse) !== 0)
          this.#respond(packet, () => undefined);
    }
  }

  /** Handles a message, unless it has to wait. */
  #handleIfMay(packet: Incoming): boolean {
    const message = this.#table.receives[packet.id];
    const flags = packet.flags | ((message?.entryFlags ?? 0) & RECEIVER_FLAGS);
    if (
      !this.#connection.canDeliver(
        flags,
        packet.chain,
        packet.depth,
        this.#isBusy(),
      )
    )
      return false;
    this.#handle(message, packet);
    return true;
  }

  /** Whether a handler runs that isn't waiting for the answer of a call. */
  #isBusy(): boolean {
    for (const context of this.#contexts) {
      const isWaiting = context.isTracked
        ? context.openCalls > 0
        : this.#connection.untrackedCalls > 0;
      if (!isWaiting) return true;
    }
    return false;
  }

  /**
   * Offers what was put off again, in its order. While a handler runs nothing of it can be handled,
   * and looking at all of it each time would take long when there is much.
   */
  #retry(): void {
    const offered = this.#putOff;
    const kept: Incoming[] = [];
    let at = this.#putOffAt;
    while (at < offered.length && !this.#isBusy()) {
      const packet = offered[at++] as Incoming;
      if (this.#handleIfMay(packet)) this.#unread.add(-packet.bytes.length);
      else kept.push(packet);
    }
    if (kept.length > 0 || (at >= 1024 && at * 2 > offered.length)) {
      this.#putOff = [...kept, ...offered.slice(at)];
      at = 0;
    } else if (at === offered.length) {
      this.#putOff = [];
      at = 0;
    }
    this.#putOffAt = at;
    if (this.#putOff.length > 0) this.#connection.notePutOff(this.#base);
  }

  #negotiationCame(packet: Incoming): void {
    if (packet.id === Negotiation.record) {
      this.#peer.take(packet.text());
      this.#isReady = true;
      const waiting = this.#pending;
      this.#pending = [];
      for (const entry of waiting) entry.run();
    } else if ((packet.flags & Flag.wantsResponse) !== 0) {
      const formats =
        packet.id === Negotiation.formatQuery
          ? writeFormats(this.#ownRecord(this.#table))
          : "";
      this.#respond(packet, (out) => out.text(formats));
    }
  }

  #handle(message: AnyMessage | undefined, packet: Incoming): void {
    const { sequence, chain, depth } = packet;
    const wantsResponse = (packet.flags & Flag.wantsResponse) !== 0;
    const call = wantsResponse ? { sequence, chain, depth } : undefined;
    if (message === undefined) {
      if (call) this.#respond(call, () => undefined);
      return;
    }
    const handler = (this.#handlers as Record<string, Handler | undefined>)[
      message.handler
    ];
    if (handler === undefined) {
      if (call) this.#refuse(call, `${message.name} isn't handled`);
      return;
    }
    const fields: unknown = message.read(this.#open(packet));
    const context: HandlerContext = {
      chain,
      depth,
      openCalls: 0,
      isTracked:
        this.#keepsChains &&
        (wantsResponse ||
          depth !== 1 ||
          chain !== sequence ||
          handler.constructor === AsyncFunction ||
          this.#slowHandlers.has(message.handler)),
      isOver: false,
    };
    let result: unknown;
    try {
      result = runIn(context, () => handler.call(this.#handlers, fields));
    } catch (error) {
      context.isOver = true;
      this.#handlerFailed(call, error);
      return;
    }
    if (isPromise(result)) {
      this.#slowHandlers.add(message.handler);
      this.#await(result, context, message, call);
      return;
    }
    context.isOver = true;
    if (call) this.#reply(message, call, result);
  }

  #await(
    result: PromiseLike<unknown>,
    context: HandlerContext,
    message: AnyMessage,
    call: Call | undefined,
  ): void {
    this.#contexts.push(context);
    ++this.#connection.running;
    const over = (): void => {
      context.isOver = true;
      this.#contexts.splice(this.#contexts.indexOf(context), 1);
      --this.#connection.running;
      this.#connection.scheduleRetry();
    };
    result.then(
      (value) => {
        over();
        if (call) this.#reply(message, call, value);
      },
      (error: unknown) => {
        over();
        this.#handlerFailed(call, error);
      },
    );
  }

  #reply(message: AnyMessage, call: Call, reply: unknown): void {
    try {
      this.#respond(call, (out) => message.writeReply?.(out, reply ?? {}));
    } catch (error) {
      this.#handlerFailed(call, error);
    }
  }

  #handlerFailed(call: Call | undefined, error: unknown): void {
    const isMeant = error instanceof HublinkError && error.name === "Refused";
    if (!isMeant) this.#connection.onError(error);
    if (call) this.#refuse(call, textOfError(error));
  }

  #refuse(call: Call, why: string): void {
    this.#respond(call, (out) => {
      if (this.#refusedTag >= 0)
        out.str(this.#refusedTag, why.replaceAll("\0", ""));
    });
  }

  #respond(call: Call, write: (out: Writer) => void): void {
    if (this.#end || !this.#connection.isUp) return;
    this.#put(
      {
        ...this.#heading,
        type: PacketType.response,
        id: PacketType.response,
        flags: 0,
        responseTo: call.sequence,
        chain: call.chain,
        depth: call.depth,
      },
      write,
    );
  }

  #linkEnded(reason: HublinkError): void {
    this.#end = reason;
    this.#unread.end();
    // What was put off has come before, and is still handled.
    this.#connection.scheduleRetry();
    for (const waiting of [...this.#pending]) waiting.fail(reason);
  }
}

/** What a response goes by. */
interface Call {
  readonly sequence: number;
  readonly chain: number;
  readonly depth: number;
}

/** Flags of the receiver's own table that count for a message. */
const RECEIVER_FLAGS = Flag.inChainOnly | Flag.anyTime;
