// Frames, their bytes, and the hello of each end.

import {
  create,
  type DescMessage,
  type DescMethod,
  type DescService,
  fromBinary,
  isMessage,
  type MessageInitShape,
  type MessageShape,
  toBinary,
} from '@bufbuild/protobuf';
import { Code, RpcError } from './errors.js';
import {
  type Hello,
  HelloSchema,
  StreamMessage_Kind as Kind,
  StreamMessageSchema,
} from './rpc/transport/stream_message_pb.js';

/** Every server takes frames of this length. */
export const LEAST_MAX_FRAME_BYTES = 4 << 10;
/** Words for people need no more, and so always fit a frame. */
export const MAX_ERROR_TEXT_BYTES = 2048;

const OLDEST_PROTOCOL = 1;
const NEWEST_PROTOCOL = 2;
const LENGTH_BYTES = 4;

/** A StreamMessage, with what it lacks as 0 or empty. */
export interface Frame {
  kind: Kind;
  /** Ids count up from 1, and stay far below what a number holds exactly. */
  streamId: number;
  callId: bigint;
  errorCode: number;
  errorText: Uint8Array;
  payload: Uint8Array;
}

export interface FrameInit extends Partial<Frame> {
  kind: Kind;
  method?: number;
}

const NOTHING = new Uint8Array();

// The tags of what frames are made of, hardly ever more than that.
enum Tag {
  KIND = 0x08,
  STREAM_ID = 0x10,
  METHOD = 0x18,
  CALL_ID = 0x20,
  PAYLOAD = 0x7a,
}

// Numbers below this are read and written by hand.
const MAX_NUMBER = 2 ** 49;
const MAX_NUMBER_BYTES = 7;

// Holds the numbers of a frame, and the tag and length of its payload.
const header = Buffer.alloc(LENGTH_BYTES + 5 * (1 + MAX_NUMBER_BYTES));

function putNumber(tag: Tag, number: number, at: number): number {
  header[at++] = tag;
  while (number >= 0x80) {
    header[at++] = (number % 0x80) | 0x80;
    number = Math.floor(number / 0x80);
  }
  header[at++] = number;
  return at;
}

/**
 * The frame behind its length. By hand where it has just numbers and a payload, since
 * that takes a fraction of the time.
 */
export function encode(frame: FrameInit): Buffer {
  const { kind, streamId = 0, method = 0, callId = 0n, payload = NOTHING } = frame;
  if (frame.errorCode || frame.errorText || callId < 0n || callId >= MAX_NUMBER) return encodeAny(frame);
  let size = putNumber(Tag.KIND, kind, LENGTH_BYTES);
  if (streamId !== 0) size = putNumber(Tag.STREAM_ID, streamId, size);
  if (method !== 0) size = putNumber(Tag.METHOD, method, size);
  if (callId !== 0n) size = putNumber(Tag.CALL_ID, Number(callId), size);
  if (payload.length !== 0) size = putNumber(Tag.PAYLOAD, payload.length, size);
  header.writeUInt32LE(size - LENGTH_BYTES + payload.length);
  const bytes = Buffer.allocUnsafe(size + payload.length);
  header.copy(bytes, 0, 0, size);
  bytes.set(payload, size);
  return bytes;
}

function encodeAny(frame: FrameInit): Buffer {
  const message = create(StreamMessageSchema, { ...frame, streamId: BigInt(frame.streamId ?? 0) });
  const content = toBinary(StreamMessageSchema, message);
  const bytes = Buffer.allocUnsafe(LENGTH_BYTES + content.length);
  bytes.writeUInt32LE(content.length);
  bytes.set(content, LENGTH_BYTES);
  return bytes;
}

/** RpcError if the bytes are no StreamMessage. */
function decode(content: Buffer): Frame {
  const usual = decodeUsual(content);
  if (usual !== undefined) return usual;
  const message = parse(StreamMessageSchema, content, Code.UNAVAILABLE, 'the connection broke: a frame');
  return { ...message, streamId: Number(message.streamId) };
}

// A frame of small numbers and then, perhaps, a payload, which nearly all are.
// Undefined for any other, good or bad.
function decodeUsual(content: Buffer): Frame | undefined {
  const frame: Frame = {
    kind: Kind.UNSPECIFIED,
    streamId: 0,
    callId: 0n,
    errorCode: 0,
    errorText: NOTHING,
    payload: NOTHING,
  };
  const end = content.length;
  let at = 0;
  while (at < end) {
    const tag = content[at++];
    let number = 0;
    let scale = 1;
    let byte: number | undefined;
    do {
      byte = content[at++];
      if (byte === undefined || scale === MAX_NUMBER) return undefined;
      number += (byte & 0x7f) * scale;
      scale *= 0x80;
    } while (byte >= 0x80);
    // eslint-disable-next-line @typescript-eslint/no-unsafe-enum-assignment -- unknown ones are refused later
    if (tag === Tag.KIND && number < 0x80) frame.kind = number;
    else if (tag === Tag.STREAM_ID) frame.streamId = number;
    else if (tag === Tag.CALL_ID) frame.callId = BigInt(number);
    else if (tag === Tag.PAYLOAD && number === end - at) {
      frame.payload = content.subarray(at);
      return frame;
    } else return undefined;
  }
  return frame;
}

/** Finds the frames in what arrives, however it is split. */
export class FrameReader {
  #chunks: Buffer[] = [];
  #size = 0;
  #needed = LENGTH_BYTES; // Below this size there is no new frame.

  constructor(readonly maxFrameBytes: number) {}

  /** Yields what is complete now. RpcError: the rest cannot be understood. */
  *feed(chunk: Buffer): Generator<Frame> {
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
      yield decode(content);
    }
    this.#chunks = [rest];
    this.#size = rest.length;
  }
}

/**
 * The given message, or a new one with the given fields. TypeError, which begins with
 * `what`, if it is something else, such as a message of another type.
 */
export function messageOf<T extends DescMessage>(
  schema: T,
  given: unknown,
  what: string,
): MessageShape<T> {
  const name = isMessage(given) ? given.$typeName : given === null ? 'null' : typeof given;
  if (name !== schema.typeName && name !== 'object') {
    throw new TypeError(`${what} ${schema.typeName}, not ${name}`);
  }
  return create(schema, given as MessageInitShape<T>);
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
    oldestProtocol: OLDEST_PROTOCOL,
    newestProtocol: NEWEST_PROTOCOL,
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

function difference(client: Hello, server: Hello): string | undefined {
  const spoken = Math.min(client.newestProtocol, server.newestProtocol);
  if (spoken < Math.max(client.oldestProtocol, server.oldestProtocol)) return 'protocol';
  if (client.service !== server.service) return 'service';
  const shared = Math.min(client.methods.length, server.methods.length);
  for (let i = 0; i < shared; ++i) {
    if (client.methods[i] !== server.methods[i]) return `method ${i}`;
  }
  return undefined;
}

/** RpcError if the two ends cannot work together. */
export function checkFit(client: Hello, server: Hello): void {
  const where = difference(client, server);
  if (where === undefined) return;
  throw new RpcError(
    Code.FAILED_PRECONDITION,
    `client and server are incompatible: they differ in ${where}; ` +
      `the client speaks ${inWords(client)}, the server ${inWords(server)}`,
  );
}

const CODES = new Map<number, Code>(
  Object.values(Code)
    .filter((each) => typeof each === 'number')
    .map((code) => [code, code]),
);

/** What an ERROR says. Its text need not be UTF-8. */
export function errorOf(frame: Frame): RpcError {
  return new RpcError(CODES.get(frame.errorCode) ?? Code.UNKNOWN, Buffer.from(frame.errorText).toString());
}
