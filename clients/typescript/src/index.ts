/**
 * Clients of orvane services: a browser widget in another process, or one's own.
 *
 *     const connection = await connect();
 *     const widget = connection.client(BrowserWidgetRpc);
 *     await widget.show({ value: 7n }, { timeoutMs: 5000 });
 */

export { type CallOptions, type Client, type Handler, type StreamOptions } from './client.js';
export { connect, Connection, defaultSocketPath, type Options } from './connection.js';
export { Code, Fail, RpcError } from './errors.js';
export { type Events, type Serving } from './streams.js';
