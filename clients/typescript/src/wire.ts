// Frames, their bytes, and the hello of each end.

import {
  create,
  type DescMessage,
  type DescMethod,
  type DescService,
  fromBinary,
  type MessageInitShape,
  type MessageShape,
  toBinary,
} from '@bufbuild/protobuf';
import { Code, RpcError } from './errors.js';
import {
  type Hello,
  HelloSchema,
  type StreamMessage,
  StreamMessageSchema,
} from './rpc/transport/stream_message_pb.js';

const PROTOCOL = 1;
const LENGTH_BYTES = 4;

export type FrameInit = MessageInitShape<typeof StreamMessageSchema>;

/** The bytes of a frame, with its length in front. */
export function encode(frame: FrameInit): Buffer {
  const content = toBinary(StreamMessageSchema, create(StreamMessageSchema, frame));
  const bytes = Buffer.allocUnsafe(LENGTH_BYTES + content.length);
  bytes.writeUInt32LE(content.length);
  bytes.set(content, LENGTH_BYTES);
  return bytes;
}

/** Finds the frames in the received bytes, however these are split. */
export class FrameReader {
  #chunks: Buffer[] = [];
  #size = 0;
  #needed = LENGTH_BYTES; // Below this size there is no new frame.

  constructor(readonly maxFrameBytes: number) {}

  /** Yields the complete frames. RpcError: the rest cannot be parsed. */
  *feed(chunk: Buffer): Generator<StreamMessage> {
    this.#chunks.push(chunk);
    this.#size += chunk.length;
    if (this.#size < this.#needed) return;
    let rest = this.#chunks.length === 1 ? chunk : Buffer.concat(this.#chunks);
    this.#needed = LENGTH_BYTES;
    while (rest.length >= LENGTH_BYTES) {
      const length = rest.readUInt32LE();
      if (length > this.maxFrameBytes) {
        throw new RpcError(
          Code.UNAVAILABLE,
          `the connection broke: frame of ${length} bytes; the limit is ${this.maxFrameBytes}`,
        );
      }
      const end = LENGTH_BYTES + length;
      if (rest.length < end) {
        this.#needed = end;
        break;
      }
      const content = rest.subarray(LENGTH_BYTES, end);
      rest = rest.subarray(end);
      yield parse(StreamMessageSchema, content, Code.UNAVAILABLE, 'the connection broke: a frame');
    }
    this.#chunks = [rest];
    this.#size = rest.length;
  }
}

/** RpcError of this code if the payload cannot be parsed as that message. */
export function parse<T extends DescMessage>(
  schema: T,
  payload: Uint8Array,
  code: Code,
  what: string,
): MessageShape<T> {
  try {
    return fromBinary(schema, payload);
  } catch {
    throw new RpcError(code, `${what} cannot be parsed as ${schema.typeName}`);
  }
}

function lineOf(method: DescMethod): string {
  const stream = method.methodKind === 'unary' ? '' : 'stream ';
  return `${method.name}(${stream}${method.input.typeName}) returns (${stream}${method.output.typeName})\n`;
}

/** What an end tells about itself. */
export function helloOf(service: DescService): Hello {
  const methods: bigint[] = [];
  let hash = 0xcbf29ce484222325n; // 64-bit FNV-1a.
  for (const method of service.methods) {
    for (const byte of Buffer.from(lineOf(method))) {
      hash = BigInt.asUintN(64, (hash ^ BigInt(byte)) * 0x100000001b3n);
    }
    methods.push(hash);
  }
  return create(HelloSchema, {
    oldestProtocol: PROTOCOL,
    newestProtocol: PROTOCOL,
    service: service.typeName,
    methods,
  });
}

function inWords(hello: Hello): string {
  const last = hello.methods.at(-1);
  return (
    `protocols ${hello.oldestProtocol} to ${hello.newestProtocol} and ${hello.service} ` +
    `with ${hello.methods.length} methods` +
    (last === undefined ? '' : ` (${last.toString(16).padStart(16, '0')})`)
  );
}

function difference(host: Hello, widget: Hello): string | undefined {
  const spoken = Math.min(host.newestProtocol, widget.newestProtocol);
  if (spoken < Math.max(host.oldestProtocol, widget.oldestProtocol)) return 'protocol';
  if (host.service !== widget.service) return 'service';
  const shared = Math.min(host.methods.length, widget.methods.length);
  for (let i = 0; i < shared; ++i) {
    if (host.methods[i] !== widget.methods[i]) return `method ${i}`;
  }
  return undefined;
}

/** RpcError if the two ends cannot work together. */
export function checkFit(host: Hello, widget: Hello): void {
  const where = difference(host, widget);
  if (where === undefined) return;
  throw new RpcError(
    Code.FAILED_PRECONDITION,
    `client and server are incompatible: they differ in ${where}; ` +
      `the client speaks ${inWords(host)}, the server ${inWords(widget)}`,
  );
}

const CODES = new Map<number, Code>(
  Object.values(Code)
    .filter((each) => typeof each === 'number')
    .map((code) => [code, code]),
);

/** The error that an ERROR frame describes. Its text need not be UTF-8. */
export function errorOf(frame: StreamMessage): RpcError {
  return new RpcError(CODES.get(frame.errorCode) ?? Code.UNKNOWN, Buffer.from(frame.errorText).toString());
}
