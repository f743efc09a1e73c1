// One connection to a hub with all that runs over it: the ends of links, the calls that are open,
// and the rule by which messages are handled or put off.

import { currentContext, type HandlerContext } from "./context.js";
import { Deadlines, type Deadline } from "./deadlines.js";
import { HublinkError } from "./errors.js";
import type { Transport, TransportListener } from "./transport.js";
import { Flag, PacketType } from "./wire/format.js";
import type { Incoming } from "./wire/incoming.js";
import type { Heading } from "./wire/writer.js";

/** One end of a link, or of the connection to the hub itself. */
export interface Receiver {
  packetCame(packet: Incoming): void;
}

/** Somebody who has put messages off, and is offered them again. */
export interface Retrying {
  retry(): void;
}

/** A call that waits for its answer. */
export interface OpenCall extends Deadline {
  readonly heading: Heading;
  readonly context: HandlerContext | undefined;
  sequence: number;
  chain: number;
  /** The answer has come. */
  answer(packet: Incoming): void;
  /** No answer will come. */
  fail(reason: HublinkError): void;
}

/** How many bytes may wait to be written unless told otherwise. */
const SEND_LIMIT = 8 << 20;

/** What an operation gives that has nothing to wait for. */
export const DONE: Promise<void> = Promise.resolve();

/** A rejection for those who await it; others may leave it alone. */
export function failed(error: unknown): Promise<never> {
  const rejection = Promise.reject(
    error instanceof Error ? error : new Error(String(error)),
  );
  rejection.catch(() => undefined);
  return rejection;
}

/** The bytes that wait at one end. They count as long as its link is up. */
export class Unread {
  private bytes = 0;
  private isOver = false;

  constructor(private readonly connection: Connection) {}

  add(bytes: number): void {
    if (this.isOver) return;
    this.bytes += bytes;
    this.connection.countUnread(bytes);
  }

  /** Whoever leaves them lying then holds up nobody. */
  end(): void {
    this.add(-this.bytes);
    this.isOver = true;
  }
}

interface RoomWaiter {
  resolve(): void;
  isVain(): boolean;
}

export class Connection implements TransportListener {
  readonly deadlines = new Deadlines();
  /** Called once, when everything that waited has been told. */
  onEnd: (reason: HublinkError) => void = () => undefined;
  /** What a handler has thrown. */
  onError: (error: unknown) => void = (error) => console.error(error);
  /** Handlers that run, or whose promise is open. */
  running = 0;
  /** Open calls that nobody's handler is known to have made. */
  untrackedCalls = 0;

  private readonly receivers = new Map<number, Map<number, Receiver>>();
  private readonly calls = new Map<number, OpenCall>();
  private holds = 0;
  private sendLimit = SEND_LIMIT;
  private wasFull = false;
  private roomWaiters: RoomWaiter[] = [];
  private readonly putOff = new Set<Retrying>();
  /** Whether what was put off is offered again before the next read. */
  isRetryScheduled = false;
  private unreadBytes = 0;
  private questions = 0;
  private isPaused = false;

  constructor(readonly transport: Transport) {}

  get isUp(): boolean {
    return this.transport.isUp;
  }

  // --- Who receives ---

  add(local: number, remote: number, receiver: Receiver): void {
    let ends = this.receivers.get(local);
    if (ends === undefined)
      this.receivers.set(local, (ends = new Map<number, Receiver>()));
    ends.set(remote, receiver);
  }

  remove(local: number, remote: number, receiver: Receiver): void {
    const ends = this.receivers.get(local);
    if (ends?.get(remote) !== receiver) return;
    ends.delete(remote);
    if (ends.size === 0) this.receivers.delete(local);
  }

  receiverOf(local: number, remote: number): Receiver | undefined {
    return this.receivers.get(local)?.get(remote);
  }

  packetCame(packet: Incoming): void {
    if (packet.type === PacketType.response) {
      const call = this.calls.get(packet.responseTo);
      // An answer that comes too late is dropped.
      if (call?.heading.source !== packet.destination) return;
      if (call.heading.destination !== packet.source) return;
      this.closeCall(call);
      call.answer(packet);
      return;
    }
    this.receiverOf(packet.destination, packet.source)?.packetCame(packet);
  }

  connectionEnded(reason: HublinkError): void {
    // Those of links fail with their links.
    this.onEnd(reason);
    for (const call of [...this.calls.values()]) {
      this.closeCall(call);
      call.fail(reason);
    }
    this.deadlines.clear();
    this.receivers.clear();
    this.tellRoom(true);
  }

  // --- Calls ---

  /**
   * Gives a message the chain and depth that it has to have here: those of the message that is
   * being handled, one deeper, or its own.
   */
  place(heading: Heading): HandlerContext | undefined {
    const context = currentContext();
    heading.chain = context === undefined ? 0 : context.chain;
    heading.depth = context === undefined ? 1 : context.depth + 1;
    return context;
  }

  openCall(call: OpenCall): void {
    this.calls.set(call.sequence, call);
    if ((call.heading.flags & Flag.holdOthers) !== 0) ++this.holds;
    if (call.context) ++call.context.openCalls;
    else ++this.untrackedCalls;
    this.deadlines.add(call);
    this.adjustReading();
    this.scheduleRetry();
  }

  /** Takes a call out, which is then answered or failed by whoever does so. */
  closeCall(call: OpenCall): void {
    if (!this.calls.delete(call.sequence)) return;
    if ((call.heading.flags & Flag.holdOthers) !== 0) --this.holds;
    if (call.context) --call.context.openCalls;
    else --this.untrackedCalls;
    this.deadlines.remove(call);
    this.adjustReading();
    this.scheduleRetry();
  }

  /** Fails the open calls of one end. */
  failCalls(local: number, remote: number, reason: HublinkError): void {
    for (const call of [...this.calls.values()]) {
      if (call.heading.source !== local || call.heading.destination !== remote)
        continue;
      this.closeCall(call);
      call.fail(reason);
    }
  }

  /**
   * Whether a message may be handled now. `isBusy` tells that a handler of its link runs and isn't
   * waiting for the answer of a call.
   */
  canDeliver(
    flags: number,
    chain: number,
    depth: number,
    isBusy: boolean,
  ): boolean {
    if ((flags & Flag.anyTime) !== 0) return true;
    if (isBusy) return false;
    if (this.calls.size === 0 && this.running === 0) return true;
    if ((flags & Flag.inChainOnly) === 0 && this.holds === 0) return true;
    for (const call of this.calls.values())
      if (
        call.chain === chain &&
        (depth & 0xffff) > (call.heading.depth & 0xffff)
      )
        return true;
    return false;
  }

  /** Remembers somebody who has put something off. */
  notePutOff(receiver: Retrying): void {
    this.putOff.add(receiver);
  }

  /** To be called when something may have become deliverable. */
  scheduleRetry(): void {
    if (this.putOff.size === 0 || this.isRetryScheduled) return;
    this.isRetryScheduled = true;
    process.nextTick(() => {
      this.isRetryScheduled = false;
      for (const receiver of [...this.putOff]) {
        this.putOff.delete(receiver);
        receiver.retry();
      }
    });
  }

  // --- Room to send ---

  setSendLimit(bytes: number): void {
    this.sendLimit = bytes;
    this.wasFull = false;
    this.roomCame();
  }

  /** Whether as much is queued as the limit allows, and half of it hasn't gone since. */
  isFull(): boolean {
    const waiting = this.transport.waiting;
    if (this.wasFull) {
      if (waiting <= this.sendLimit / 2) this.wasFull = false;
    } else if (this.sendLimit > 0 && waiting >= this.sendLimit) {
      this.wasFull = true;
    }
    return this.wasFull;
  }

  /** Fulfilled when there is room, or `isVain` says that nobody needs it any more. */
  room(isVain: () => boolean): Promise<void> {
    if (!this.isFull() || isVain()) return DONE;
    return new Promise((resolve) => this.roomWaiters.push({ resolve, isVain }));
  }

  roomCame(): void {
    if (this.roomWaiters.length > 0) this.tellRoom(!this.isFull());
  }

  /** Tells all who wait for room, or those who wait in vain. */
  tellRoom(all: boolean): void {
    const waiters = this.roomWaiters;
    this.roomWaiters = [];
    for (const waiter of waiters) {
      if (all || waiter.isVain()) waiter.resolve();
      else this.roomWaiters.push(waiter);
    }
  }

  // --- What has come and isn't taken ---

  /** Counts bytes that have come and wait: with too many of them no more is read. */
  countUnread(bytes: number): void {
    this.unreadBytes += bytes;
    this.adjustReading();
  }

  /** Counts answers and records that are awaited: they must come through. */
  countQuestions(change: number): void {
    this.questions += change;
    this.adjustReading();
  }

  private adjustReading(): void {
    const limit = this.isPaused ? SEND_LIMIT / 2 : SEND_LIMIT;
    const pauses =
      this.unreadBytes > limit && this.calls.size === 0 && this.questions === 0;
    if (pauses === this.isPaused || !this.isUp) return;
    this.isPaused = pauses;
    this.transport.pauseReading(pauses);
  }
}
