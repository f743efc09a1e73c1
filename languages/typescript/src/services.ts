// The services that a plugin offers.

import { HublinkError } from "./errors.js";
import type {
  ConnectionRequestedEvent,
  HublinkPlugin as HubSide,
} from "./generated/hublink.js";
import type { Link } from "./link.js";
import type { Plugin } from "./plugin.js";
import type { Questions } from "./questions.js";
import type { WaitOptions } from "./side.js";

/** Somebody asks for a service of this plugin. */
export interface ConnectionRequest {
  serviceName: string;
  requestingPluginId: number;
  /** What the requester has told, each a text such as `name=value`. */
  nameValuePairs: string[];
}

export interface ServiceHandlers {
  /** Says whether a requester is taken; all are without it. */
  accept?:
    ((request: ConnectionRequest) => boolean | Promise<boolean>) | undefined;
}

/** A service that is offered. */
export class Service {
  /** @internal */
  constructor(
    readonly name: string,
    /** The number under which the hub knows it. */
    readonly rn: number,
    private readonly owner: Services,
    /** @internal */
    readonly connected: (link: Link) => unknown,
    /** @internal */
    readonly accept: ServiceHandlers["accept"],
  ) {}

  /** Withdraws it; links that are up stay so. */
  withdraw(): void {
    this.owner.withdraw(this);
  }
}

export class Services {
  private readonly services = new Map<number, Service>();

  constructor(
    private readonly hub: HubSide,
    private readonly questions: Questions,
    private readonly plugin: Plugin,
  ) {}

  async provide(
    name: string,
    connected: (link: Link) => unknown,
    options: ServiceHandlers & WaitOptions,
    timeout: number,
  ): Promise<Service> {
    let service: Service | undefined;
    const waiting = this.questions.askNumbers(
      options,
      timeout,
      (list) => {
        // The caller was told that it failed.
        for (const serviceRn of list)
          void this.hub.unregisterService({ serviceRn });
      },
      ([rn]) => {
        if (rn === undefined) return;
        // A requester may come together with the number.
        service = new Service(name, rn, this, connected, options.accept);
        this.services.set(rn, service);
      },
    );
    void this.hub.registerServiceList({ nameList: [name] });
    await waiting.promise;
    if (service) return service;
    throw new HublinkError("failed", `the hub doesn't register ${name}`);
  }

  withdraw(service: Service): void {
    if (!this.services.delete(service.rn)) return;
    void this.hub.unregisterService({ serviceRn: service.rn });
  }

  clear(): void {
    this.services.clear();
  }

  /** A requester has come. */
  requested(event: ConnectionRequestedEvent): void {
    const service = this.services.get(event.serviceRn);
    if (!service) {
      this.answer(event, false);
      return;
    }
    const request = {
      serviceName: service.name,
      requestingPluginId: event.requestingPluginId,
      nameValuePairs: event.nameValuePairs,
    };
    try {
      const accepted = service.accept?.(request) ?? true;
      if (typeof accepted === "boolean") this.decide(service, event, accepted);
      else
        accepted.then(
          (later) => this.decide(service, event, later),
          (error: unknown) => this.failed(event, error),
        );
    } catch (error) {
      this.failed(event, error);
    }
  }

  private failed(event: ConnectionRequestedEvent, error: unknown): void {
    this.plugin.connection.onError(error);
    this.answer(event, false);
  }

  private answer(event: ConnectionRequestedEvent, accept: boolean): void {
    const { serviceRn, remoteRn } = event;
    void this.hub.connectionAcceptedEvent({ serviceRn, remoteRn, accept });
  }

  private decide(
    service: Service,
    event: ConnectionRequestedEvent,
    accepted: boolean,
  ): void {
    if (!this.plugin.isConnected) return;
    if (!accepted) {
      this.answer(event, false);
      return;
    }
    // The link listens before the other side can hear of it, and speaks after.
    const link = this.plugin.openLink(
      event.serviceRn,
      event.remoteRn,
      event.requestingPluginId,
      service.name,
      false,
    );
    this.answer(event, true);
    const report = (error: unknown): void =>
      this.plugin.connection.onError(error);
    try {
      const result = service.connected(link);
      if (result instanceof Promise) result.catch(report);
    } catch (error) {
      report(error);
    }
  }
}
