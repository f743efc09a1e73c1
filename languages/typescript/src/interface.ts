// What the modules that stpc writes are built on. Programs use those modules.

export { Side } from "./side.js";
export type { Endpoint, WaitOptions } from "./side.js";
export type { Answer, Sending, SideTable } from "./tables.js";
export { bare, element } from "./wire/kinds.js";
export type { Reader } from "./wire/reader.js";
export type { Writer } from "./wire/writer.js";
