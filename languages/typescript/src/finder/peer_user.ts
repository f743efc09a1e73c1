// Which user is at the other end of a connection within this machine.
//
// Node can't ask the kernel for the credentials of a peer. By TCP both ends stand in the kernel's
// table of sockets, each with its user. Of a name in the abstract namespace the table tells who
// listens there: a socket that a process of this user, or of root, holds.

import { readdirSync, readFileSync, readlinkSync, statSync } from "node:fs";
import { networkInterfaces } from "node:os";
import type { Socket } from "node:net";
import { userId } from "./own_file.js";

const ESTABLISHED = 1;
const LISTEN = 10;
const ANY = "00000000:";

/** What the table says of the other side; undefined where it says nothing. */
export type PeerUser = number | "elsewhere" | undefined;

export function isOwnUser(user: number): boolean {
  return user === userId() || user === 0;
}

interface Entry {
  local: string;
  remote: string;
  state: number;
  user: number;
  inode: number;
}

function tableOf(): Entry[] {
  let text = "";
  try {
    text = readFileSync("/proc/net/tcp", "latin1");
  } catch {
    return [];
  }
  return text
    .split("\n")
    .slice(1)
    .map((line) => line.trim().split(/\s+/))
    .filter((words) => words.length > 9)
    .map((words) => ({
      local: words[1] as string,
      remote: words[2] as string,
      state: parseInt(words[3] as string, 16),
      user: Number(words[7]),
      inode: Number(words[9]),
    }));
}

/** An end as the table writes it, for a little-endian machine's address words. */
function endOf(address: string, port: number): string {
  const bytes = new Uint8Array(address.split(".").map(Number));
  const word = new DataView(bytes.buffer).getUint32(0, isLittleEndian);
  const hex = (value: number, width: number): string =>
    value.toString(16).toUpperCase().padStart(width, "0");
  return `${hex(word, 8)}:${hex(port, 4)}`;
}

const isLittleEndian = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;

function isOfThisMachine(address: string): boolean {
  if (address.startsWith("127.")) return true;
  return Object.values(networkInterfaces())
    .flat()
    .some((own) => own?.address === address);
}

interface Ends {
  near: string;
  far: string;
}

function endsOf(socket: Socket): Ends | "elsewhere" | undefined {
  const { localAddress, localPort, remoteAddress, remotePort } = socket;
  if (localAddress === undefined || localPort === undefined) return undefined;
  if (remoteAddress === undefined || remotePort === undefined) return undefined;
  const plain = (address: string): string => address.replace(/^::ffff:/, "");
  if (plain(remoteAddress) !== plain(localAddress))
    if (!isOfThisMachine(plain(remoteAddress))) return "elsewhere";
  return {
    near: endOf(plain(localAddress), localPort),
    far: endOf(plain(remoteAddress), remotePort),
  };
}

/** Who has accepted a connection that this process has made, or listens there. */
export function userOfServer(socket: Socket): PeerUser {
  const ends = endsOf(socket);
  if (ends === undefined || ends === "elsewhere") return ends;
  const { near, far } = ends;
  // It may be accepted, and the listener closed, between two looks.
  for (let look = 0; look < 2; ++look) {
    const entries = tableOf().filter((entry) => entry.inode !== 0);
    const made = entries.find(
      (entry) =>
        entry.state === ESTABLISHED &&
        entry.local === far &&
        entry.remote === near,
    );
    const anywhere = ANY + far.slice(ANY.length);
    const listens = entries.find(
      (entry) =>
        entry.state === LISTEN &&
        (entry.local === far || entry.local === anywhere),
    );
    const entry = made ?? listens;
    if (entry) return entry.user;
  }
  return undefined;
}

/** Who has made a connection that this process has accepted. */
export function userOfClient(socket: Socket): PeerUser {
  const ends = endsOf(socket);
  if (ends === undefined || ends === "elsewhere") return ends;
  return tableOf().find(
    (entry) =>
      entry.inode !== 0 &&
      entry.state === ESTABLISHED &&
      entry.local === ends.far &&
      entry.remote === ends.near,
  )?.user;
}

// --- Names ---

/** Whether a process of this user or root holds a socket. */
function holds(processId: string, link: string): boolean {
  try {
    const folder = `/proc/${processId}`;
    if (!isOwnUser(statSync(folder).uid)) return false;
    return readdirSync(`${folder}/fd`).some((file) => {
      try {
        return readlinkSync(`${folder}/fd/${file}`) === link;
      } catch {
        return false;
      }
    });
  } catch {
    return false;
  }
}

/**
 * The socket that listens at a name of the abstract namespace, if nobody but this user or root holds
 * it. `suspect` is the process that is looked at first.
 */
export function ownListener(name: string, suspect: number): string | undefined {
  let text = "";
  try {
    text = readFileSync("/proc/net/unix", "latin1");
  } catch {
    return undefined;
  }
  const listening = text
    .split("\n")
    .map((line) => line.trim().split(/\s+/))
    .filter((words) => words[7] === `@${name}` && words[3] === "00010000");
  const inode = listening[0]?.[6];
  if (listening.length !== 1 || inode === undefined) return undefined;
  const link = `socket:[${inode}]`;
  const others = readdirSync("/proc").filter((entry) => /^\d+$/.test(entry));
  const isHeld = [String(suspect), String(process.ppid), ...others].some(
    (processId) => holds(processId, link),
  );
  return isHeld ? link : undefined;
}
