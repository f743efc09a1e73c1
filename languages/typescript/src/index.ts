// Plugins of a Hublink hub.
//
//   const plugin = await connectToHub();
//   await plugin.provide("Echo", (link) => link.onPacket((bytes) => link.send(bytes)));

export { connectToHub, connectToPort } from "./connect.js";
export type { HubAddress, HubChoice } from "./connect.js";
export { HublinkError, ProtocolError, Refused } from "./errors.js";
export type { Outcome } from "./errors.js";
export { Link } from "./link.js";
export type { PacketHandler, PacketOptions } from "./link.js";
export { Plugin } from "./plugin.js";
export type {
  DebugOptions,
  LaunchOptions,
  Location,
  PluginCounts,
  ProviderOptions,
  RequestOptions,
  ValueHandler,
} from "./plugin.js";
export { Service } from "./services.js";
export type { ConnectionRequest, ServiceHandlers } from "./services.js";
export type { WaitOptions } from "./side.js";
