// The records in which two sides tell each other their field names and messages.
//
// Lists are sorted by byte value, so that taking a record in is a merge of two sorted lists; a name
// out of order counts as one that this side doesn't have. What a peer announces is never trusted
// for a size.

import { AsciiReader } from "./ascii.js";
import { NO_MESSAGE } from "./format.js";

/** A message that a side takes, as it is told to the peer. Its number is its place in the list. */
export interface ListedMessage {
  readonly name: string;
  readonly format: string;
  readonly flags: number;
}

/** What a side tells of itself. Both lists are sorted by byte value. */
export interface OwnRecord {
  readonly side: string;
  readonly vstamp: string;
  readonly flags: number;
  readonly tags: readonly string[];
  readonly receives: readonly ListedMessage[];
}

const hex = (value: number): string => `0x${value.toString(16)} `;

const quoted = (text: string): string =>
  `"${text.replace(/[\\"\n]/g, (char) => `\\${char === "\n" ? "n" : char}`)}" `;

/** A text whose characters stand for bytes. */
const utf8 = (text: string): string => Buffer.from(text, "latin1").toString();

export function writeRecord(own: OwnRecord): string {
  let text = `name:${own.side} vstamp:${quoted(own.vstamp)}flags:${hex(own.flags)}`;
  text += `tags:(${hex(own.tags.length)})[ `;
  for (const tag of own.tags) text += `${tag} `;
  text += ` ] msgs:(${hex(own.receives.length)})[ `;
  own.receives.forEach((message, id) => {
    text += `{ id:${hex(id)}name:${message.name} flags:${hex(message.flags)} } `;
  });
  return `${text} ] `;
}

/** The answer to a question for the formats. */
export function writeFormats(own: OwnRecord): string {
  let text = `msgs:(${hex(own.receives.length)})[ `;
  for (const message of own.receives)
    text += `{ name:${message.name} fmt:"${message.format}"  } `;
  return `${text} ] `;
}

/** What the peer's records have said so far. */
export class PeerRecord {
  side = "";
  vstamp: string | null = null;
  flags = 0;
  /** The peer's number of each own tag; -1 for one that it doesn't have. */
  readonly tagMap: Int32Array;
  /** The peer's number of each message that this side sends, in the order of their names. */
  readonly ids: Uint32Array;
  /** The flags with which the peer lists them. */
  readonly entryFlags: Uint32Array;
  private readonly sends: readonly string[];
  private listed = false;

  constructor(
    private readonly tags: readonly string[],
    sends: readonly { name: string; entryFlags: number }[],
  ) {
    this.tagMap = new Int32Array(tags.length).fill(-1);
    this.sends = sends.map((message) => message.name);
    // A peer that lists no messages takes all, by our own numbers.
    this.ids = Uint32Array.from(sends, (_, index) => index);
    this.entryFlags = Uint32Array.from(sends, (message) => message.entryFlags);
  }

  /** Takes a record in. `text` is in Latin-1. */
  take(text: string): void {
    const reader = new AsciiReader(text);
    this.side = utf8(reader.word("name"));
    const vstamp = reader.string("vstamp");
    this.vstamp = vstamp === null ? null : utf8(vstamp);
    this.flags = reader.integer("flags");
    this.takeTags(reader);
    this.takeMessages(reader);
  }

  private takeTags(reader: AsciiReader): void {
    let own = 0;
    reader.array("tags", (position) => {
      const word = reader.word();
      while (own < this.tags.length && (this.tags[own] as string) < word) ++own;
      if (word !== "" && this.tags[own] === word) this.tagMap[own] = position;
    });
  }

  private takeMessages(reader: AsciiReader): void {
    let own = 0;
    const isThere = reader.array("msgs", () => {
      this.listMessages();
      reader.block(() => {
        const id = reader.integer("id");
        const name = reader.word("name");
        const flags = reader.integer("flags");
        if (name === "") return;
        while (own < this.sends.length && (this.sends[own] as string) < name)
          ++own;
        if (this.sends[own] !== name) return;
        this.ids[own] = id;
        this.entryFlags[own] = flags;
      });
    });
    if (isThere) this.listMessages();
  }

  private listMessages(): void {
    if (this.listed) return;
    this.listed = true;
    this.ids.fill(NO_MESSAGE);
  }
}
