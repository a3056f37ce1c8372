// A client's connection to a server.

import { once } from 'node:events';
import { connect as connectSocket, type Socket } from 'node:net';
import process from 'node:process';
import {
  create,
  type DescMethod,
  type DescService,
  type Message,
  toBinary,
} from '@bufbuild/protobuf';
import { type CallOptions, type Client, makeClient, type StreamOptions } from './client.js';
import { Code, inspectThrown, RpcError } from './errors.js';
import { BrowserIdSchema } from './rpc/browser/browser_id_pb.js';
import { EventSubscriptionSchema } from './rpc/event_subscription_pb.js';
import {
  type Hello,
  HelloSchema,
  type Limits,
  StreamMessage_Kind as Kind,
} from './rpc/transport/stream_message_pb.js';
import {
  type AnyHandler,
  Barrier,
  callbackType,
  EventQueue,
  type Events,
  Server,
  type Serving,
  stage,
  type Stream,
} from './streams.js';
import {
  checkFit,
  encode,
  errorOf,
  type Frame,
  type FrameInit,
  FrameReader,
  helloOf,
  LEAST_MAX_FRAME_BYTES,
  MAX_ERROR_TEXT_BYTES,
  messageOf,
  parse,
} from './wire.js';

const ENOUGH_TO_WRITE_BYTES = 8 << 10;

/** How long closing waits until the server has taken what was sent. */
const CLOSE_MS = 2000;

/** A longer timer of Node.js would fire at once. */
const MAX_TIMER_MS = 2 ** 31 - 1;

/** Runs `expire` after a time of any length. Returns what prevents it. */
function startTimer(ms: number, expire: () => void): () => void {
  let timer: NodeJS.Timeout;
  const wait = (left: number): void => {
    timer =
      left > MAX_TIMER_MS
        ? setTimeout(wait, MAX_TIMER_MS, left - MAX_TIMER_MS)
        : setTimeout(expire, left);
  };
  wait(ms);
  return () => {
    clearTimeout(timer);
  };
}

export interface Options {
  /** The longest frame that is sent or accepted; by default 4 MiB. */
  maxFrameBytes?: number;
  /**
   * Once this many bytes wait for the server to read them, calls and answers fail
   * with RESOURCE_EXHAUSTED; by default 64 MiB.
   */
  maxQueuedBytes?: number;
  /**
   * Bytes of one stream's events that have arrived but have not been read; by default
   * 16 MiB. Each counts 512 bytes more than its message.
   */
  maxUnreadEventBytes?: number;
  /** Calls that one handler may serve at the same time; more fail. By default 1024. */
  maxServedCalls?: number;
  /**
   * Called with errors of handlers other than Fail; by default a process warning. It
   * must not throw.
   */
  onHandlerError?: (error: unknown) => void;
}

/** The default path of a server's socket. */
export function defaultSocketPath(name = 'widget'): string {
  const runtime = process.env['XDG_RUNTIME_DIR'];
  const folder = runtime ? `${runtime}/orvane` : `/tmp/orvane-${process.geteuid?.() ?? 0}`;
  return `${folder}/${name}.sock`;
}

/**
 * Connects to the server at a path, by default the browser widget's, or over a
 * connected socket. Rejects with RpcError: UNAVAILABLE if no server listens there,
 * INVALID_ARGUMENT if no socket can have that path.
 */
export async function connect(
  to: string | Socket = defaultSocketPath(),
  options: Options = {},
): Promise<Connection> {
  if (typeof to !== 'string') return new Connection(to, options);
  if (to === '' || to.includes('\0')) {
    throw new RpcError(Code.INVALID_ARGUMENT, `${JSON.stringify(to)} is not the path of a socket`);
  }
  const socket = connectSocket({ path: to });
  try {
    await once(socket, 'connect');
  } catch (error) {
    throw new RpcError(Code.UNAVAILABLE, (error as Error).message);
  }
  return new Connection(socket, options);
}

interface PendingCall {
  method: DescMethod;
  resolve: (response: Message) => void;
  reject: (error: unknown) => void;
}

/**
 * Calls one service at the other end of a Unix-domain socket.
 *
 * Calls and messages reach the server in the order in which they are sent; answers
 * arrive in any order. When the connection ends, everything in progress ends with the
 * same RpcError, `error`, and so do later calls and streams. A connection does not
 * reconnect, since it might reach a new server process.
 */
export class Connection {
  /** Undefined while the connection exists. */
  error: RpcError | undefined;
  /** Resolves when the connection has ended, to the reason. */
  readonly closed: Promise<RpcError>;

  readonly onHandlerError: (error: unknown) => void;
  readonly #socket: Socket;
  readonly #options: Required<Omit<Options, 'onHandlerError'>>;
  readonly #reader: FrameReader;
  readonly #calls = new Map<number, PendingCall>();
  readonly #streams = new Map<number, Stream>();
  readonly #aborts = new Map<AbortSignal, { all: Set<() => void>; run: () => void }>();
  #service: DescService | undefined;
  #indexOf = new Map<DescMethod, number>(); // Of its methods.
  #hello: Hello | undefined; // Of this end.
  #server: Hello | undefined; // Of the server, once it has arrived.
  #maxSentFrameBytes: number;
  #lastId = 0;
  #unsent: Buffer[] = []; // Until #flush.
  #unsentBytes = 0;
  #tellClosed!: (reason: RpcError) => void;

  constructor(socket: Socket, options: Options) {
    this.#socket = socket;
    this.#options = {
      maxFrameBytes: options.maxFrameBytes ?? 4 << 20,
      maxQueuedBytes: options.maxQueuedBytes ?? 64 << 20,
      maxUnreadEventBytes: options.maxUnreadEventBytes ?? 16 << 20,
      maxServedCalls: options.maxServedCalls ?? 1024,
    };
    this.onHandlerError =
      options.onHandlerError ??
      ((error) => {
        process.emitWarning(inspectThrown(error));
      });
    this.#maxSentFrameBytes = this.#options.maxFrameBytes;
    this.#reader = new FrameReader(this.#options.maxFrameBytes);
    this.closed = new Promise((resolve) => (this.#tellClosed = resolve));
    socket.on('data', (chunk: Buffer) => {
      this.#received(chunk);
    });
    socket.on('error', (error) => {
      this.#end(new RpcError(Code.UNAVAILABLE, `the connection broke: ${error.message}`));
    });
    socket.on('close', () => {
      this.#end(new RpcError(Code.UNAVAILABLE, 'the server closed the connection'));
    });
  }

  /**
   * What the server takes from this client; the proto documents the fields. Known from
   * the first answer on, such as that of `settle`. Undefined before, and if the server
   * does not tell. Once it is known, what is longer than the server's longest frame
   * fails with RESOURCE_EXHAUSTED. Until then it ends the connection.
   */
  get serverLimits(): Limits | undefined {
    return this.#server?.limits;
  }

  /** The typed client of the service that this connection is for. */
  client<S extends DescService>(service: S): Client<S> {
    return makeClient(this, service);
  }

  /** Ends everything in progress with CANCELLED, and the connection. */
  async close(): Promise<void> {
    this.#flush();
    this.#end(new RpcError(Code.CANCELLED, 'the connection was closed'));
    if (this.#socket.closed) return;
    const timer = setTimeout(() => this.#socket.destroy(), CLOSE_MS);
    const gone = new Promise((resolve) => this.#socket.once('close', resolve));
    this.#socket.resume();
    this.#socket.end();
    this.#socket.destroySoon();
    await gone;
    clearTimeout(timer);
  }

  /** Sends the hello; from now on the connection is for this service. */
  use(service: DescService): void {
    if (this.#service?.typeName === service.typeName) return;
    if (this.#service !== undefined) {
      throw new RpcError(
        Code.INVALID_ARGUMENT,
        `a connection for ${this.#service.typeName} is used for ${service.typeName}`,
      );
    }
    if (this.error !== undefined) throw this.error;
    this.#service = service;
    this.#indexOf = new Map(service.methods.map((method, index) => [method, index]));
    this.#hello = helloOf(service);
    this.#write({ kind: Kind.HELLO, payload: toBinary(HelloSchema, this.#hello) });
  }

  /** Calls a unary method. Errors reject the promise and are never thrown. */
  call(method: DescMethod, request: object, options: CallOptions = {}): Promise<Message> {
    const { signal, timeoutMs } = options;
    return new Promise((resolve, reject) => {
      signal?.throwIfAborted();
      const message = messageOf(method.input, request, `${method.name} takes`);
      if (Number.isNaN(timeoutMs)) throw new RangeError('timeoutMs is not a number');
      if (timeoutMs !== undefined && timeoutMs <= 0) {
        throw new RpcError(Code.DEADLINE_EXCEEDED, "the call's timeout is not above 0");
      }
      const id = this.#begin(Kind.CALL, method, toBinary(method.input, message));
      const call: PendingCall = { method, resolve, reject };
      this.#calls.set(id, call);
      if (signal === undefined && timeoutMs === undefined) return;

      const giveUp = (why: unknown): void => {
        if (!this.#calls.delete(id)) return;
        this.#write({ kind: Kind.CANCEL, streamId: id });
        call.reject(why);
      };
      const stopTimer =
        timeoutMs === undefined
          ? undefined
          : startTimer(timeoutMs, () => {
              giveUp(new RpcError(Code.DEADLINE_EXCEEDED, `no answer within ${timeoutMs} ms`));
            });
      const stopListening =
        signal &&
        this.onAbort(signal, () => {
          giveUp(signal.reason);
        });
      const cleanUp = (): void => {
        stopTimer?.();
        stopListening?.();
      };
      call.resolve = (response) => {
        cleanUp();
        resolve(response);
      };
      call.reject = (error) => {
        cleanUp();
        // eslint-disable-next-line @typescript-eslint/prefer-promise-reject-errors -- a signal's reason may be anything
        reject(error);
      };
    });
  }

  /** Subscribes to the events of a key, at once. */
  watch(method: DescMethod, key: object, options: StreamOptions = {}): Events<Message> {
    const queue = new EventQueue(this, method, this.#options.maxUnreadEventBytes);
    const subscription = create(EventSubscriptionSchema, {
      action: { case: 'subscribe', value: messageOf(BrowserIdSchema, key, `${method.name} takes`) },
    });
    this.#open(queue, toBinary(EventSubscriptionSchema, subscription), options);
    return queue;
  }

  /** Makes this client the one that serves a key, at once. */
  serve(method: DescMethod, key: object, handler: AnyHandler, options: StreamOptions = {}): Serving {
    const type = callbackType(method.output);
    const server = new Server(this, type, method, handler, this.#options.maxServedCalls);
    const id = messageOf(type.key.message, key, `${method.name} takes`);
    this.#open(server, stage(type, id, { case: 'subscribe', value: true }), options);
    return server;
  }

  /** Resolves when the server has handled everything that was sent so far. */
  async settle(): Promise<void> {
    const method = this.#service?.methods.find((each) => each.methodKind !== 'unary');
    if (method === undefined) {
      throw new RpcError(Code.UNIMPLEMENTED, 'without a stream method nothing tells that');
    }
    const barrier = new Barrier(this, method);
    this.#open(barrier, undefined, {});
    this.#write({ kind: Kind.COMPLETE, streamId: barrier.streamId });
    await barrier.ended;
  }

  // For streams ----------------------------------------------------------------

  sendNext(stream: Stream, payload: Uint8Array, callId = 0n): void {
    this.#send({ kind: Kind.NEXT, streamId: stream.streamId, callId, payload });
  }

  sendFailure(stream: Stream, payload: Uint8Array, callId: bigint, text: string): void {
    this.#write({
      kind: Kind.ERROR,
      streamId: stream.streamId,
      callId,
      errorCode: Code.UNKNOWN,
      errorText: Buffer.from(text).subarray(0, MAX_ERROR_TEXT_BYTES),
      payload,
    });
  }

  /** Removes a stream and tells the server that it has ended. */
  complete(stream: Stream): void {
    this.#streams.delete(stream.streamId);
    this.#write({ kind: Kind.COMPLETE, streamId: stream.streamId });
  }

  /**
   * Runs `then` when the signal is aborted. Returns what prevents it. A signal has one
   * listener for all, since Node.js warns of more than ten.
   */
  onAbort(signal: AbortSignal, then: () => void): () => void {
    let listener = this.#aborts.get(signal);
    if (listener === undefined) {
      const all = new Set<() => void>();
      const run = (): void => {
        for (const each of [...all]) each();
      };
      listener = { all, run };
      this.#aborts.set(signal, listener);
      signal.addEventListener('abort', run);
    }
    const { all, run } = listener;
    all.add(then);
    return () => {
      if (!all.delete(then) || all.size > 0) return;
      signal.removeEventListener('abort', run);
      this.#aborts.delete(signal);
    };
  }

  // ------------------------------------------------------------------------------

  #open(stream: Stream, subscription: Uint8Array | undefined, { signal }: StreamOptions): void {
    if (signal?.aborted) {
      stream.end(signal.reason);
      return;
    }
    stream.streamId = this.#begin(Kind.OPEN, stream.method, undefined);
    this.#streams.set(stream.streamId, stream);
    if (signal !== undefined) stream.closeOnAbort(signal);
    if (subscription === undefined) return;
    try {
      this.sendNext(stream, subscription);
    } catch (error) {
      stream.close();
      throw error;
    }
  }

  #begin(kind: Kind, method: DescMethod, payload: Uint8Array | undefined): number {
    if (this.error !== undefined) throw this.error;
    this.use(method.parent);
    const streamId = ++this.#lastId;
    const index = this.#indexOf.get(method) ?? 0;
    this.#send({ kind, streamId, method: index, ...(payload && { payload }) });
    return streamId;
  }

  /** Like #write, but checks the limits. */
  #send(frame: FrameInit): void {
    if (this.error !== undefined) return;
    const bytes = encode(frame);
    const length = bytes.length - 4;
    if (length > this.#maxSentFrameBytes) {
      throw new RpcError(
        Code.RESOURCE_EXHAUSTED,
        `frame of ${length} bytes; the limit is ${this.#maxSentFrameBytes}`,
      );
    }
    const waiting = this.#socket.writableLength + this.#unsentBytes;
    if (waiting + length > this.#options.maxQueuedBytes) {
      throw new RpcError(
        Code.RESOURCE_EXHAUSTED,
        `${waiting} bytes wait for the server to read them; ` +
          `the limit is ${this.#options.maxQueuedBytes}`,
      );
    }
    this.#queue(bytes);
  }

  #write(frame: FrameInit): void {
    if (this.error === undefined) this.#queue(encode(frame));
  }

  /** What is sent in one turn of the event loop leaves together, or as soon as it is some KiB. */
  #queue(frame: Buffer): void {
    if (this.#unsent.length === 0) {
      process.nextTick(() => {
        this.#flush();
      });
    }
    this.#unsent.push(frame);
    this.#unsentBytes += frame.length;
    if (this.#unsentBytes >= ENOUGH_TO_WRITE_BYTES) this.#flush();
  }

  #flush(): void {
    const [only] = this.#unsent;
    if (only === undefined) return;
    this.#socket.write(this.#unsent.length === 1 ? only : Buffer.concat(this.#unsent));
    this.#unsent = [];
    this.#unsentBytes = 0;
  }

  #received(chunk: Buffer): void {
    try {
      for (const frame of this.#reader.feed(chunk)) {
        if (this.error !== undefined) return;
        this.#take(frame);
      }
    } catch (error) {
      if (!(error instanceof RpcError)) throw error;
      this.#end(error);
      this.#socket.destroy();
    }
  }

  /** RpcError ends the connection. */
  #take(frame: Frame): void {
    const { kind, streamId } = frame;
    if (kind === Kind.ERROR && streamId === 0) {
      throw new RpcError(
        Code.UNAVAILABLE,
        `the server ended the connection: ${errorOf(frame).text}`,
      );
    }
    if (this.#hello === undefined || (kind === Kind.HELLO) !== (this.#server === undefined)) {
      throw new RpcError(
        Code.UNAVAILABLE,
        "the server's first frame, and no other, must be a hello",
      );
    }
    switch (kind) {
      case Kind.HELLO:
        this.#server = parse(HelloSchema, frame.payload, Code.UNAVAILABLE, "the server's hello");
        checkFit(this.#hello, this.#server);
        this.#maxSentFrameBytes = Math.min(
          this.#options.maxFrameBytes,
          Math.max(this.#server.limits?.maxFrameBytes ?? Infinity, LEAST_MAX_FRAME_BYTES),
        );
        return;
      case Kind.REPLY:
        this.#endCall(frame);
        return;
      case Kind.NEXT:
        this.#streams.get(streamId)?.onNext(frame); // The stream may have ended meanwhile.
        return;
      case Kind.CANCEL: {
        const stream = this.#streams.get(streamId);
        if (stream instanceof Server) stream.onCancel(frame.callId);
        return;
      }
      case Kind.COMPLETE:
        this.#endStream(streamId);
        return;
      case Kind.ERROR:
        if (this.#calls.has(streamId)) this.#endCall(frame);
        else this.#endStream(streamId, errorOf(frame));
        return;
      case Kind.PING:
        // What the server has not read yet says as much.
        if (this.#socket.writableLength === 0) this.#write({ kind: Kind.PONG });
        return;
      case Kind.PONG:
        return;
      default:
        throw new RpcError(Code.UNAVAILABLE, `the server sent a frame of kind ${kind}`);
    }
  }

  #endCall(frame: Frame): void {
    const call = this.#calls.get(frame.streamId);
    if (call === undefined) return; // Cancelled while the answer was on its way.
    this.#calls.delete(frame.streamId);
    if (frame.kind === Kind.ERROR) {
      call.reject(errorOf(frame));
      return;
    }
    try {
      call.resolve(parse(call.method.output, frame.payload, Code.INTERNAL, 'the response'));
    } catch (error) {
      call.reject(error);
    }
  }

  #endStream(streamId: number, reason?: RpcError): void {
    const stream = this.#streams.get(streamId);
    this.#streams.delete(streamId);
    stream?.end(reason);
  }

  #end(error: RpcError): void {
    if (this.error !== undefined) return;
    this.error = error;
    const calls = [...this.#calls.values()];
    const streams = [...this.#streams.values()];
    this.#calls.clear();
    this.#streams.clear();
    for (const call of calls) call.reject(error);
    for (const stream of streams) stream.end(error);
    this.#tellClosed(error);
  }
}
