import { inspect } from 'node:util';

/** The canonical status codes. */
export enum Code {
  CANCELLED = 1,
  UNKNOWN,
  INVALID_ARGUMENT,
  DEADLINE_EXCEEDED,
  NOT_FOUND,
  ALREADY_EXISTS,
  PERMISSION_DENIED,
  RESOURCE_EXHAUSTED,
  FAILED_PRECONDITION,
  ABORTED,
  OUT_OF_RANGE,
  UNIMPLEMENTED,
  INTERNAL,
  UNAVAILABLE,
  DATA_LOSS,
  UNAUTHENTICATED,
}

/**
 * A call, a stream or a connection has failed.
 *
 * `code` is for programs, `text` for people. UNKNOWN: a handler of the server failed
 * the call. UNAVAILABLE: the connection is gone; connect again, perhaps to a new
 * server process. FAILED_PRECONDITION: the two ends are incompatible, and trying
 * again does not help.
 */
export class RpcError extends Error {
  override readonly name = 'RpcError';

  constructor(
    readonly code: Code,
    readonly text: string,
  ) {
    super(`${Code[code]}: ${text}`);
  }
}

/**
 * What a handler has thrown, in a line for the other end. It can be anything, even an
 * object that throws when it is looked at.
 */
export function describe(thrown: unknown): { text: string; isFailure: boolean } {
  try {
    if (!(thrown instanceof Error)) {
      return { text: `the handler threw ${typeof thrown}`, isFailure: false };
    }
    const { message, name }: { message: unknown; name: unknown } = thrown;
    return thrown instanceof Fail || thrown instanceof RpcError
      ? { text: String(message), isFailure: true }
      : { text: `the handler threw ${String(name)}`, isFailure: false };
  } catch {
    return { text: 'the handler threw an object that cannot be read', isFailure: false };
  }
}

/** The same for the people who debug the handler. */
export function inspectThrown(thrown: unknown): string {
  try {
    return `the handler threw ${inspect(thrown)}`;
  } catch {
    return describe(thrown).text;
  }
}

/**
 * Thrown by a handler that serves calls of the server: fails the call.
 *
 * The text is for people who read the frames. The server's code learns only that
 * the call has failed.
 */
export class Fail extends Error {
  override readonly name = 'Fail';
}
