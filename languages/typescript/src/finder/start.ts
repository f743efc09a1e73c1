// Starts a hub, which connects to this process and so has it as its first plugin.

import { spawn } from "node:child_process";
import { createServer, type AddressInfo, type Socket } from "node:net";
import { HublinkError } from "../errors.js";
import { Transport } from "../transport.js";
import { isOwnUser, userOfClient } from "./peer_user.js";
import type { Reached } from "./reach.js";

export interface StartOptions {
  program: string;
  /** The hub's own options. */
  arguments: readonly string[];
  timeout: number;
  signal?: AbortSignal | undefined;
}

/**
 * Starts the program and takes its connection. The hub outlives this process.
 *
 * @throws {@link HublinkError}: `no hub`
 */
export function startHub(options: StartOptions): Promise<Reached> {
  return new Promise((resolve, reject) => {
    const { program, signal } = options;
    signal?.throwIfAborted();
    const server = createServer({ pauseOnConnect: true });
    let kill = (): void => undefined;
    const settle = (): void => {
      clearTimeout(limit);
      server.close();
      signal?.removeEventListener("abort", onAbort);
    };
    const fail = (reason: unknown): void => {
      settle();
      kill();
      // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- a signal's
      reject(reason);
    };
    const cant = (why: string): void =>
      fail(new HublinkError("no hub", `${program} can't be started: ${why}`));
    const onAbort = (): void => fail(signal?.reason);
    const limit = setTimeout(
      () => cant("it hasn't connected in time"),
      options.timeout,
    );
    signal?.addEventListener("abort", onAbort, { once: true });
    server.on("error", (error) => cant(error.message));
    server.on("connection", (socket: Socket) => {
      const user = userOfClient(socket);
      if (typeof user !== "number" || !isOwnUser(user)) {
        socket.destroy();
        return;
      }
      settle();
      resolve({ transport: new Transport(), socket, readsItself: false });
    });
    server.listen(0, "127.0.0.1", () => {
      const { port } = server.address() as AddressInfo;
      const child = spawn(
        program,
        ["-connect_hublink", String(port), ...options.arguments],
        { detached: true, stdio: "ignore" },
      );
      kill = () => child.kill();
      child.on("error", (error) => cant(error.message));
      child.on("exit", () => cant("it has ended"));
      child.unref();
    });
  });
}
