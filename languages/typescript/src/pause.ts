// A wait that can be given up.

import { setTimeout as sleep } from "node:timers/promises";

/** Waits for some milliseconds; rejects with the signal's reason. */
export async function pause(
  milliseconds: number,
  signal: AbortSignal | undefined,
): Promise<void> {
  try {
    await sleep(milliseconds, undefined, { signal });
  } catch (error) {
    signal?.throwIfAborted();
    throw error;
  }
}
