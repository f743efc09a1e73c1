// What can go wrong, as exceptions.

/**
 * What came of something that didn't work:
 *
 * - `refused`: the provider, or the handler of a call, said no
 * - `not found`: nobody provides the service, or the plugin isn't there
 * - `provider lost`: the provider went before it answered
 * - `shared object`: the service is a library that the requester loads by itself; its name is in
 *   {@link HublinkError.sharedObjectName}
 * - `timed out`: no answer in time
 * - `disconnected`: the connection to the hub has ended
 * - `link ended`: the link has ended
 * - `not supported`: the peer doesn't take this message
 * - `too large`: the packet would have more than 256 MiB
 * - `out of range`: a value doesn't fit its field
 * - `no hub`: there is no hub, and none could be started
 * - `failed`: something else, which the message tells
 */
export type Outcome =
  | "refused"
  | "not found"
  | "provider lost"
  | "shared object"
  | "timed out"
  | "disconnected"
  | "link ended"
  | "not supported"
  | "too large"
  | "out of range"
  | "no hub"
  | "failed";

/** What every operation of this package rejects or throws with, but for an aborted one. */
export class HublinkError extends Error {
  override readonly name: string = "HublinkError";
  /** What came of it. */
  readonly outcome: Outcome;
  /** The library to load, where the outcome is `shared object`; else empty. */
  readonly sharedObjectName: string;

  constructor(outcome: Outcome, message: string, sharedObjectName = "") {
    super(message);
    this.outcome = outcome;
    this.sharedObjectName = sharedObjectName;
  }
}

/** The other side has sent bytes that are no packet. The connection has been closed. */
export class ProtocolError extends HublinkError {
  override readonly name: string = "ProtocolError";

  constructor(message: string) {
    super("failed", message);
  }
}

/** Thrown by the handler of a two-way message to refuse the call; the caller is told the text. */
export class Refused extends HublinkError {
  override readonly name: string = "Refused";

  constructor(message: string) {
    super("refused", message);
  }
}
