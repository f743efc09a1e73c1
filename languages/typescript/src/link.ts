// One end of a connection between two plugins through the hub.
//
// Two kinds of traffic may travel on a link: packets of plain bytes, and the messages of an
// interface. A link ends when either side closes it, when the other plugin goes, or with the
// connection to the hub. What came before can still be read then.

import { DONE, failed, Unread, type Connection } from "./connection.js";
import { HublinkError } from "./errors.js";
import type { Endpoint, SideBase, WaitOptions } from "./side.js";
import { Waiting } from "./waiting.js";
import { Flag, MAX_PACKET_SIZE, PacketType, TAG_PLAIN } from "./wire/format.js";
import type { Incoming } from "./wire/incoming.js";
import type { Heading } from "./wire/writer.js";

/** What a packet must be below, in bytes. */
const MOST_BYTES = MAX_PACKET_SIZE - 128;
/** What is kept of messages until there is an interface for them. */
const MOST_UNCLAIMED = 4096;
const MOST_UNCLAIMED_BYTES = 16 << 20;

/**
 * Is given each packet. If it gives a promise, the next packet waits for that.
 */
export type PacketHandler = (bytes: Buffer) => unknown;

/** How packets are handed to a handler. */
export interface PacketOptions {
  /**
   * Hands over the bytes where they lie, which saves a copy: they are gone when the handler returns.
   */
  borrow?: boolean | undefined;
}

/** What a link needs of its plugin. */
export interface LinkOwner {
  readonly connection: Connection;
  /** Tells the other side that the link has been closed here. */
  linkClosed(link: Link): void;
}

/** What describes a link. */
export interface LinkPlace {
  readonly localRn: number;
  readonly remoteRn: number;
  readonly peerPluginId: number;
  readonly serviceName: string;
  /** Whether the local number was made for this link, and goes with it. */
  readonly ownsNumber: boolean;
}

export class Link implements Endpoint, AsyncIterable<Buffer> {
  /** The numbers by which packets go to this end and to the other. */
  readonly localRn: number;
  readonly remoteRn: number;
  /** The number of the plugin at the other end. */
  readonly peerPluginId: number;
  readonly serviceName: string;
  /** @internal */
  readonly ownsNumber: boolean;
  /** Fulfilled when the link has ended, by whichever side. */
  readonly closed: Promise<void>;
  /** @internal */
  readonly connection: Connection;
  /** @internal */
  readonly keepsChains = true;

  private tellClosed!: () => void;
  private reason: HublinkError | undefined;
  private side: SideBase | undefined;
  private unclaimed: Incoming[] = [];
  private unclaimedBytes = 0;
  private handler: PacketHandler | undefined;
  private borrows = false;
  private isHandling = false;
  private inbox: Buffer[] = [];
  private inboxAt = 0;
  private readonly unread: Unread;
  private waiters: Waiting<Buffer>[] = [];
  private readonly heading: Heading;

  /** @internal */
  constructor(
    private readonly owner: LinkOwner,
    place: LinkPlace,
  ) {
    this.connection = owner.connection;
    this.unread = new Unread(this.connection);
    this.localRn = place.localRn;
    this.remoteRn = place.remoteRn;
    this.peerPluginId = place.peerPluginId;
    this.serviceName = place.serviceName;
    this.ownsNumber = place.ownsNumber;
    this.closed = new Promise((resolve) => (this.tellClosed = resolve));
    this.heading = {
      source: this.localRn,
      destination: this.remoteRn,
      type: PacketType.plain,
      id: 0,
      flags: Flag.oneWay,
      responseTo: 0,
      chain: 0,
      depth: 1,
    };
    this.connection.add(this.localRn, this.remoteRn, this);
  }

  get isUp(): boolean {
    return this.reason === undefined;
  }

  // --- Sending ---

  /**
   * Queues a copy of one packet, a text in UTF-8. Receivers may be slower: once as much waits as the
   * plugin's limit allows, the promise is fulfilled when half of that has gone. Otherwise there is
   * nothing to wait for.
   *
   * A failure is for those who await the promise, and never an unhandled rejection.
   *
   * @throws {@link HublinkError}: `link ended`, or `too large` (a little less than 256 MiB is the
   *   most)
   */
  send(bytes: Uint8Array | string): Promise<void> {
    try {
      this.queue(bytes);
    } catch (error) {
      return failed(error);
    }
    return this.connection.isFull()
      ? this.connection.room(() => !this.isUp)
      : DONE;
  }

  /**
   * The same, but when as much waits as the limit allows, nothing is sent and false is given. See
   * {@link room}.
   */
  trySend(bytes: Uint8Array | string): boolean {
    if (this.isUp && this.connection.isFull()) {
      this.connection.transport.flush();
      if (this.connection.isFull()) return false;
    }
    this.queue(bytes);
    return true;
  }

  /** Fulfilled when {@link trySend} has room again, or the link has ended. */
  room(): Promise<void> {
    return this.connection.room(() => !this.isUp);
  }

  private queue(value: Uint8Array | string): void {
    if (this.reason) throw this.reason;
    const bytes = typeof value === "string" ? Buffer.from(value) : value;
    if (bytes.length >= MOST_BYTES)
      throw new HublinkError("too large", "a packet has less than 256 MiB");
    const { connection } = this;
    connection.place(this.heading);
    const out = connection.transport.begin(this.heading);
    out.plain(TAG_PLAIN, bytes);
    connection.transport.commit();
  }

  // --- Receiving ---

  /**
   * Gives each packet to a handler, those that have come already at once, unless `undefined` is
   * given: then packets are kept for {@link receive} or `for await`.
   */
  onPacket(
    handler: PacketHandler | undefined,
    options: PacketOptions = {},
  ): void {
    this.handler = handler;
    this.borrows = options.borrow ?? false;
    this.pump();
  }

  /**
   * The next packet.
   *
   * @throws {@link HublinkError}: `link ended` when no more come, `timed out` (no limit unless one
   *   is told)
   */
  receive(options: WaitOptions = {}): Promise<Buffer> {
    const next = this.takeNext();
    if (next) return Promise.resolve(next);
    const waiting = new Waiting<Buffer>(
      this.connection.deadlines,
      options,
      -1,
      "packet",
    );
    if (this.reason) {
      waiting.fail(this.reason);
    } else if (waiting.isOpen) {
      this.waiters.push(waiting);
      waiting.onOver = () => {
        this.waiters = this.waiters.filter((other) => other !== waiting);
      };
    }
    return waiting.promise;
  }

  /** All packets until the link ends. Leaving the loop doesn't close the link. */
  [Symbol.asyncIterator](): AsyncIterator<Buffer, undefined> {
    return {
      next: async () => {
        const next = this.takeNext();
        if (next) return { value: next, done: false };
        if (this.reason) return { value: undefined, done: true };
        try {
          return { value: await this.receive(), done: false };
        } catch (error) {
          if (error === this.reason) return { value: undefined, done: true };
          throw error;
        }
      },
    };
  }

  private takeNext(): Buffer | undefined {
    const next = this.inbox[this.inboxAt];
    if (next === undefined) return undefined;
    this.inboxAt += 1;
    if (this.inboxAt === this.inbox.length) {
      this.inbox = [];
      this.inboxAt = 0;
    } else if (this.inboxAt >= 1024 && this.inboxAt * 2 > this.inbox.length) {
      this.inbox = this.inbox.slice(this.inboxAt);
      this.inboxAt = 0;
    }
    this.unread.add(-next.length);
    return next;
  }

  private plainCame(packet: Incoming): void {
    const bytes = packet.plainBytes();
    if (bytes === undefined) return;
    const { handler } = this;
    if (handler && !this.isHandling && this.inbox.length === 0) {
      this.callHandler(handler, this.borrows ? bytes : Buffer.from(bytes));
      return;
    }
    const kept = Buffer.from(bytes);
    const waiter = this.waiters.shift();
    if (waiter?.answer(kept)) return;
    this.inbox.push(kept);
    this.unread.add(kept.length);
  }

  private pump(): void {
    while (this.handler && !this.isHandling) {
      const next = this.takeNext();
      if (next === undefined) return;
      this.callHandler(this.handler, next);
    }
  }

  private callHandler(handler: PacketHandler, bytes: Buffer): void {
    try {
      const result = handler(bytes);
      if (
        typeof (result as PromiseLike<unknown> | undefined)?.then !== "function"
      )
        return;
      this.isHandling = true;
      const over = (): void => {
        this.isHandling = false;
        this.pump();
      };
      (result as PromiseLike<unknown>).then(over, (error: unknown) => {
        this.connection.onError(error);
        over();
      });
    } catch (error) {
      this.connection.onError(error);
    }
  }

  // --- For an interface ---

  /** @internal */
  packetCame(packet: Incoming): void {
    if (packet.type === PacketType.plain) {
      this.plainCame(packet);
    } else if (this.side && this.unclaimed.length === 0) {
      this.side.packetCame(packet);
    } else {
      this.unclaimed.push(packet.keep());
      this.unclaimedBytes += packet.end - packet.base;
      while (
        this.unclaimed.length > MOST_UNCLAIMED ||
        (this.unclaimedBytes > MOST_UNCLAIMED_BYTES &&
          this.unclaimed.length > 1)
      )
        this.unclaimedBytes -= this.unclaimed.shift()?.bytes.length ?? 0;
    }
  }

  /** @internal */
  attach(side: SideBase): void {
    if (this.side)
      throw new HublinkError("failed", "the link has an interface already");
    this.side = side;
    // The side's own constructor isn't through yet.
    process.nextTick(() => {
      const came = this.unclaimed;
      this.unclaimed = [];
      this.unclaimedBytes = 0;
      for (const packet of came) side.packetCame(packet);
    });
  }

  /** @internal */
  endReason(): HublinkError {
    return this.reason ?? new HublinkError("link ended", "the link has ended");
  }

  // --- The end ---

  /** Ends the link; the other side is told. */
  close(): void {
    if (!this.isUp) return;
    this.owner.linkClosed(this);
    this.end(
      new HublinkError("link ended", "the link has been closed on this side"),
    );
  }

  /** Takes the link down on this side, without a word to the other. @internal */
  end(reason: HublinkError): void {
    if (!this.isUp) return;
    this.reason = reason;
    this.unread.end();
    this.connection.remove(this.localRn, this.remoteRn, this);
    this.connection.failCalls(this.localRn, this.remoteRn, reason);
    this.side?.ended(reason);
    this.unclaimed = [];
    for (const waiter of [...this.waiters]) waiter.fail(reason);
    this.connection.tellRoom(false);
    this.tellClosed();
  }

  /** The same as {@link close}, for `await using`. */
  [Symbol.asyncDispose](): Promise<void> {
    this.close();
    return DONE;
  }
}
