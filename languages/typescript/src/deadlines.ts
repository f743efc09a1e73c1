// Time limits of many open questions by one timer.

/** Something that waits. */
export interface Deadline {
  /** By `performance.now()`; Infinity for no limit. */
  readonly deadline: number;
  expire(): void;
}

/** The longest time that a timer takes. */
const LONGEST = 0x7fffffff;

/** The moment `milliseconds` from now; a negative number of them, or none, means no limit. */
export function deadlineAfter(milliseconds: number): number {
  return milliseconds >= 0 ? performance.now() + milliseconds : Infinity;
}

// The timer isn't moved when a question has been answered: it finds out when it goes off.
export class Deadlines {
  private readonly open = new Set<Deadline>();
  private timer: NodeJS.Timeout | undefined;
  private next = Infinity;

  add(entry: Deadline): void {
    if (entry.deadline === Infinity) return;
    this.open.add(entry);
    if (entry.deadline < this.next) this.arm(entry.deadline);
  }

  remove(entry: Deadline): void {
    this.open.delete(entry);
  }

  /** Stops the timer; nothing expires any more. */
  clear(): void {
    this.open.clear();
    clearTimeout(this.timer);
    this.next = Infinity;
  }

  private arm(deadline: number): void {
    clearTimeout(this.timer);
    this.next = deadline;
    const wait = Math.min(
      Math.max(0, Math.ceil(deadline - performance.now())),
      LONGEST,
    );
    this.timer = setTimeout(this.sweep, wait);
    // The socket keeps the process, as long as anything can come.
    this.timer.unref();
  }

  private readonly sweep = (): void => {
    this.next = Infinity;
    const now = performance.now();
    let next = Infinity;
    for (const entry of [...this.open]) {
      if (entry.deadline <= now) {
        this.open.delete(entry);
        entry.expire();
      } else if (entry.deadline < next) {
        next = entry.deadline;
      }
    }
    if (next < this.next) this.arm(next);
  };
}
