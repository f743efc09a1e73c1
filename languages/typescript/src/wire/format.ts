// The numbers of the packet format. All of them are little-endian 32-bit words on the wire.

/** Bytes of the header that is sent. */
export const HEADER_SIZE = 44;
const MIN_HEADER_SIZE = 32;
const MAX_HEADER_SIZE = 128;
/** Header and payload together have no more bytes than this. */
export const MAX_PACKET_SIZE = 0x10000000;

/** The addresses of a link itself. */
export const HUB_RN = 1;
export const PLUGIN_RN = 2;

export const PacketType = {
  negotiation: 12,
  binary: 15,
  plain: 16,
  response: 0xffffffff,
} as const;

/** Subtypes of a negotiation packet. */
export const Negotiation = { record: 1, formatQuery: 2, ready: 3 } as const;

export const Flag = {
  wantsResponse: 0x01,
  oneWay: 0x02,
  inChainOnly: 0x04,
  anyTime: 0x10,
  holdOthers: 0x40,
} as const;

/** Flag of a side: messages that it doesn't list may be sent to it all the same. */
export const TAKES_UNLISTED = 0x01;
/** The number of a message that the peer doesn't take. */
export const NO_MESSAGE = 0xffffffff;

/** Class and size of a binary field. */
export const FieldKind = {
  string: 0x10,
  u8: 0x21,
  u16: 0x22,
  u32: 0x24,
  u64: 0x28,
  f32: 0x34,
  f64: 0x38,
  struct: 0x40,
  array: 0x50,
} as const;

/** The fixed tags inside a pointer array. */
export const TAG_COUNT = 22;
export const TAG_ELEMENT = 23;
/** The one tag of a packet of plain bytes. */
export const TAG_PLAIN = 1;

/** Offsets of header words. */
export const At = {
  payloadSize: 4,
  source: 8,
  destination: 12,
  sequence: 16,
  responseTo: 20,
  type: 24,
  id: 28,
  flags: 32,
  chain: 36,
  depth: 40,
} as const;

/** Whether a packet may have these two sizes. */
export function isValidSize(header: number, payload: number): boolean {
  return (
    header >= MIN_HEADER_SIZE &&
    header <= MAX_HEADER_SIZE &&
    header % 4 === 0 &&
    header + payload <= MAX_PACKET_SIZE
  );
}

/** The size that something takes in the stream: the next multiple of 4. */
export function storedSize(size: number): number {
  return (size + 3) & ~3;
}
