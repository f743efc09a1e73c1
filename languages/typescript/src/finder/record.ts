// The record by which a shared hub is found: a small file in the temporary directory that holds the
// hub's port and process. Its name is a zone that tools agree on, or follows from where the hub's
// program lies, so that each user and each installation has a hub of its own.

import { createHash } from "node:crypto";
import { statSync } from "node:fs";
import { hostname, userInfo } from "node:os";
import { join } from "node:path";
import {
  hasOwnPlace,
  isForeign,
  isOwnFile,
  ownPlaceOf,
  readOwnFile,
  temporaryDirectory,
  whyNoPlace,
} from "./own_file.js";
import { whyNoLock } from "./lock.js";

const HUB_NAME = "hublink";
const MOST_PORTS = 65535;

export interface HubRecord {
  readonly path: string;
  /** -1 for what it lacks. */
  readonly port: number;
  readonly process: number;
}

/** MD5 with the low half of each byte first. */
function digestOf(text: string): string {
  const digest = createHash("md5").update(text).digest("hex");
  return digest.replace(/(.)(.)/g, "$2$1");
}

function recordName(zone: string | undefined, directory: string): string {
  if (zone !== undefined) return zone;
  const hub = statSync(join(directory, HUB_NAME), { throwIfNoEntry: false });
  // A new build of the hub gets a record of its own.
  const age = hub ? String(Math.floor(hub.mtimeMs / 1000)) : "";
  return digestOf(age + directory + userInfo().username + hostname());
}

/** The record of a zone, or of the hub in a directory, where nobody else has put something. */
export function recordPath(
  zone: string | undefined,
  directory: string,
): string {
  const name = recordName(zone, directory).replaceAll("\\", "/");
  return join(temporaryDirectory(), name === "" ? "svc" : `svc_${name}`);
}

/** Where the record lies, or would: the usual place, or else the user's own. */
function placeOf(usual: string): string {
  if (isOwnFile(usual)) return usual;
  const own = ownPlaceOf(usual);
  const isThere = hasOwnPlace(usual) && isOwnFile(own);
  return isThere || isForeign(usual) ? own : usual;
}

export function readRecord(usual: string): HubRecord {
  const path = placeOf(usual);
  const text = readOwnFile(path) ?? "";
  const value = (name: string): number =>
    Number(new RegExp(`(?:^|\\s)${name} = (\\d+)`).exec(text)?.[1] ?? -1);
  return { path, port: value("Port"), process: value("Pid") };
}

/** What another user has put in the way of every record or lock of this name. */
export function whyNoRecord(usual: string): string {
  return whyNoPlace(usual) || whyNoLock(usual);
}

function isProcess(id: number): boolean {
  try {
    process.kill(id, 0);
    return true;
  } catch (error) {
    return (error as NodeJS.ErrnoException).code === "EPERM";
  }
}

/** The port of a hub whose process runs, or 0. */
export function livePort(record: HubRecord): number {
  const { port } = record;
  if (port < 0 || port > MOST_PORTS || record.process <= 0) return 0;
  return isProcess(record.process) ? port : 0;
}
