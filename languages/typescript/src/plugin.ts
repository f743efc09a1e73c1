// A plugin: the connection to a hub, services that are provided, and services of others that are
// asked for.

import { Connection, DONE } from "./connection.js";
import { HublinkError } from "./errors.js";
import { HublinkPlugin as HubSide } from "./generated/hublink.js";
import { HubEndpoint } from "./hub_endpoint.js";
import { Link, type LinkOwner } from "./link.js";
import { Services, type Service, type ServiceHandlers } from "./services.js";
import type { WaitOptions } from "./side.js";
import type { Transport } from "./transport.js";
import { Questions } from "./questions.js";

/** How long services are waited for, and answers of the hub, unless told otherwise. */
const REQUEST_TIMEOUT = 30_000;
const HUB_TIMEOUT = 5_000;
const NEVER = -1;
/** Milliseconds between two questions of a patient request. */
const PATIENCE = 100;

/** What to ask for, besides the name of the service. */
export interface RequestOptions extends WaitOptions {
  /** The plugin that is to provide it; any unless told. */
  providerId?: number | undefined;
  /** What the provider is told, each a text such as `name=value`. */
  nameValuePairs?: readonly string[] | undefined;
  /** Only a provider with this working directory will do. */
  workingDirectory?: string | undefined;
  /** Only a provider on the hub's machine will do. */
  localOnly?: boolean | undefined;
  /** A provider that has a connection already won't do. */
  noReuse?: boolean | undefined;
  /** The hub's program for it is to be started by a plugin. */
  clientStart?: boolean | undefined;
  /** Asks again as long as nobody provides the service, until the time is up. */
  patient?: boolean | undefined;
}

/** How to ask who provides a service. */
export interface ProviderOptions extends WaitOptions {
  /** Only a provider with this working directory counts. */
  workingDirectory?: string | undefined;
  /** Starts the program that provides it, if none does. */
  start?: boolean | undefined;
}

/** How the hub starts a program. */
export interface LaunchOptions extends WaitOptions {
  /** Where the program starts; the hub's own directory unless told. */
  workingDirectory?: string | undefined;
}

/** How many plugins a hub has. */
export interface PluginCounts {
  /** Those for whose sake it stays up. */
  persistent: number;
  total: number;
}

/** Where a hub listens. */
export interface Location {
  hostName: string;
  port: number;
}

/** How a program is debugged that the hub starts. */
export interface DebugOptions {
  /** False takes the program from the list of those to be debugged. */
  debug?: boolean | undefined;
  debugger?: string | undefined;
  debuggerOptions?: string | undefined;
}

/** Gives the value of a name; null for none. */
export type ValueHandler = (
  name: string,
) => string | null | Promise<string | null>;

export class Plugin implements LinkOwner {
  /** The number that the hub has given this plugin. */
  readonly id: number = -1;
  /** How the hub was found: whether it was started for this plugin. */
  readonly hasStartedHub: boolean = false;
  /**
   * Fulfilled when the connection has ended: with what was wrong, or undefined after
   * {@link Plugin.close}.
   */
  readonly closed: Promise<HublinkError | undefined>;
  /** @internal */
  readonly connection: Connection;
  private readonly hub: HubSide;
  private readonly endpoint: HubEndpoint;
  private readonly questions: Questions;
  private readonly services: Services;
  private readonly links = new Set<Link>();
  private tellClosed!: (reason: HublinkError | undefined) => void;
  private reason: HublinkError | undefined;
  private isClosing = false;
  private logKept = false;
  private valueHandler: ValueHandler | undefined;

  private constructor(
    readonly transport: Transport,
    onId: (id: number) => void,
  ) {
    this.connection = new Connection(transport);
    this.connection.onEnd = (reason) => this.connectionEnded(reason);
    this.closed = new Promise((resolve) => (this.tellClosed = resolve));
    this.endpoint = new HubEndpoint(this.connection);
    this.questions = new Questions(
      this.connection,
      (localRn, serviceRn) => {
        if (serviceRn !== undefined)
          void this.hub.dropServiceConnection({ localRn, serviceRn });
        this.releaseNumber(localRn);
      },
      ({ localRn, serviceRn, pluginId, serviceName }) =>
        this.openLink(localRn, serviceRn, pluginId, serviceName, true),
    );
    // Made before the hub can say anything.
    this.hub = new HubSide(this.endpoint, {
      onPluginId: ({ pluginId }) => onId(pluginId),
      onStartLogging: () => (this.logKept = true),
      onConnectionRequestedEvent: (event) => this.services.requested(event),
      onConnectionDroppedEvent: ({ serviceRn, remoteRn }) =>
        this.dropped(serviceRn, remoteRn),
      onConnectionReplyEvent: (event) => this.questions.requestAnswered(event),
      onRnBlockReservedEvent: ({ rnList }) =>
        this.questions.numbersCame(rnList),
      onLocationEvent: ({ hostname, port }) =>
        this.questions.locationCame({ hostName: hostname, port }),
      onPluginIdForServiceReplyEvent: ({ cookie, pluginId }) =>
        this.questions.providerCame(cookie, pluginId),
      onPluginConnectedEvent: ({ cookie, pluginId, errors }) =>
        this.questions.pluginCame(cookie, pluginId, errors),
      onValueOfNameOnPluginEvent: ({ pluginId, name, value }) =>
        this.questions.valueCame(pluginId, name, value),
      // The hub's next message doesn't wait for the value.
      onForwardedRequestValueOfNameOnPlugin: (event) => {
        void this.valueRequested(event);
      },
      onStartPlugin: ({ cookie }) => {
        void this.hub.startPluginEvent({
          cookie,
          success: false,
          errorMessage: "this plugin starts no others",
        });
      },
    });
    this.services = new Services(this.hub, this.questions, this);
  }

  /** Makes a plugin of a transport that has a hub at its other end. @internal */
  static async attach(
    transport: Transport,
    start: (plugin: Connection) => void,
    options: {
      timeout: number;
      signal?: AbortSignal | undefined;
      onValue?: ValueHandler | undefined;
    },
    hasStartedHub: boolean,
  ): Promise<Plugin> {
    let tellId!: (id: number) => void;
    const id = new Promise<number>((resolve) => (tellId = resolve));
    const plugin = new Plugin(transport, (value) => tellId(value));
    plugin.onValue(options.onValue);
    start(plugin.connection);
    const waiting = plugin.questions.wait<number>(
      options,
      options.timeout,
      "plugin ID",
    );
    void id.then((value) => waiting.answer(value));
    void plugin.closed.then((reason) =>
      waiting.fail(
        reason ?? new HublinkError("disconnected", "the hub has gone"),
      ),
    );
    try {
      Object.assign(plugin, { id: await waiting.promise, hasStartedHub });
      return plugin;
    } catch (error) {
      await plugin.close();
      throw error;
    }
  }

  get isConnected(): boolean {
    return this.reason === undefined && this.connection.isUp;
  }

  /** What handlers throw is given to this function; without one it is written to the console. */
  set onError(handler: (error: unknown) => void) {
    this.connection.onError = handler;
  }

  // --- Services ---

  /**
   * Offers a service: each requester that is taken gives `connected` a link.
   *
   * @throws {@link HublinkError}: `timed out` (after 5 seconds unless told otherwise),
   *   `disconnected`, `failed`. The service isn't offered then, also if the hub's answer comes later.
   */
  provide(
    name: string,
    connected: (link: Link) => unknown,
    options: ServiceHandlers & WaitOptions = {},
  ): Promise<Service> {
    return this.services.provide(name, connected, options, HUB_TIMEOUT);
  }

  /**
   * Asks for a service; a link to its provider.
   *
   * @throws {@link HublinkError}: `refused`, `not found`, `provider lost`, `shared object`,
   *   `timed out` (after 30 seconds unless told otherwise), `disconnected`
   */
  async request(
    serviceName: string,
    options: RequestOptions = {},
  ): Promise<Link> {
    const end = performance.now() + (options.timeout ?? REQUEST_TIMEOUT);
    for (;;) {
      const isLimited = (options.timeout ?? 0) >= 0;
      const left = isLimited ? Math.max(0, end - performance.now()) : NEVER;
      try {
        return await this.requestOnce(serviceName, options, left);
      } catch (error) {
        const isMissing =
          error instanceof HublinkError && error.outcome === "not found";
        if (!isMissing || options.patient !== true) throw error;
        if (isLimited && performance.now() + PATIENCE >= end) throw error;
      }
      await this.questions.pause(PATIENCE, options.signal);
    }
  }

  private async requestOnce(
    serviceName: string,
    options: RequestOptions,
    timeout: number,
  ): Promise<Link> {
    const { cookie, waiting } = this.questions.askRequest(
      { ...options, timeout },
      serviceName,
    );
    if (waiting.isOpen)
      void this.hub.requestServiceConnection({
        serviceName,
        providingPluginId: options.providerId ?? -1,
        nameValuePairs: options.nameValuePairs ?? [],
        workingDir: options.workingDirectory ?? null,
        localOnly: options.localOnly ?? false,
        clientCookie: cookie,
        noReuse: options.noReuse ?? false,
        clientStart: options.clientStart ?? false,
      });
    return waiting.promise;
  }

  /**
   * Asks who provides a service: the plugin's number, or null for nobody.
   *
   * @throws {@link HublinkError}: `timed out` (30 seconds), `disconnected`
   */
  async providerOf(
    serviceName: string,
    options: ProviderOptions = {},
  ): Promise<number | null> {
    const { cookie, waiting } = this.questions.askProvider(
      options,
      REQUEST_TIMEOUT,
    );
    if (waiting.isOpen)
      void this.hub.requestPluginIdForService({
        cookie,
        serviceName,
        workingDir: options.workingDirectory ?? null,
        startupIfNotRunning: options.start ?? false,
      });
    const id = await waiting.promise;
    return id === -1 ? null : id;
  }

  // --- Other plugins ---

  /**
   * Has the hub start a plugin: a program that is sought beside the hub and in its PATH, with its
   * arguments. The number of the plugin.
   *
   * @throws {@link HublinkError}: `failed` with the hub's text, `timed out` (no limit unless told:
   *   the hub has its own), `disconnected`
   */
  async launch(
    command: readonly string[],
    options: LaunchOptions = {},
  ): Promise<number> {
    const { cookie, waiting } = this.questions.askPlugin(options, NEVER);
    if (waiting.isOpen)
      void this.hub.requestPluginLaunch({
        argv: command,
        cookie,
        clientStart: false,
        workingDir: options.workingDirectory ?? null,
      });
    return waiting.promise;
  }

  /** Has the hub connect to a plugin that listens; its number. Fails like {@link launch}. */
  async connectPlugin(
    host: string,
    port: number,
    options: WaitOptions = {},
  ): Promise<number> {
    const { cookie, waiting } = this.questions.askPlugin(options, NEVER);
    if (waiting.isOpen)
      void this.hub.requestPluginConnect({ host, port, cookie });
    return waiting.promise;
  }

  /**
   * Asks a plugin for a named value; null if there is no such plugin or value.
   *
   * @throws {@link HublinkError}: `timed out` (30 seconds), `disconnected`
   */
  async valueOf(
    pluginId: number,
    name: string,
    options: WaitOptions = {},
  ): Promise<string | null> {
    const waiting = this.questions.askValue(
      pluginId,
      name,
      options,
      REQUEST_TIMEOUT,
    );
    if (waiting.isOpen)
      void this.hub.requestValueOfNameOnPlugin({ pluginId, name });
    return waiting.promise;
  }

  /** Answers questions of others about named values. */
  onValue(handler: ValueHandler | undefined): void {
    this.valueHandler = handler;
  }

  // --- The hub ---

  /**
   * Takes numbers for the plugin's own use, to be given back with {@link releaseNumber}.
   *
   * @throws {@link HublinkError}: `failed` if the hub gives none, `timed out`, `disconnected`
   */
  async reserveNumbers(
    count: number,
    options: WaitOptions = {},
  ): Promise<number[]> {
    const waiting = this.questions.askNumbers(options, HUB_TIMEOUT, (list) => {
      for (const rn of list) this.releaseNumber(rn);
    });
    void this.hub.reserveRnBlock({ count });
    const numbers = await waiting.promise;
    if (numbers.length === 0)
      throw new HublinkError("failed", "the hub gives no such numbers");
    return numbers;
  }

  releaseNumber(rn: number): void {
    void this.hub.releaseRn({ rn });
  }

  /** Asks where the hub listens. */
  async location(options: WaitOptions = {}): Promise<Location> {
    const waiting = this.questions.askLocation(options, HUB_TIMEOUT);
    void this.hub.requestLocation();
    return waiting.promise;
  }

  /**
   * Asks how many plugins there are, this one among them. All that was sent to the hub before has
   * been done then.
   */
  async countPlugins(options: WaitOptions = {}): Promise<PluginCounts> {
    const counts = await this.hub.numPersistentServices(
      {},
      { timeout: HUB_TIMEOUT, ...options },
    );
    return { persistent: counts.numPersistent, total: counts.numTotal };
  }

  /** Whether the hub stays up for this plugin's sake; it does unless told otherwise. */
  setPersistent(persistent: boolean): void {
    void this.hub.persistentService({ persistent });
  }

  /** Tells the hub this plugin's working directory, by which requesters may choose. */
  setWorkingDirectory(directory: string): void {
    void this.hub.setWorkingDir({ workingDir: directory });
  }

  /** Sets a variable for the programs that the hub starts; null or "" as an empty one. */
  setEnvironmentVariable(variable: string, value: string | null): void {
    void this.hub.setEnvironmentVariable({ variable, value });
  }

  /** Whether the hub keeps a log, to which {@link log} adds. */
  get isLogKept(): boolean {
    return this.logKept;
  }

  log(message: string): void {
    void this.hub.logMessageEvent({ message });
  }

  /** Whether a program is started under a debugger when the hub starts it. */
  debugPlugin(pluginName: string, options: DebugOptions = {}): void {
    void this.hub.debugPlugin({
      pluginName,
      doDebug: options.debug ?? true,
      debugger_: options.debugger,
      debuggerOpts: options.debuggerOptions,
    });
  }

  /** Whether programs are started by their Ada name, where they have one. */
  setPreferAda(preferAda: boolean): void {
    void this.hub.setPreferAda({ preferAda });
  }

  /**
   * How many bytes may wait to be written before `send` waits: 8 MiB unless told otherwise, 0 for no
   * limit. Packets and messages of all links count.
   */
  setSendLimit(bytes: number): void {
    this.connection.setSendLimit(bytes);
  }

  // --- The end ---

  /**
   * Ends the connection in order: what was sent is written, links end, services go, open questions
   * fail as `disconnected`.
   */
  async close(): Promise<void> {
    this.isClosing = true;
    await this.transport.close();
  }

  /** The same, for `await using`. */
  [Symbol.asyncDispose](): Promise<void> {
    return this.close();
  }

  private connectionEnded(reason: HublinkError): void {
    this.reason = reason;
    const ended = new HublinkError("link ended", reason.message);
    for (const link of [...this.links]) link.end(ended);
    this.endpoint.end(reason);
    this.questions.fail(reason);
    this.services.clear();
    this.tellClosed(this.isClosing ? undefined : reason);
  }

  // --- Links ---

  /** @internal */
  openLink(
    localRn: number,
    remoteRn: number,
    peerPluginId: number,
    serviceName: string,
    ownsNumber: boolean,
  ): Link {
    const link = new Link(this, {
      localRn,
      remoteRn,
      peerPluginId,
      serviceName,
      ownsNumber,
    });
    this.links.add(link);
    return link;
  }

  /** @internal */
  linkClosed(link: Link): void {
    const { localRn, remoteRn } = link;
    void this.hub.dropServiceConnection({ localRn, serviceRn: remoteRn });
    this.forget(link);
  }

  private forget(link: Link): void {
    this.links.delete(link);
    if (link.ownsNumber) this.releaseNumber(link.localRn);
  }

  private dropped(localRn: number, remoteRn: number): void {
    const link = this.connection.receiverOf(localRn, remoteRn);
    if (!(link instanceof Link)) return;
    this.forget(link);
    link.end(
      new HublinkError("link ended", "the other side has ended the link"),
    );
  }

  private async valueRequested(event: {
    requestingPluginId: number;
    myPluginId: number;
    name: string;
  }): Promise<void> {
    let value: string | null = null;
    try {
      value = (await this.valueHandler?.(event.name)) ?? null;
    } catch (error) {
      this.connection.onError(error);
    }
    await this.hub
      .valueOfNameOnPluginResponseEvent({
        requestingPluginId: event.requestingPluginId,
        pluginId: event.myPluginId,
        name: event.name,
        value,
      })
      .catch(() => DONE);
  }
}
