// What the tests share.
import type { SideTable } from "#internal/tables.js";
import type { Endpoint } from "hublink/interface";
import { HublinkError } from "hublink";

export const viewOf = (bytes: Buffer): DataView =>
  new DataView(bytes.buffer, bytes.byteOffset, bytes.length);

type SideClass = new (link: Endpoint, handlers: never) => object;

/** The table of a compiled side. */
export function tableOf(side: SideClass): SideTable {
  const gone = {
    isUp: false,
    endReason: () => new HublinkError("link ended", "there is none"),
  };
  const made = new side(gone as unknown as Endpoint, {} as never);
  return Reflect.get(made, "table") as SideTable;
}
