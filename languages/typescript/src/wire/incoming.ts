// A packet that has come: its header words, and where it stands in somebody's buffer.

import { At, PacketType } from "./format.js";

export class Incoming {
  bytes: Buffer = Buffer.alloc(0);
  view: DataView = new DataView(new ArrayBuffer(0));
  /** Offsets in `bytes`: of the packet, of its payload, and behind that. */
  base = 0;
  payload = 0;
  end = 0;
  source = 0;
  destination = 0;
  sequence = 0;
  responseTo = 0;
  type = 0;
  id = 0;
  flags = 0;
  chain = 0;
  depth = 0;

  /** Takes the packet at `base`, whose sizes have been found good. */
  set(
    bytes: Buffer,
    view: DataView,
    base: number,
    headerSize: number,
    payloadSize: number,
  ): void {
    this.bytes = bytes;
    this.view = view;
    this.base = base;
    this.payload = base + headerSize;
    this.end = this.payload + payloadSize;
    this.source = view.getInt32(base + At.source, true);
    this.destination = view.getInt32(base + At.destination, true);
    this.sequence = view.getUint32(base + At.sequence, true);
    this.responseTo = view.getUint32(base + At.responseTo, true);
    this.type = view.getUint32(base + At.type, true);
    this.id = view.getUint32(base + At.id, true);
    // What a shorter header lacks is 0.
    this.flags =
      headerSize > At.flags ? view.getUint32(base + At.flags, true) : 0;
    this.chain =
      headerSize > At.chain ? view.getUint32(base + At.chain, true) : 0;
    this.depth =
      headerSize > At.depth ? view.getUint32(base + At.depth, true) : 0;
  }

  get isResponse(): boolean {
    return this.type === PacketType.response;
  }

  /** A copy with bytes of its own. */
  keep(): Incoming {
    const bytes = Buffer.from(this.bytes.subarray(this.base, this.end));
    const kept = new Incoming();
    kept.set(
      bytes,
      new DataView(bytes.buffer, bytes.byteOffset, bytes.length),
      0,
      this.payload - this.base,
      this.end - this.payload,
    );
    return kept;
  }

  /** The payload as a text in Latin-1. */
  text(): string {
    return this.bytes.toString("latin1", this.payload, this.end);
  }

  /** The bytes of a packet of plain bytes, where they lie; undefined if it holds none. */
  plainBytes(): Buffer | undefined {
    const room = this.end - this.payload - 8;
    if (room < 0) return undefined;
    const size = this.view.getUint32(this.payload + 4, true);
    if (size > room) return undefined;
    return this.bytes.subarray(this.payload + 8, this.payload + 8 + size);
  }
}
