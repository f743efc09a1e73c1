// A connection to a hub: packets into its socket and out of it.
//
// What is sent is queued and goes out together: at the end of a read, at the end of the tick, or as
// soon as there is a block of it. Nothing is copied twice, and there is no promise for a packet.

import type { Socket } from "node:net";
import { HublinkError } from "./errors.js";
import type { Incoming } from "./wire/incoming.js";
import { PacketCutter } from "./wire/packets.js";
import { Writer, type Heading } from "./wire/writer.js";

const READ_SIZE = 256 * 1024;
/** A block of so many bytes is written without waiting for more. */
const BLOCK_SIZE = 128 * 1024;
/** Blocks that are given to the system at a time. */
const MOST_BLOCKS = 8;
/** Blocks that are kept for later. */
const MOST_SPARES = 16;

interface Block {
  readonly writer: Writer;
  readonly size: number;
}

export interface TransportListener {
  /** A packet has come; it is gone after the call. */
  packetCame(packet: Incoming): void;
  /** Less is waiting to be written. */
  roomCame(): void;
  /** The connection has ended, which is told once. */
  connectionEnded(reason: HublinkError): void;
}

/** What `net.connect` takes to read into a buffer of ours. */
export interface ReadOptions {
  buffer: Buffer;
  callback(count: number, buffer: Uint8Array): boolean;
}

export class Transport {
  private socket: Socket | undefined;
  private readonly cutter: PacketCutter;
  private listener: TransportListener | undefined;
  private writer = new Writer();
  private readonly spares: Writer[] = [];
  private readonly blocks: Block[] = [];
  private flying: Block[] = [];
  private blockBytes = 0;
  private flyingBytes = 0;
  private lastSequence = 0;
  private isReading = false;
  private isScheduled = false;
  private ended = false;

  constructor() {
    this.cutter = new PacketCutter((packet) =>
      this.listener?.packetCame(packet),
    );
  }

  /** Options for the socket of this transport, if it connects itself. */
  readOptions(): ReadOptions {
    const buffer = Buffer.allocUnsafeSlow(READ_SIZE);
    const view = new DataView(buffer.buffer, buffer.byteOffset, buffer.length);
    return {
      buffer,
      callback: (count) => {
        this.read(buffer, view, count);
        return true;
      },
    };
  }

  /** Takes a socket that is connected, and paused unless it was made with {@link readOptions}. */
  start(
    socket: Socket,
    listener: TransportListener,
    readsItself: boolean,
  ): void {
    this.socket = socket;
    this.listener = listener;
    socket.setNoDelay(true);
    let failure: Error | undefined;
    socket.removeAllListeners("error");
    socket.on("error", (error) => (failure = error));
    socket.on("close", () => {
      this.end(
        new HublinkError(
          "disconnected",
          `the connection to the hub has ended${failure ? `: ${failure.message}` : ""}`,
        ),
      );
    });
    socket.on("end", () => socket.destroy());
    if (!readsItself)
      socket.on("data", (data: Buffer) =>
        this.read(
          data,
          new DataView(data.buffer, data.byteOffset, data.length),
          data.length,
        ),
      );
    socket.resume();
  }

  get isUp(): boolean {
    return this.socket !== undefined && !this.ended;
  }

  private read(bytes: Buffer, view: DataView, count: number): void {
    if (this.ended) return;
    this.isReading = true;
    try {
      this.cutter.feed(bytes, view, count);
    } catch (error) {
      this.fail(error);
    }
    this.isReading = false;
    if (this.writer.end > 0) this.flush();
  }

  private fail(error: unknown): void {
    this.end(
      error instanceof HublinkError
        ? error
        : new HublinkError("failed", String(error)),
    );
  }

  pauseReading(isPaused: boolean): void {
    if (isPaused) this.socket?.pause();
    else this.socket?.resume();
  }

  /** Bytes that are still to be written. */
  get waiting(): number {
    return this.flyingBytes + this.blockBytes + this.writer.end;
  }

  /**
   * Begins a packet. Its fields are then put into the writer, and {@link commit} or the writer's
   * `cancelPacket` has to follow at once.
   */
  begin(heading: Heading): Writer {
    this.writer.beginPacket(this.nextSequence(), heading);
    return this.writer;
  }

  private nextSequence(): number {
    return this.lastSequence === 0xffffffff ? 1 : this.lastSequence + 1;
  }

  /** Queues the packet that was begun; its sequence. */
  commit(): number {
    this.writer.finishPacket();
    this.lastSequence = this.nextSequence();
    if (this.writer.end >= BLOCK_SIZE) {
      this.blocks.push({ writer: this.writer, size: this.writer.end });
      this.blockBytes += this.writer.end;
      this.writer = this.spares.pop() ?? new Writer(BLOCK_SIZE + 16 * 1024);
      this.flush();
    } else if (!this.isScheduled && !this.isReading) {
      this.isScheduled = true;
      process.nextTick(this.flushTick);
    }
    return this.lastSequence;
  }

  private readonly flushTick = (): void => {
    this.isScheduled = false;
    this.flush();
  };

  /** Gives what is queued to the system, as far as it isn't still busy with what came before. */
  flush(): void {
    const socket = this.socket;
    if (this.flyingBytes > 0 || socket === undefined || this.ended) return;
    if (this.blocks.length === 0) {
      if (this.writer.end === 0) return;
      const { writer } = this;
      const size = writer.end;
      this.write(socket, writer.bytes, size);
      if (socket.writableLength === 0) {
        writer.end = 0;
      } else {
        this.writer = this.spares.pop() ?? new Writer();
        this.flying.push({ writer, size });
        this.flyingBytes = size;
      }
      return;
    }
    this.flying = this.blocks.splice(0, MOST_BLOCKS);
    socket.cork();
    for (const { writer, size } of this.flying) {
      this.write(socket, writer.bytes, size);
      this.flyingBytes += size;
    }
    socket.uncork();
    this.blockBytes -= this.flyingBytes;
    if (socket.writableLength === 0) this.landed();
  }

  private write(socket: Socket, bytes: Buffer, size: number): void {
    socket.write(bytes.subarray(0, size), this.wrote);
  }

  private readonly wrote = (): void => {
    if (this.flyingBytes > 0 && this.socket?.writableLength === 0)
      this.landed();
  };

  private landed(): void {
    for (const { writer } of this.flying) {
      if (
        this.spares.length === MOST_SPARES ||
        writer.bytes.length > 2 * BLOCK_SIZE
      )
        continue;
      writer.end = 0;
      this.spares.push(writer);
    }
    this.flying = [];
    this.flyingBytes = 0;
    if (this.ended) return;
    if (this.blocks.length > 0 || this.writer.end > 0) this.flush();
    this.listener?.roomCame();
  }

  /** Ends the connection, after writing what is queued. */
  close(): Promise<void> {
    const socket = this.socket;
    if (socket === undefined || this.ended) return Promise.resolve();
    this.flyingBytes = 0;
    for (const { writer, size } of this.blocks.splice(0))
      this.write(socket, writer.bytes, size);
    if (this.writer.end > 0)
      this.write(socket, this.writer.bytes, this.writer.end);
    this.writer = new Writer(0);
    return new Promise((resolve) => {
      socket.once("close", () => resolve());
      // A hub that takes nothing any more doesn't hold up its plugin for ever.
      const limit = setTimeout(() => socket.destroy(), 1000);
      socket.once("close", () => clearTimeout(limit));
      socket.end(() => socket.destroy());
      this.end(
        new HublinkError(
          "disconnected",
          "this plugin has closed its connection",
        ),
        false,
      );
    });
  }

  /** Ends the connection at once. */
  end(reason: HublinkError, destroys = true): void {
    if (this.ended) return;
    this.ended = true;
    this.cutter.stop();
    if (destroys) this.socket?.destroy();
    this.listener?.connectionEnded(reason);
  }
}
