// This end of the connection to the hub itself, on which the hub's interface is spoken.

import type { Connection, Receiver } from "./connection.js";
import { HublinkError } from "./errors.js";
import type { Endpoint, SideBase } from "./side.js";
import { HUB_RN, PLUGIN_RN } from "./wire/format.js";
import type { Incoming } from "./wire/incoming.js";

export class HubEndpoint implements Endpoint, Receiver {
  readonly localRn = PLUGIN_RN;
  readonly remoteRn = HUB_RN;
  // Its handlers are the library's own, and wait for nothing.
  readonly keepsChains = false;
  private side: SideBase | undefined;
  private reason: HublinkError | undefined;

  constructor(readonly connection: Connection) {
    connection.add(this.localRn, this.remoteRn, this);
  }

  get isUp(): boolean {
    return this.reason === undefined;
  }

  attach(side: SideBase): void {
    this.side = side;
  }

  packetCame(packet: Incoming): void {
    this.side?.packetCame(packet);
  }

  endReason(): HublinkError {
    return (
      this.reason ??
      new HublinkError("disconnected", "there is no connection to the hub")
    );
  }

  end(reason: HublinkError): void {
    this.reason = reason;
    this.side?.ended(reason);
  }
}
