// "Give me the hub": how a plugin comes to the hub that it shares with others, and has one started
// if there is none.

import { dirname } from "node:path";
import { HublinkError } from "./errors.js";
import { giveLock, takeLock } from "./finder/lock.js";
import { hubProgram } from "./finder/program.js";
import { reachHub, type Reached } from "./finder/reach.js";
import {
  livePort,
  readRecord,
  recordPath,
  whyNoRecord,
} from "./finder/record.js";
import { startHub } from "./finder/start.js";
import { pause } from "./pause.js";
import { Plugin, type ValueHandler } from "./plugin.js";

const JOIN_TIMEOUT = 5_000;
const START_TIMEOUT = 10_000;
const CONNECT_PAUSE = 20;

/** Which hub is meant, and how it is started. */
export interface HubChoice {
  /**
   * A command line that may name the zone (`-hl_zone`), the program (`-hl_hub`), or the port of the
   * hub that has started this program (`-hl_connect_hublink_port`), in any case of letters. That of
   * this process unless told; what it says holds before the rest.
   */
  argv?: readonly string[] | undefined;
  /** A name that tools agree on; without one each installation has its own hub for each user. */
  zone?: string | undefined;
  /**
   * The hub's executable, or a bare name in PATH. Unless told, `hublink` beside this script, in
   * `../lib/hublink` from there, or in PATH.
   */
  program?: string | undefined;
  /** Whether a hub is started if there is none; it is unless told. */
  start?: boolean | undefined;
  /** Whether a hub that is started can be reached from this machine alone; it can unless told. */
  loopbackOnly?: boolean | undefined;
  /** Whether a hub of another user is taken; one that is started takes every user then. */
  anyUser?: boolean | undefined;
  /** Whether the local road is left out, by this program and by a hub that is started. */
  tcpOnly?: boolean | undefined;
  /** Further options for a hub that is started. */
  hubArguments?: readonly string[] | undefined;
  /**
   * Milliseconds; 5 seconds for a hub that runs, 10 if one may have to be started. The wait for
   * others who are starting one comes on top, 20 seconds at most.
   */
  timeout?: number | undefined;
  signal?: AbortSignal | undefined;
  /** Answers questions of others about named values, from the first one on. */
  onValue?: ValueHandler | undefined;
}

/** A hub by its port. */
export interface HubAddress {
  port: number;
  /** This machine unless told. */
  host?: string | undefined;
  anyUser?: boolean | undefined;
  tcpOnly?: boolean | undefined;
  /** Milliseconds, 5 seconds unless told. A hub that isn't there yet is tried again so long. */
  timeout?: number | undefined;
  signal?: AbortSignal | undefined;
  /** As in {@link HubChoice}. */
  onValue?: ValueHandler | undefined;
}

function optionOf(argv: readonly string[], name: string): string | undefined {
  const at = argv.findIndex((word) => word.toLowerCase() === name);
  return at < 0 ? undefined : argv[at + 1];
}

interface Place extends HubAddress {
  process?: number;
}

async function join(place: Place, timeout: number): Promise<Plugin> {
  const start = performance.now();
  const reached = await reachHub({
    host: place.host ?? "127.0.0.1",
    port: place.port,
    anyUser: place.anyUser ?? false,
    tcpOnly: place.tcpOnly ?? false,
    process: place.process ?? 0,
    timeout,
    signal: place.signal,
  });
  const left = Math.max(0, timeout - (performance.now() - start));
  return attach(reached, timeout < 0 ? timeout : left, place, false);
}

function attach(
  { transport, socket, readsItself }: Reached,
  timeout: number,
  { signal, onValue }: HubChoice,
  hasStarted: boolean,
): Promise<Plugin> {
  return Plugin.attach(
    transport,
    (connection) => transport.start(socket, connection, readsItself),
    { timeout, signal, onValue },
    hasStarted,
  );
}

/**
 * Connects to the hub on a port.
 *
 * @throws {@link HublinkError}: `no hub`, `timed out`, `disconnected`
 */
export async function connectToPort(address: HubAddress): Promise<Plugin> {
  const timeout = address.timeout ?? JOIN_TIMEOUT;
  const end = performance.now() + timeout;
  for (;;) {
    const left = timeout < 0 ? timeout : Math.max(0, end - performance.now());
    try {
      return await join(address, left);
    } catch (error) {
      const isMissing =
        error instanceof HublinkError && error.outcome === "no hub";
      if (!isMissing || (timeout >= 0 && performance.now() >= end)) throw error;
    }
    await pause(CONNECT_PAUSE, address.signal);
  }
}

/** The hub of a choice: its record, and how it is joined or started. */
class Finder {
  readonly isKnown: boolean;
  private readonly program: string | undefined;
  private readonly usual: string;

  constructor(
    private readonly choice: HubChoice,
    private readonly zone: string | undefined,
    program: string,
  ) {
    this.program = hubProgram(program);
    // Without both, the name would be that of a hub beside this program, which isn't there.
    this.isKnown = zone !== undefined || this.program !== undefined;
    const directory = this.program === undefined ? "" : dirname(this.program);
    this.usual = this.isKnown ? recordPath(zone, directory) : "";
  }

  /** A plugin of the hub that runs; undefined, or a reason, if there is none. */
  async join(timeout: number): Promise<Plugin | HublinkError> {
    if (!this.isKnown)
      return missing("the hub's program isn't found, and no zone is named");
    const record = readRecord(this.usual);
    const port = livePort(record);
    if (port === 0) return missing(this.whyNot(record.path, record.process));
    try {
      const { anyUser, tcpOnly, signal, onValue } = this.choice;
      return await join(
        {
          ...{ port, anyUser, tcpOnly, signal, onValue },
          process: record.process,
        },
        timeout,
      );
    } catch (error) {
      // A hub that is about to end may close the connection: that is as good as none.
      const isMissing =
        error instanceof HublinkError &&
        (error.outcome === "no hub" || error.outcome === "disconnected");
      if (!isMissing) throw error;
      return missing(`${error.message} (the record ${record.path})`);
    }
  }

  private whyNot(path: string, process: number): string {
    const where = this.zone === undefined ? "" : ` in the zone ${this.zone}`;
    const text = `there is no hub${where}: `;
    const obstacle = whyNoRecord(this.usual);
    if (obstacle !== "") return text + obstacle;
    if (process <= 0) return `${text}no record ${path}`;
    return `${text}its process ${String(process)} has gone and left the record ${path}`;
  }

  async joinOrStart(timeout: number): Promise<Plugin> {
    const found = await this.join(timeout);
    if (found instanceof Plugin) return found;
    // A hub that nobody can find is of no use to the next tool, nor is one to be started by two.
    if (!this.isKnown) throw found;
    if (whyNoRecord(this.usual) !== "") throw found;
    const isHeld = await takeLock(this.usual, this.choice.signal);
    try {
      const again = await this.join(timeout);
      if (again instanceof Plugin) return again;
      if (!isHeld)
        throw missing("somebody else has been starting a hub for 20 seconds");
      return await this.start(timeout, again);
    } finally {
      if (isHeld) giveLock(this.usual);
    }
  }

  private async start(timeout: number, why: HublinkError): Promise<Plugin> {
    const { choice, program } = this;
    if (program === undefined)
      throw missing(
        `${why.message}, and none can be started: ${
          choice.program
            ? `there is no program ${choice.program}`
            : "the hub's program isn't found"
        }`,
      );
    const start = performance.now();
    const reached = await startHub({
      program,
      arguments: [
        ...((choice.loopbackOnly ?? true) ? ["-loopback_only"] : []),
        ...(choice.anyUser ? ["-any_user"] : []),
        ...(choice.tcpOnly ? ["-tcp_only"] : []),
        ...(this.zone === undefined ? [] : ["-hl_zone", this.zone]),
        ...(choice.hubArguments ?? []),
      ],
      timeout,
      signal: choice.signal,
    });
    const left = Math.max(0, timeout - (performance.now() - start));
    return attach(reached, left, choice, true);
  }
}

const missing = (text: string): HublinkError =>
  new HublinkError("no hub", text);

/**
 * Connects to the hub that this program shares with others, and starts it if it isn't there: to the
 * hub that has started this program, if its command line says so, else to the one of the choice.
 *
 * @throws {@link HublinkError}: `no hub` with the reason, `timed out` if it is there and doesn't
 *   answer
 */
export async function connectToHub(choice: HubChoice = {}): Promise<Plugin> {
  const argv = choice.argv ?? process.argv.slice(2);
  const { anyUser, tcpOnly, signal, onValue } = choice;
  const port = Number(optionOf(argv, "-hl_connect_hublink_port") ?? 0);
  if (Number.isInteger(port) && port > 0 && port <= 65535) {
    const timeout = choice.timeout ?? JOIN_TIMEOUT;
    return connectToPort({
      ...{ port, anyUser, tcpOnly, timeout, signal, onValue },
    });
  }
  const finder = new Finder(
    choice,
    optionOf(argv, "-hl_zone") ?? choice.zone,
    optionOf(argv, "-hl_hub") ?? choice.program ?? "",
  );
  if (choice.start ?? true)
    return finder.joinOrStart(choice.timeout ?? START_TIMEOUT);
  const found = await finder.join(choice.timeout ?? JOIN_TIMEOUT);
  if (found instanceof Plugin) return found;
  throw found;
}
