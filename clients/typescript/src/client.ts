// The typed client of a service, made from its descriptor.

import type {
  DescMessage,
  DescService,
  Message,
  MessageInitShape,
  MessageShape,
} from '@bufbuild/protobuf';
import type { GenMessage } from '@bufbuild/protobuf/codegenv2';
import type { Connection } from './connection.js';
import { EventSubscriptionSchema } from './rpc/event_subscription_pb.js';
import type { BrowserIdSchema } from './rpc/browser/browser_id_pb.js';
import type { AnyHandler, Events, Serving } from './streams.js';

export interface StreamOptions {
  /** Ends the stream with its reason when it is aborted, or at once. */
  signal?: AbortSignal;
}

export interface CallOptions {
  /** Cancels the call when it is aborted; the call rejects with its reason. */
  signal?: AbortSignal;
  /**
   * Without it, or with Infinity, the call has no timeout. With 0 or less it fails
   * at once with DEADLINE_EXCEEDED. RangeError if it is NaN.
   */
  timeoutMs?: number;
}

// The type of a oneof's member with this name.
type Stage<T, Name extends string> = {
  [K in keyof T]-?: ValueOf<Extract<T[K], { case: Name }>>;
}[keyof T];
type ValueOf<Member> = Member extends { value: infer V extends Message } ? V : never;

type Init<T extends Message> = MessageInitShape<GenMessage<T>>;

/** Serves a call of the server. May throw Fail. The signal is aborted when nobody waits for the answer. */
export type Handler<T extends Message> = (
  call: Stage<T, 'call'>,
  context: { signal: AbortSignal },
) => Init<Stage<T, 'response'>> | Promise<Init<Stage<T, 'response'>>>;

type KeyOf<T> = T extends { browserId?: infer K } ? Init<Extract<K, Message>> : never;

type Method<M> = M extends {
  methodKind: infer Kind;
  input: infer I extends DescMessage;
  output: infer O extends DescMessage;
}
  ? Kind extends 'unary'
    ? (request: MessageInitShape<I>, options?: CallOptions) => Promise<MessageShape<O>>
    : MessageShape<I> extends { $typeName: 'rpc.EventSubscription' }
      ? (
          key: MessageInitShape<typeof BrowserIdSchema>,
          options?: StreamOptions,
        ) => Events<MessageShape<O>>
      : (
          key: KeyOf<MessageShape<O>>,
          handler: Handler<MessageShape<O>>,
          options?: StreamOptions,
        ) => Serving
  : never;

/**
 * The methods of a service. Unary methods return a promise; event streams, usually
 * called `when…`, return an async iterable; callback streams, usually called `on…`,
 * take a handler. A stream is subscribed when the method is called. TypeError if a
 * method is given a message of another type than its own.
 */
export type Client<S extends DescService> = { readonly [K in keyof S['method']]: Method<S['method'][K]> };

export function makeClient<S extends DescService>(connection: Connection, service: S): Client<S> {
  connection.use(service);
  const client: Record<string, unknown> = {};
  for (const method of service.methods) {
    if (method.methodKind === 'unary') {
      client[method.localName] = (request: object, options?: CallOptions) =>
        connection.call(method, request, options);
    } else if (method.input.typeName === EventSubscriptionSchema.typeName) {
      client[method.localName] = (key: object, options?: StreamOptions) =>
        connection.watch(method, key, options);
    } else {
      client[method.localName] = (key: object, handler: AnyHandler, options?: StreamOptions) =>
        connection.serve(method, key, handler, options);
    }
  }
  return client as Client<S>;
}
