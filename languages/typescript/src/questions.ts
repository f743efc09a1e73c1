// Questions to the hub that are open. One that is given up leaves nothing behind: what comes for it
// later is given back.

import type { Connection } from "./connection.js";
import { HublinkError, type Outcome } from "./errors.js";
import type { ConnectionReplyEvent } from "./generated/hublink.js";
import type { Link } from "./link.js";
import type { Location } from "./plugin.js";
import type { WaitOptions } from "./side.js";
import { Waiting } from "./waiting.js";

interface Asked<Value> {
  cookie: number;
  waiting: Waiting<Value>;
}

/** Numbers that were asked for, in the order of the questions. */
interface NumberQuestion {
  waiting: Waiting<number[]>;
  /** Takes those that come too late. */
  giveBack(list: number[]): void;
  /** Is told before the one who waits. */
  came(list: number[]): void;
}

const NOTHING = (): void => undefined;

export class Questions {
  private lastCookie = 0;
  private readonly open = new Set<Waiting<never>>();
  private readonly requests = new Map<number, Waiting<Link>>();
  private readonly providers = new Map<number, Waiting<number>>();
  private readonly plugins = new Map<number, Waiting<number>>();
  private readonly values = new Map<string, Waiting<string | null>[]>();
  private numbers: NumberQuestion[] = [];
  private locations: Waiting<Location>[] = [];
  private end: HublinkError | undefined;

  /** `giveBack` takes a number of a link, and that of its other end if it is up. */
  constructor(
    private readonly connection: Connection,
    private readonly giveBack: (localRn: number, remoteRn?: number) => void,
    private readonly openLink: (event: ConnectionReplyEvent) => Link,
  ) {}

  /** Something that fails with the connection. */
  wait<Value>(
    options: WaitOptions,
    timeout: number,
    what: string,
  ): Waiting<Value> {
    const { connection } = this;
    const waiting = new Waiting<Value>(
      connection.deadlines,
      options,
      timeout,
      what,
    );
    if (!waiting.isOpen) return waiting;
    if (this.end) {
      waiting.fail(this.end);
      return waiting;
    }
    const entry = waiting as unknown as Waiting<never>;
    this.open.add(entry);
    connection.countQuestions(1);
    waiting.onOver = () => {
      this.open.delete(entry);
      connection.countQuestions(-1);
    };
    return waiting;
  }

  /** The connection has ended: nothing will be answered any more. */
  fail(reason: HublinkError): void {
    this.end = reason;
    for (const waiting of [...this.open]) waiting.fail(reason);
  }

  /** Waits for some milliseconds. */
  async pause(
    milliseconds: number,
    signal: AbortSignal | undefined,
  ): Promise<void> {
    const waiting = this.wait<undefined>({ signal }, -1, "");
    const timer = setTimeout(() => waiting.answer(undefined), milliseconds);
    try {
      await waiting.promise;
    } finally {
      clearTimeout(timer);
    }
  }

  private ask<Value>(
    table: Map<number, Waiting<Value>>,
    options: WaitOptions,
    timeout: number,
    what: string,
  ): Asked<Value> {
    const cookie = (this.lastCookie = (this.lastCookie % 0x7fffffff) + 1);
    const waiting = this.wait<Value>(options, timeout, what);
    if (waiting.isOpen) {
      table.set(cookie, waiting);
      const { onOver } = waiting;
      waiting.onOver = () => {
        table.delete(cookie);
        onOver();
      };
    }
    return { cookie, waiting };
  }

  // --- Links ---

  askRequest(options: WaitOptions, serviceName: string): Asked<Link> {
    return this.ask(this.requests, options, -1, serviceName);
  }

  requestAnswered(event: ConnectionReplyEvent): void {
    const waiting = this.requests.get(event.clientCookie);
    const isUp = event.wasFound && event.wasAccepted && !event.isSharedObject;
    if (isUp && waiting) {
      waiting.answer(this.openLink(event));
      return;
    }
    // Nobody waits any more, or there is no link.
    if (event.localRn !== -1)
      this.giveBack(event.localRn, isUp ? event.serviceRn : undefined);
    waiting?.fail(failureOf(event));
  }

  // --- Plugins ---

  askProvider(options: WaitOptions, timeout: number): Asked<number> {
    return this.ask(this.providers, options, timeout, "provider");
  }

  providerCame(cookie: number, pluginId: number): void {
    this.providers.get(cookie)?.answer(pluginId);
  }

  askPlugin(options: WaitOptions, timeout: number): Asked<number> {
    return this.ask(this.plugins, options, timeout, "plugin");
  }

  pluginCame(cookie: number, pluginId: number, errors: string): void {
    const waiting = this.plugins.get(cookie);
    if (pluginId === -1) waiting?.fail(new HublinkError("failed", errors));
    else waiting?.answer(pluginId);
  }

  askValue(
    pluginId: number,
    name: string,
    options: WaitOptions,
    timeout: number,
  ): Waiting<string | null> {
    const waiting = this.wait<string | null>(options, timeout, name);
    if (!waiting.isOpen) return waiting;
    const key = `${String(pluginId)} ${name}`;
    this.values.set(key, [...(this.values.get(key) ?? []), waiting]);
    const { onOver } = waiting;
    waiting.onOver = () => {
      const left = this.values.get(key)?.filter((other) => other !== waiting);
      if (left?.length) this.values.set(key, left);
      else this.values.delete(key);
      onOver();
    };
    return waiting;
  }

  valueCame(pluginId: number, name: string, value: string | null): void {
    this.values.get(`${String(pluginId)} ${name}`)?.[0]?.answer(value);
  }

  // --- What is answered in the order of the questions ---

  /** The question has to be sent in any case, or the order is lost. */
  askNumbers(
    options: WaitOptions,
    timeout: number,
    giveBack: (list: number[]) => void,
    came: (list: number[]) => void = NOTHING,
  ): Waiting<number[]> {
    const waiting = this.wait<number[]>(options, timeout, "numbers");
    this.numbers.push({ waiting, giveBack, came });
    return waiting;
  }

  numbersCame(list: number[]): void {
    const question = this.numbers.shift();
    if (!question) return;
    if (question.waiting.isOpen) {
      question.came(list);
      question.waiting.answer(list);
    } else {
      question.giveBack(list);
    }
  }

  askLocation(options: WaitOptions, timeout: number): Waiting<Location> {
    const waiting = this.wait<Location>(options, timeout, "location");
    this.locations.push(waiting);
    return waiting;
  }

  locationCame(location: Location): void {
    this.locations.shift()?.answer(location);
  }
}

function failureOf(event: ConnectionReplyEvent): HublinkError {
  const { serviceName, sharedObjectName } = event;
  if (event.isSharedObject)
    return new HublinkError(
      "shared object",
      `${serviceName} is the library ${sharedObjectName}`,
      sharedObjectName,
    );
  const [outcome, text]: [Outcome, string] = !event.wasFound
    ? ["not found", "nobody provides it"]
    : event.localRn === -1
      ? ["provider lost", "its provider has gone"]
      : ["refused", "its provider has refused"];
  return new HublinkError(outcome, `${serviceName}: ${text}`);
}
