// The client's side of streams.

import {
  create,
  type DescField,
  type DescMessage,
  type DescMethod,
  getOption,
  type Message,
  toBinary,
} from '@bufbuild/protobuf';
import type { Connection } from './connection.js';
import { Code, describe, Fail, RpcError } from './errors.js';
import { slow_host, SlowHost } from './rpc/stream_options_pb.js';
import { type Frame, messageOf, parse } from './wire.js';

// About how many bytes an unread event takes in addition to its payload: an array of
// bytes costs this much even if it is empty.
const EVENT_OVERHEAD_BYTES = 512;

/** An open stream, as its connection sees it. */
export abstract class Stream {
  streamId = 0; // Given by the connection.
  isOpen = true;
  reason: unknown; // Set if it ended with an error; a signal's may be anything.
  #stopListening: (() => void) | undefined;

  constructor(
    readonly connection: Connection,
    readonly method: DescMethod,
  ) {}

  abstract onNext(frame: Frame): void;
  abstract onEnd(): void;

  /** The stream has ended at the other end, or was never begun. */
  end(reason?: unknown): void {
    if (!this.isOpen) return;
    this.isOpen = false;
    this.reason = reason;
    this.#stopListening?.();
    this.onEnd();
  }

  /** Ends it and tells the server. Does nothing if it has ended before. */
  close(reason?: unknown): void {
    if (!this.isOpen) return;
    this.connection.complete(this);
    this.end(reason);
  }

  /** From now on, aborting the signal ends it with the signal's reason. */
  closeOnAbort(signal: AbortSignal): void {
    this.#stopListening = this.connection.onAbort(signal, () => {
      this.close(signal.reason);
    });
  }
}

/**
 * The events of one key, beginning with the call that returned this.
 *
 * The iteration ends when the server completes the stream. If the stream ends in
 * another way, also because too many events were not read
 * (`Options.maxUnreadEventBytes`), it first returns the events that arrived before
 * and then throws RpcError. For a method with SLOW_HOST_KEEP_LATEST the oldest event
 * is dropped instead.
 *
 * The stream is open until `close`, until an iteration is left, or until the
 * signal with which it was opened is aborted; then the iteration throws its reason.
 *
 * There is one reader. While its `next` waits, another `next` rejects.
 */
export interface Events<Event> extends AsyncIterableIterator<Event> {
  /** Ends the stream, if it is open. Unread events can still be read. */
  close(): void;
}

interface Reader {
  resolve: (result: IteratorResult<Message, undefined>) => void;
  reject: (reason: unknown) => void;
}

export class EventQueue extends Stream implements Events<Message> {
  #payloads: Uint8Array[] = [];
  #taken = 0; // So many of them have been read.
  #bytes = 0;
  // Waits for the next event; set only while nothing is queued.
  #reader: Reader | undefined;
  readonly #keepsLatest: boolean;

  constructor(
    connection: Connection,
    method: DescMethod,
    readonly maxBytes: number,
  ) {
    super(connection, method);
    this.#keepsLatest = getOption(method, slow_host) === SlowHost.KEEP_LATEST;
  }

  override onNext(frame: Frame): void {
    if (this.#reader !== undefined) {
      this.#hand(this.#reader, frame.payload);
      return;
    }
    // A copy of its own, since what has arrived with it need not be kept.
    this.#payloads.push(new Uint8Array(frame.payload));
    this.#bytes += frame.payload.length + EVENT_OVERHEAD_BYTES;
    if (this.#bytes <= this.maxBytes) return;
    if (this.#keepsLatest) {
      this.#take();
      return;
    }
    this.#payloads.pop();
    this.close(
      new RpcError(
        Code.RESOURCE_EXHAUSTED,
        `more events of ${this.method.name} came than were read; the limit is ${this.maxBytes} bytes`,
      ),
    );
  }

  override onEnd(): void {
    this.#deliver();
  }

  /** Returns a queued event at once, so that events keep their order. */
  next(): Promise<IteratorResult<Message, undefined>> {
    if (this.#reader !== undefined) {
      return Promise.reject(new Error(`two readers wait for events of ${this.method.name}`));
    }
    return new Promise((resolve, reject) => {
      this.#reader = { resolve, reject };
      this.#deliver();
    });
  }

  #deliver(): void {
    const reader = this.#reader;
    if (reader === undefined) return;
    const payload = this.#take();
    if (payload !== undefined) {
      this.#hand(reader, payload);
    } else if (!this.isOpen) {
      this.#reader = undefined;
      if (this.reason !== undefined) reader.reject(this.reason);
      else reader.resolve({ done: true, value: undefined });
    }
  }

  #hand(reader: Reader, payload: Uint8Array): void {
    this.#reader = undefined;
    try {
      const value = parse(this.method.output, payload, Code.INTERNAL, 'an event');
      reader.resolve({ done: false, value });
    } catch (error) {
      this.close(error);
      reader.reject(error);
    }
  }

  #take(): Uint8Array | undefined {
    const payload = this.#payloads[this.#taken];
    if (payload === undefined) return undefined;
    this.#bytes -= payload.length + EVENT_OVERHEAD_BYTES;
    // What has been taken is dropped when it is half of all: shifting a long array
    // each time would move all of it.
    if (++this.#taken * 2 >= this.#payloads.length) {
      this.#payloads = this.#payloads.slice(this.#taken);
      this.#taken = 0;
    }
    return payload;
  }

  return(): Promise<IteratorResult<Message, undefined>> {
    this.close();
    return Promise.resolve({ done: true, value: undefined });
  }

  [Symbol.asyncIterator](): this {
    return this;
  }
}

/** This client serves a key, until `close`. Then its handlers' signals are aborted. */
export interface Serving {
  /** Stops serving. Does nothing if the stream has ended before. */
  close(): void;
  /**
   * Settles when the stream has ended. Rejects with RpcError if it failed, and with its
   * signal's reason if that was aborted.
   */
  readonly ended: Promise<void>;
}

export type AnyHandler = (call: Message, context: { signal: AbortSignal }) => unknown;

/** The parts of a callback stream's messages. */
export interface CallbackType {
  message: DescMessage;
  key: MessageField;
  call: MessageField;
  response: MessageField;
}

type MessageField = DescField & { message: DescMessage };

export function callbackType(message: DescMessage): CallbackType {
  const field = (name: string): MessageField => {
    const found = message.fields.find((each) => each.name === name);
    if (!found?.message) throw new TypeError(`${message.typeName} has no message ${name}`);
    return found;
  };
  return {
    message,
    key: field('browser_id'),
    call: field('call'),
    response: field('response'),
  };
}

/** A message of the type with its key and one member of its oneof. */
export function stage(
  type: CallbackType,
  key: unknown,
  member?: { case: string; value: unknown },
): Uint8Array {
  const oneof = type.call.oneof?.localName ?? '';
  const init = { [type.key.localName]: key, ...(member && { [oneof]: member }) };
  return toBinary(type.message, create(type.message, init));
}

export class Server extends Stream implements Serving {
  readonly ended: Promise<void>;
  #settle!: (reason: unknown) => void;
  readonly #calls = new Map<bigint, AbortController>(); // Those without an answer.

  constructor(
    connection: Connection,
    readonly type: CallbackType,
    method: DescMethod,
    readonly handler: AnyHandler,
    readonly maxCalls: number,
  ) {
    super(connection, method);
    this.ended = new Promise((resolve, reject) => {
      this.#settle = (reason) => {
        if (reason === undefined) resolve();
        // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- a signal's reason may be anything
        else reject(reason);
      };
    });
    this.ended.catch(() => undefined); // Not an unhandled rejection if nobody asks.
  }

  override onNext(frame: Frame): void {
    let message: Message & Partial<Record<string, unknown>>;
    try {
      message = parse(this.type.message, frame.payload, Code.INTERNAL, 'a call');
    } catch (error) {
      this.close(error);
      return;
    }
    const key = message[this.type.key.localName];
    const member = message[this.type.call.oneof?.localName ?? ''] as
      | { case?: string; value?: unknown }
      | undefined;
    if (member?.case !== this.type.call.localName) {
      this.close(new RpcError(Code.INTERNAL, 'the server sent a message without a call'));
    } else if (this.#calls.has(frame.callId)) {
      const text = `the server sent call ${frame.callId} again before it was answered`;
      this.close(new RpcError(Code.INTERNAL, text));
    } else if (this.#calls.size >= this.maxCalls) {
      this.#fail(key, frame.callId, `the client serves ${this.#calls.size} calls already`);
    } else {
      void this.#serve(key, frame.callId, member.value as Message);
    }
  }

  /** The server does not wait for the answer to a call any longer. */
  onCancel(callId: bigint): void {
    this.#calls.get(callId)?.abort(new Fail('the server has given the call up'));
  }

  override onEnd(): void {
    for (const call of this.#calls.values()) call.abort(new Fail('the stream has ended'));
    this.#settle(this.reason);
  }

  async #serve(key: unknown, callId: bigint, call: Message): Promise<void> {
    const left = new AbortController();
    this.#calls.set(callId, left);
    try {
      const value = messageOf(
        this.type.response.message,
        await this.handler(call, { signal: left.signal }),
        `the handler of ${this.method.name} must return`,
      );
      const answer = { case: this.type.response.localName, value };
      if (!left.signal.aborted) {
        this.connection.sendNext(this, stage(this.type, key, answer), callId);
      }
    } catch (error) {
      const { text, isFailure } = describe(error);
      if (!left.signal.aborted) this.#fail(key, callId, text);
      if (!isFailure) this.connection.onHandlerError(error);
    } finally {
      this.#calls.delete(callId);
    }
  }

  #fail(key: unknown, callId: bigint, text: string): void {
    if (this.isOpen) this.connection.sendFailure(this, stage(this.type, key), callId, text);
  }
}

/** A stream that is opened only to learn when it has ended. */
export class Barrier extends Stream {
  readonly ended: Promise<void>;
  #settle!: () => void;

  constructor(connection: Connection, method: DescMethod) {
    super(connection, method);
    this.ended = new Promise((resolve, reject) => {
      this.#settle = () => {
        if (this.reason === undefined) resolve();
        // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- as it ended
        else reject(this.reason);
      };
    });
  }

  override onNext(): void {
    // Not called: the stream has no subscription.
  }

  override onEnd(): void {
    this.#settle();
  }
}
