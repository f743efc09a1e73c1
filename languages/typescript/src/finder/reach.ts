// Sockets to a hub whose port is known: by the local road, or by TCP.

import { connect as connectSocket, type Socket } from "node:net";
import { HublinkError } from "../errors.js";
import { Transport } from "../transport.js";
import { userId } from "./own_file.js";
import { isOwnUser, ownListener, userOfServer } from "./peer_user.js";

const CONNECT_LIMIT = 5000;

/** A transport, and the socket that it is to be started with. */
export interface Reached {
  transport: Transport;
  socket: Socket;
  readsItself: boolean;
}

export interface ReachOptions {
  host: string;
  port: number;
  anyUser: boolean;
  tcpOnly: boolean;
  /** The process that is thought to be the hub; 0 for none. */
  process: number;
  timeout: number;
  signal?: AbortSignal | undefined;
}

function isThisMachine(host: string): boolean {
  return host === "localhost" || host.startsWith("127.");
}

function connected(
  place: { path: string } | { host: string; port: number; family: number },
  timeout: number,
  signal: AbortSignal | undefined,
): Promise<Reached> {
  const transport = new Transport();
  return new Promise((resolve, reject) => {
    signal?.throwIfAborted();
    const socket = connectSocket({
      ...place,

      onread: transport.readOptions(),
    });
    socket.pause();
    const fail = (reason: unknown): void => {
      settle();
      socket.destroy();
      // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- a signal's
      reject(reason);
    };
    const onAbort = (): void => fail(signal?.reason);
    const limit = setTimeout(
      () =>
        fail(new HublinkError("no hub", "the connection isn't made in time")),
      Math.min(timeout < 0 ? CONNECT_LIMIT : timeout, CONNECT_LIMIT),
    );
    const settle = (): void => {
      clearTimeout(limit);
      signal?.removeEventListener("abort", onAbort);
    };
    signal?.addEventListener("abort", onAbort, { once: true });
    socket.once("error", (error) =>
      fail(new HublinkError("no hub", error.message)),
    );
    socket.once("connect", () => {
      settle();
      resolve({ transport, socket, readsItself: true });
    });
  });
}

// Node has to be able to connect to names without fill behind them; where it isn't, nobody listens
// at the name that it makes of this one.
async function byLocalRoad(
  options: ReachOptions,
): Promise<Reached | undefined> {
  const name = `hublink/${String(userId())}/${String(options.port)}`;
  const listener = ownListener(name, options.process);
  if (listener === undefined) return undefined;
  try {
    const reached = await connected(
      { path: `\0${name}` },
      options.timeout,
      options.signal,
    );
    // Nobody else has taken the name in between.
    if (ownListener(name, options.process) === listener) return reached;
    reached.socket.destroy();
  } catch {
    options.signal?.throwIfAborted();
  }
  return undefined;
}

/**
 * Connects to the hub on a port.
 *
 * @throws {@link HublinkError}: `no hub` if nobody listens there, or another user does
 */
export async function reachHub(options: ReachOptions): Promise<Reached> {
  const { host, port } = options;
  const isHere = isThisMachine(host);
  const isLocal =
    isHere && !options.tcpOnly && !process.env["HUBLINK_TCP_ONLY"];
  if (isLocal) {
    const local = await byLocalRoad(options);
    if (local) return local;
  }
  const reached = await connected(
    { host: isHere ? "127.0.0.1" : host, port, family: 4 },
    options.timeout,
    options.signal,
  );
  if (options.anyUser) return reached;
  const user = userOfServer(reached.socket);
  if (user === "elsewhere" || (user !== undefined && isOwnUser(user)))
    return reached;
  reached.socket.destroy();
  throw new HublinkError(
    "no hub",
    `the hub on port ${String(port)} ` +
      (user === undefined
        ? "has gone, or its user can't be told"
        : `runs as another user (${String(user)})`),
  );
}
