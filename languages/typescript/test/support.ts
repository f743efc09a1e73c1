// What the tests share.
import type { SideTable } from "#internal/tables.js";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import type { TestContext } from "node:test";
import { Side, type Endpoint } from "hublink/interface";
import {
  connectToHub,
  HublinkError,
  type HubChoice,
  type Link,
  type Outcome,
  type Plugin,
} from "hublink";

export const viewOf = (bytes: Buffer): DataView =>
  new DataView(bytes.buffer, bytes.byteOffset, bytes.length);

type SideClass = new (link: Endpoint, handlers: never) => Side<object>;

/** The table of a compiled side. */
export function tableOf(side: SideClass): SideTable {
  const gone = {
    isUp: false,
    endReason: () => new HublinkError("link ended", "there is none"),
  };
  const made = new side(gone as unknown as Endpoint, {} as never);
  return Side.tableOf(made);
}

const scratch = mkdtempSync(join(tmpdir(), "hublink-test-"));
process.env["TMP"] = scratch;
process.on("exit", () => rmSync(scratch, { recursive: true, force: true }));

export const HUB =
  process.env["HUBLINK_HUB"] ??
  new URL("../../../../build/release/bin/hublink", import.meta.url).pathname;

let zones = 0;

/** Plugins of a hub of their own, which are closed when the test is over. */
export class Hub {
  readonly zone = `ts${process.pid}_${++zones}`;
  private readonly plugins: Plugin[] = [];

  constructor(context: TestContext) {
    context.after(() => Promise.all(this.plugins.map((one) => one.close())));
  }

  async plugin(options: HubChoice = {}): Promise<Plugin> {
    const choice = { argv: [], program: HUB, zone: this.zone, ...options };
    const plugin = await connectToHub(choice);
    this.plugins.push(plugin);
    return plugin;
  }

  /** A provider and a requester of a service, and what the former makes of its first link. */
  async pair<Made>(
    make: (link: Link) => Made,
  ): Promise<{ provider: Plugin; requester: Plugin; link: Link; made: Made }> {
    const provider = await this.plugin();
    const requester = await this.plugin();
    let tell!: (made: Made) => void;
    const made = new Promise<Made>((resolve) => (tell = resolve));
    await provider.provide("Pair", (link) => tell(make(link)));
    const link = await requester.request("Pair");
    return { provider, requester, link, made: await made };
  }
}

/** The outcome that a rejection has to have. */
export const fails = (outcome: Outcome) => (error: unknown) => {
  if (error instanceof HublinkError && error.outcome === outcome) return true;
  throw error;
};
