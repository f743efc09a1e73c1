// Files in directories that others can write to: which of them are this user's own, and where they
// lie. A file that belongs to another user, or is a link, is no record and no lock.

import {
  accessSync,
  closeSync,
  constants,
  fstatSync,
  lstatSync,
  mkdirSync,
  openSync,
  readSync,
  type Stats,
} from "node:fs";
import { join } from "node:path";

const FOR_OTHERS = 0o077;
const OWN_PLACE_MODE = 0o700;
const LARGEST_RECORD = 64 * 1024;

export function userId(): number {
  return process.geteuid?.() ?? -1;
}

function statusOf(path: string): Stats | undefined {
  return lstatSync(path, { throwIfNoEntry: false });
}

/** Whether something stands there that belongs to another user, be it a link. */
export function isForeign(path: string): boolean {
  const status = statusOf(path);
  return status !== undefined && status.uid !== userId();
}

export function isOwnFile(path: string): boolean {
  const status = statusOf(path);
  return status !== undefined && status.isFile() && status.uid === userId();
}

/** Whether this is a directory of this user that nobody else may enter. */
function isOwnDirectory(path: string): boolean {
  const status = statusOf(path);
  if (!status?.isDirectory() || status.uid !== userId()) return false;
  return (status.mode & FOR_OTHERS) === 0;
}

/** The text of a file of this user; undefined for anything else. */
export function readOwnFile(path: string): string | undefined {
  const { O_RDONLY, O_NOFOLLOW, O_NONBLOCK } = constants;
  let file: number;
  try {
    file = openSync(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  } catch {
    return undefined;
  }
  try {
    const status = fstatSync(file);
    if (!status.isFile() || status.uid !== userId()) return undefined;
    const bytes = Buffer.alloc(LARGEST_RECORD);
    return bytes.toString("utf8", 0, readSync(file, bytes));
  } finally {
    closeSync(file);
  }
}

/** The first of the usual directories in which files can be made. */
export function temporaryDirectory(): string {
  const { TMP, TEMP, TMPDIR } = process.env;
  for (const directory of [TMP, TEMP, TMPDIR, "/tmp"]) {
    if (directory === undefined || directory === "") continue;
    try {
      accessSync(directory, constants.W_OK | constants.X_OK);
      return directory;
    } catch {
      continue;
    }
  }
  return ".";
}

// --- The user's own place beside a name that somebody else may have taken ---

function ownPlace(path: string): string {
  const directory = path.slice(0, path.lastIndexOf("/") + 1);
  return `${directory}hublink_${String(userId())}`;
}

/** What stands for a file there, whether there is one or not. */
export function ownPlaceOf(path: string): string {
  return join(ownPlace(path), path.slice(path.lastIndexOf("/") + 1));
}

export function hasOwnPlace(path: string): boolean {
  return isOwnDirectory(ownPlace(path));
}

export function makeOwnPlace(path: string): boolean {
  if (hasOwnPlace(path)) return true;
  try {
    mkdirSync(ownPlace(path), OWN_PLACE_MODE);
  } catch {
    return false;
  }
  return hasOwnPlace(path);
}

/** Why this user can have no such file; empty if nothing is in the way. */
export function whyNoPlace(path: string): string {
  if (!isForeign(path) || makeOwnPlace(path)) return "";
  return (
    `${path} belongs to another user, and ${ownPlace(path)} ` +
    "isn't a directory of this user's alone"
  );
}
