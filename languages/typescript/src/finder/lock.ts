// Locks between processes, made of a file that exists while somebody holds the lock.
//
// The lock of a record is the empty file with the extension "lock" beside it. Whoever unlocks takes
// it away. One that belongs to another user is as good as none and stays; the lock in the user's own
// place then keeps his other processes out.

import {
  closeSync,
  linkSync,
  openSync,
  renameSync,
  statSync,
  unlinkSync,
} from "node:fs";
import { pause } from "../pause.js";
import {
  hasOwnPlace,
  isForeign,
  makeOwnPlace,
  ownPlaceOf,
  whyNoPlace,
} from "./own_file.js";

const LOCK_MODE = 0o600;
const PAUSE = 100;
const STALE_SECONDS = 60;
const WAIT_SECONDS = 20;

const secondsNow = (): number => Math.floor(Date.now() / 1000);

function lockPath(path: string): string {
  const base = path.slice(path.lastIndexOf("/") + 1);
  const dot = base.lastIndexOf(".");
  const stem = dot < 0 ? path : path.slice(0, path.length - base.length + dot);
  return `${stem}.lock`;
}

function remove(path: string): boolean {
  try {
    unlinkSync(path);
    return true;
  } catch {
    return false;
  }
}

function isStale(lock: string): boolean {
  const status = statSync(lock, { throwIfNoEntry: false });
  if (!status) return false;
  return secondsNow() - STALE_SECONDS > Math.floor(status.mtimeMs / 1000);
}

/** Takes a forgotten lock away, unless somebody has broken it and taken it since. */
function breakIfStale(lock: string): void {
  if (isForeign(lock) || !isStale(lock)) return;
  const aside = `${lock}.${String(process.pid)}`;
  try {
    renameSync(lock, aside);
    if (!isStale(aside)) linkSync(aside, lock);
    unlinkSync(aside);
  } catch {
    // Somebody else was faster.
  }
}

function makeLock(lock: string): boolean {
  try {
    closeSync(openSync(lock, "wx", LOCK_MODE));
    return true;
  } catch {
    return false;
  }
}

// One try. Who finds the usual lock in another user's hands has the one in the user's own place
// instead. That other user may come and go, so once there is such a place everybody has both.
function tryLock(lock: string): boolean {
  const made = makeLock(lock);
  if (!made && !isForeign(lock)) return false;
  if (made ? !hasOwnPlace(lock) : !makeOwnPlace(lock)) return true;
  const own = ownPlaceOf(lock);
  if (makeLock(own)) {
    if (made || isForeign(lock)) return true;
    remove(own);
  } else if (made) {
    remove(lock);
  }
  return false;
}

/** Takes the lock of a record, trying for up to 20 seconds; whether it was got. */
export async function takeLock(
  path: string,
  signal?: AbortSignal,
): Promise<boolean> {
  const lock = lockPath(path);
  breakIfStale(lock);
  if (hasOwnPlace(lock)) breakIfStale(ownPlaceOf(lock));
  const start = secondsNow();
  while (!tryLock(lock)) {
    await pause(PAUSE, signal);
    if (start + WAIT_SECONDS <= secondsNow()) return false;
  }
  return true;
}

/** Gives it back. */
export function giveLock(path: string): void {
  const lock = lockPath(path);
  if (hasOwnPlace(lock)) remove(ownPlaceOf(lock));
  if (!isForeign(lock)) remove(lock);
}

/** What another user has put in the way of every lock; empty if there can be one. */
export function whyNoLock(path: string): string {
  return whyNoPlace(lockPath(path));
}
