// Cuts the bytes that come into packets.
//
// Packets are handed over where they lie. One that comes in parts is put together in a buffer that
// grows only with bytes that have really come.

import { ProtocolError } from "../errors.js";
import { isValidSize, storedSize } from "./format.js";
import { Incoming } from "./incoming.js";

const FIRST_PART = 4096;
/** A larger buffer for parts isn't kept. */
const MOST_KEPT = 1 << 20;

const viewOf = (bytes: Buffer): DataView =>
  new DataView(bytes.buffer, bytes.byteOffset, bytes.length);

export class PacketCutter {
  private readonly packet = new Incoming();
  private part = Buffer.alloc(0);
  private partView = viewOf(this.part);
  private partSize = 0;
  /** Fill bytes that are still to come. */
  private fill = 0;
  private stopped = false;

  /** `take` is called with each packet, which is gone after the call. */
  constructor(private readonly take: (packet: Incoming) => void) {}

  /** No packet is handed over any more, not even of the bytes at hand. */
  stop(): void {
    this.stopped = true;
  }

  /**
   * Takes the first `count` bytes of a buffer.
   *
   * @throws {@link ProtocolError} if they are no packet; nothing is to be fed any more then.
   */
  feed(bytes: Buffer, view: DataView, count: number): void {
    let at = 0;
    if (this.fill > 0) {
      at = Math.min(this.fill, count);
      this.fill -= at;
    }
    if (this.partSize > 0) at = this.complete(bytes, at, count);
    while (count - at >= 8 && !this.stopped) {
      const header = view.getUint32(at, true);
      const payload = view.getUint32(at + 4, true);
      const total = this.sizeOf(header, payload);
      if (at + total > count) break;
      this.packet.set(bytes, view, at, header, payload);
      this.take(this.packet);
      at += storedSize(total);
    }
    if (this.stopped) return;
    if (at > count) this.fill = at - count;
    else if (at < count) this.append(bytes, at, count);
  }

  private sizeOf(header: number, payload: number): number {
    if (isValidSize(header, payload)) return header + payload;
    this.stop();
    throw new ProtocolError("the other side has sent an invalid packet");
  }

  private append(bytes: Buffer, from: number, to: number): void {
    const size = this.partSize + to - from;
    if (size > this.part.length) {
      const larger = Buffer.allocUnsafeSlow(Math.max(FIRST_PART, 2 * size));
      this.part.copy(larger, 0, 0, this.partSize);
      this.part = larger;
      this.partView = viewOf(larger);
    }
    bytes.copy(this.part, this.partSize, from, to);
    this.partSize = size;
  }

  /** Goes on with the packet of which a part has come; where its bytes end in these. */
  private complete(bytes: Buffer, at: number, count: number): number {
    if (this.partSize < 8) {
      const more = Math.min(8 - this.partSize, count - at);
      this.append(bytes, at, at + more);
      at += more;
      if (this.partSize < 8) return count;
    }
    const header = this.partView.getUint32(0, true);
    const payload = this.partView.getUint32(4, true);
    const total = this.sizeOf(header, payload);
    const more = Math.min(total - this.partSize, count - at);
    this.append(bytes, at, at + more);
    at += more;
    if (this.partSize < total) return count;
    this.partSize = 0;
    this.packet.set(this.part, this.partView, 0, header, payload);
    this.take(this.packet);
    if (this.part.length > MOST_KEPT) {
      this.part = Buffer.alloc(0);
      this.partView = viewOf(this.part);
    }
    return at + storedSize(total) - total;
  }
}
