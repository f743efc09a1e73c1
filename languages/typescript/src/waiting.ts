// Something that is awaited for a time, and may be given up.

import { deadlineAfter, type Deadline, type Deadlines } from "./deadlines.js";
import { HublinkError } from "./errors.js";
import type { WaitOptions } from "./side.js";

export class Waiting<Value> implements Deadline {
  readonly promise: Promise<Value>;
  readonly deadline: number;
  isOpen = true;
  /** Called once it isn't awaited any more, for whatever reason. */
  onOver: () => void = () => undefined;
  private resolve!: (value: Value) => void;
  private reject!: (reason: unknown) => void;
  private readonly onAbort = (): void => this.fail(this.signal?.reason);
  private readonly signal: AbortSignal | undefined;

  /** `what` says what didn't come in time. */
  constructor(
    private readonly deadlines: Deadlines,
    options: WaitOptions,
    timeout: number,
    private readonly what: string,
  ) {
    this.signal = options.signal;
    this.deadline = deadlineAfter(options.timeout ?? timeout);
    this.promise = new Promise<Value>((resolve, reject) => {
      this.resolve = resolve;
      this.reject = reject;
    });
    deadlines.add(this);
    if (this.signal?.aborted) this.onAbort();
    else this.signal?.addEventListener("abort", this.onAbort, { once: true });
  }

  /** False if nobody waits any more. */
  answer(value: Value): boolean {
    if (!this.close()) return false;
    this.resolve(value);
    return true;
  }

  fail(reason: unknown): void {
    if (this.close()) this.reject(reason);
  }

  expire(): void {
    this.fail(new HublinkError("timed out", `${this.what}: no answer in time`));
  }

  private close(): boolean {
    if (!this.isOpen) return false;
    this.isOpen = false;
    this.deadlines.remove(this);
    this.signal?.removeEventListener("abort", this.onAbort);
    this.onOver();
    return true;
  }
}
