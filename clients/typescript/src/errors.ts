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
 * `code` tells programs why, `text` people. UNKNOWN: a handler of the widget failed
 * the call. UNAVAILABLE: the connection is gone; connect again, to what may be
 * another widget. FAILED_PRECONDITION: the two ends do not fit, which no later try
 * will mend.
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
 * Thrown by a handler that serves calls of the widget: fails the call.
 *
 * The text is for people who read the frames. The widget's code learns only that
 * the call has failed.
 */
export class Fail extends Error {
  override readonly name = 'Fail';
}
