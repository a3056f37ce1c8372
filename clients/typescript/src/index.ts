/**
 * Clients of orvane services: the browser widget, or services of your own.
 *
 *     const connection = await connect();
 *     const widget = connection.client(BrowserWidgetRpc);
 *     await widget.show({ value: 7n }, { timeoutMs: 5000 });
 */

export { type CallOptions, type Client, type Handler, type StreamOptions } from './client.js';
export { connect, Connection, defaultSocketPath, type Options } from './connection.js';
export { Code, Fail, RpcError } from './errors.js';
export { type Events, type Serving } from './streams.js';
