// The ascii form of a message that is being read: `name:value` fields, in any order.
//
// Every step stops at a zero character or the end of the text. The text is what the bytes are in
// Latin-1, one character for each.

const Char = {
  zero: 0,
  blank: 32,
  quote: 34,
  open: 40,
  close: 41,
  colon: 58,
  bracket: 91,
  backslash: 92,
  bracketEnd: 93,
  brace: 123,
  braceEnd: 125,
} as const;

const LARGEST = 0xffffffff;
// A text can be made so that every value in it runs to its end; an honest one is stepped over about
// twice for each level that a field stands on.
const SEARCHES = 16;
const SMALL_TEXT = 0x10000;

// Which brackets are open, 30 to a number, so that a text of nothing but brackets costs little.
class BracketStack {
  private readonly outer: number[] = [];
  private bits = 0;
  private depth = 0;

  get isEmpty(): boolean {
    return this.depth === 0;
  }
  get inArray(): boolean {
    return (this.bits & 1) !== 0;
  }
  open(isArray: boolean): void {
    if (this.depth > 0 && this.depth % 30 === 0) {
      this.outer.push(this.bits);
      this.bits = 0;
    }
    this.bits = (this.bits << 1) | (isArray ? 1 : 0);
    ++this.depth;
  }
  close(): void {
    --this.depth;
    this.bits >>>= 1;
    if (this.depth > 0 && this.depth % 30 === 0)
      this.bits = this.outer.pop() ?? 0;
  }
}

export class AsciiReader {
  private cursor = 0;
  private fieldCursor = 0;
  private budget: number;

  constructor(private readonly text: string) {
    this.budget = SEARCHES * text.length + SMALL_TEXT;
  }

  private at(place: number): number {
    return place < this.text.length ? this.text.charCodeAt(place) : Char.zero;
  }

  private skipBlanks(place: number): number {
    while (this.at(place) === Char.blank) ++place;
    return place;
  }

  private closesLevel(place: number): boolean {
    const char = this.at(place);
    return (
      char === Char.bracketEnd || char === Char.braceEnd || char === Char.zero
    );
  }

  /** The next `wanted`, or the end of the text. */
  private findOrEnd(place: number, wanted: number): number {
    for (let char = this.at(place); char !== wanted && char !== Char.zero;)
      char = this.at(++place);
    return place;
  }

  private skipQuoted(place: number): number {
    for (++place; this.at(place) !== Char.quote; ++place) {
      if (this.at(place) === Char.backslash && this.at(place + 1) !== Char.zero)
        ++place;
      if (this.at(place) === Char.zero) return place;
    }
    return place + 1;
  }

  private skipPlainWord(place: number): number {
    if (this.at(place) !== Char.zero) ++place;
    while (this.at(place) !== Char.blank && !this.closesLevel(place)) ++place;
    return place;
  }

  // From inside the innermost open bracket to where its next value begins.
  private nextInside(place: number, brackets: BracketStack): number {
    while (!brackets.isEmpty && this.at(place) !== Char.zero) {
      let closing: number = Char.bracketEnd;
      if (!brackets.inArray) {
        closing = Char.braceEnd;
        for (;;) {
          const char = this.at(place);
          if (char === Char.zero || char === Char.quote || char === Char.brace)
            break;
          if (char === Char.bracket || char === Char.braceEnd) break;
          ++place;
        }
      }
      if (this.at(place) !== closing) break;
      brackets.close();
      place = this.skipBlanks(place + 1);
    }
    return place;
  }

  private behindValue(place: number): number {
    const brackets = new BracketStack();
    do {
      if (this.at(place) === Char.open) {
        place = this.findOrEnd(place, Char.close);
        if (this.at(place) !== Char.zero) place = this.skipBlanks(place + 1);
      }
      const char = this.at(place);
      if (char === Char.quote) {
        place = this.skipQuoted(place);
      } else if (char === Char.brace || char === Char.bracket) {
        brackets.open(char === Char.bracket);
        ++place;
      } else {
        place = this.skipPlainWord(place);
      }
      place = this.nextInside(this.skipBlanks(place), brackets);
    } while (!brackets.isEmpty && this.at(place) !== Char.zero);
    return place;
  }

  private skipValue(place: number): number {
    if (this.budget < 0) return this.text.length;
    const behind = this.behindValue(place);
    this.budget -= behind - place;
    return behind;
  }

  /** Puts the cursor on the value of a field of this level. */
  find(name: string): boolean {
    const place =
      this.budget < 0 ? this.text.length : this.skipBlanks(this.fieldCursor);
    const inOrder = place === this.skipBlanks(this.cursor);
    if (!inOrder) this.cursor = place;
    if (this.closesLevel(place)) return false;
    const key = `${name}:`;
    const isNext = this.text.startsWith(key, place);
    const field = isNext ? place : this.findFrom(place, key);
    if (field < 0) return false;
    this.cursor = this.skipBlanks(field + key.length);
    if (isNext && inOrder) this.fieldCursor = this.skipValue(this.cursor);
    return true;
  }

  private findFrom(place: number, key: string): number {
    while (!this.closesLevel(place)) {
      const colon = this.findOrEnd(place, Char.colon);
      this.budget -= colon - place;
      if (this.at(colon) === Char.zero) break;
      if (this.text.startsWith(key, place)) return place;
      place = this.skipValue(this.skipBlanks(colon + 1));
    }
    return -1;
  }

  /** A number, hexadecimal behind "0x", octal behind "0"; the largest of 32 bits for a larger one. */
  integer(name?: string): number {
    if (name !== undefined && !this.find(name)) return 0;
    let place = this.cursor;
    for (
      let char = this.at(place);
      char === Char.blank || (char >= 8 && char <= 13);
    )
      char = this.at(++place);
    const sign = this.text[place];
    if (sign === "-" || sign === "+") ++place;
    let base = 10;
    if (this.text[place] === "0") {
      base = 8;
      if (
        /^[xX]$/.test(this.text[place + 1] ?? "") &&
        this.digit(place + 2, 16) >= 0
      ) {
        base = 16;
        place += 2;
      }
    }
    if (this.digit(place, base) < 0) return 0;
    let value = 0;
    for (
      let digit = this.digit(place, base);
      digit >= 0;
      digit = this.digit(++place, base)
    )
      if (value <= LARGEST) value = value * base + digit;
    this.cursor = place;
    if (value > LARGEST) return LARGEST;
    return sign === "-" ? -value >>> 0 : value;
  }

  private digit(place: number, base: number): number {
    const char = this.at(place);
    let value = -1;
    if (char >= 48 && char <= 57) value = char - 48;
    else if (char >= 97 && char <= 102) value = char - 87;
    else if (char >= 65 && char <= 70) value = char - 55;
    return value < base ? value : -1;
  }

  /** A text without its quotes and escapes; null for none. */
  string(name: string): string | null {
    if (!this.find(name)) return null;
    const place = this.skipBlanks(this.cursor);
    if (this.at(place) !== Char.quote) {
      this.cursor = this.text.startsWith("null ", place) ? place + 5 : place;
      return null;
    }
    const behind = this.skipQuoted(place);
    this.cursor = behind;
    const closed = behind - 1 > place && this.at(behind - 1) === Char.quote;
    const inside = this.text.slice(place + 1, closed ? behind - 1 : behind);
    return inside.replace(/\\([^])/g, (_, char: string) =>
      char === "n" ? "\n" : char,
    );
  }

  private takeWord(): string {
    const place = this.skipBlanks(this.cursor);
    const behind = this.findOrEnd(place, Char.blank);
    this.fieldCursor = this.cursor = this.skipBlanks(behind);
    return this.text.slice(place, behind);
  }

  /** The characters up to the next blank; empty for none. */
  word(name?: string): string {
    if (name === undefined) return this.takeWord();
    const mark = this.fieldCursor;
    if (!this.find(name)) return "";
    const inOrder = this.fieldCursor !== mark;
    const word = this.takeWord();
    // Out of order it stays, or the fields passed over would be lost.
    if (!inOrder) this.fieldCursor = mark;
    return word;
  }

  private step(bracket: number): void {
    const place = this.skipBlanks(this.cursor);
    this.cursor = this.at(place) === bracket ? place + 1 : this.text.length;
  }

  /** Reads the fields of the block at the cursor. */
  block(read: () => void): void {
    const saved = this.fieldCursor;
    this.step(Char.brace);
    this.fieldCursor = this.cursor;
    read();
    this.step(Char.braceEnd);
    this.fieldCursor = saved;
  }

  /** Calls `visit` for each element of an array, at most as many as the size in front says. */
  array(name: string, visit: (index: number) => void): boolean {
    if (!this.find(name)) return false;
    const saved = this.fieldCursor;
    let size = 0;
    let place = this.skipBlanks(this.cursor);
    if (this.at(place) === Char.open) {
      this.cursor = place + 1;
      size = this.integer();
      place = this.skipBlanks(this.cursor);
      if (this.at(place) === Char.close) ++place;
      this.cursor = place = this.skipBlanks(place);
    }
    const isThere = this.at(place) === Char.bracket;
    this.step(Char.bracket);
    this.fieldCursor = this.cursor;
    if (isThere) for (let i = 0; i < size && this.nextValue(); ++i) visit(i);
    this.step(Char.bracketEnd);
    this.fieldCursor = saved;
    return true;
  }

  private nextValue(): boolean {
    const place = this.skipBlanks(this.fieldCursor);
    this.cursor = place;
    if (this.closesLevel(place)) return false;
    this.fieldCursor = this.skipValue(place);
    return true;
  }
}
