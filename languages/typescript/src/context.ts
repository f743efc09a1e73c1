// Which message is being handled by the code that runs: calls made within its handler belong to its
// chain.
//
// The first part of a handler runs at once, and a variable will do for it. What it does after an
// `await` is told by an AsyncLocalStorage, which makes every promise of a process dearer once it is
// used. So a handler runs in one only if it can matter: it is an async function, or the message
// stands in a call. What a plain function does later for a one-way message from outside of all calls
// begins a chain of its own, in which nobody waits.

import { AsyncLocalStorage } from "node:async_hooks";

/** A message that is being handled. */
export interface HandlerContext {
  readonly chain: number;
  readonly depth: number;
  /** Calls that its handler has made and that are open. */
  openCalls: number;
  /** Whether {@link currentContext} finds it after an `await`, too. */
  readonly isTracked: boolean;
  isOver: boolean;
}

const storage = new AsyncLocalStorage<HandlerContext>();
let isStorageUsed = false;
let current: HandlerContext | undefined;

/** What the running code is handling; undefined outside of all handlers. */
export function currentContext(): HandlerContext | undefined {
  const context = current ?? (isStorageUsed ? storage.getStore() : undefined);
  return context?.isOver ? undefined : context;
}

/** Runs a handler. */
export function runIn<Result>(
  context: HandlerContext,
  run: () => Result,
): Result {
  const outer = current;
  current = context;
  try {
    if (!context.isTracked) return run();
    isStorageUsed = true;
    return storage.run(context, run);
  } finally {
    current = outer;
  }
}
