// A client of a browser widget, written from docs/protocol.md alone.
//
//   node client.js SOCKET list
//   node client.js SOCKET call METHOD JSON
//   node client.js SOCKET hold METHOD JSON
//   node client.js SOCKET watch METHOD BROWSER
//   node client.js SOCKET serve METHOD BROWSER JSON
//
// `hold`, `watch` and `serve` run until SIGINT or SIGTERM. Exit code: 0 on success, 1 if
// a call or a stream failed, 2 for wrong usage, 3 if there is no connection.

'use strict';

const fs = require('fs');
const net = require('net');
const path = require('path');
const protobuf = require('protobufjs');

const kProtos = path.join(__dirname, '../../zimbrel/src/core/common/rpc/proto');
const kProtocol = 1;
const kMaxFrameBytes = 4 << 20;

// protobufjs has protobuf's own protos built in.
const root = new protobuf.Root();
root.resolvePath = (origin, target) => {
  const ours = path.join(kProtos, target);
  return fs.existsSync(ours) ? ours : require.resolve('protobufjs/' + target);
};
root.loadSync(['rpc/browser/browser_widget.proto', 'rpc/transport/stream_message.proto']);
root.resolveAll();

const StreamMessage = root.lookupType('rpc.transport.StreamMessage');
const Hello = root.lookupType('rpc.transport.Hello');
const Kind = StreamMessage.lookupEnum('Kind').values;
const service = root.lookupService('rpc.BrowserWidgetRpc');

function kindOf(method) {
  if (!method.requestStream) return 'unary';
  return method.requestType.endsWith('EventSubscription') ? 'event stream' : 'callback stream';
}

function findMethod(name, kind) {
  const index = service.methodsArray.findIndex(method => method.name === name);
  if (index < 0) throw new Error(`no method ${name}`);
  const method = service.methodsArray[index];
  if (kindOf(method) !== kind) throw new Error(`${name} is of another kind: ${kindOf(method)}`);
  return { index, request: method.resolvedRequestType, response: method.resolvedResponseType };
}

const fromJson = (type, json) => type.fromObject(JSON.parse(json));
const toJson = (type, message) =>
  JSON.stringify(type.toObject(message, { longs: String, enums: String, bytes: String }));

// What this client tells about itself. The widget checks whether it is compatible.
function hello() {
  const fullName = type => type.fullName.slice(1);
  let hash = 0xcbf29ce484222325n;
  const methods = service.methodsArray.map(method => {
    const stream = method.requestStream ? 'stream ' : '';
    const line = `${method.name}(${stream}${fullName(method.resolvedRequestType)}) returns ` +
      `(${stream}${fullName(method.resolvedResponseType)})\n`;
    for (const byte of Buffer.from(line)) {
      hash = BigInt.asUintN(64, (hash ^ BigInt(byte)) * 0x100000001b3n);
    }
    return protobuf.util.Long.fromString(hash.toString(), true);
  });
  return Hello.encode({
    oldestProtocol: kProtocol, newestProtocol: kProtocol, service: fullName(service), methods,
  }).finish();
}

class Connection {
  // `onEnd(why)` runs when the connection is gone.
  constructor(socketPath, onEnd) {
    this.lastId = 0;
    this.receivers = new Map();  // By stream id: what to do with its frames.
    this.received = Buffer.alloc(0);
    this.onEnd = onEnd;
    this.socket = net.connect(socketPath);
    this.socket.on('error', error => this.onEnd(error.message));
    this.socket.on('close', () => this.onEnd('the widget closed the connection'));
    this.socket.on('data', bytes => this.onData(bytes));
    this.send({ kind: Kind.KIND_HELLO, payload: hello() });
  }

  send(frame) {
    const bytes = StreamMessage.encode(frame).finish();
    const length = Buffer.alloc(4);
    length.writeUInt32LE(bytes.length);
    this.socket.write(Buffer.concat([length, bytes]));
  }

  // Begins a call or a stream; `receive(frame)` gets the frames of its id.
  begin(kind, method, payload, receive) {
    const streamId = ++this.lastId;
    this.receivers.set(streamId, receive);
    this.send({ kind, streamId, method, payload });
    return streamId;
  }

  // Runs `then` when the widget has handled everything sent so far.
  afterAll(method, then) {
    const streamId = this.begin(Kind.KIND_OPEN, method, undefined, then);
    this.send({ kind: Kind.KIND_COMPLETE, streamId });
  }

  onData(bytes) {
    this.received = Buffer.concat([this.received, bytes]);
    while (this.received.length >= 4) {
      const length = this.received.readUInt32LE(0);
      if (length > kMaxFrameBytes) return this.socket.destroy(new Error(`frame of ${length} bytes`));
      if (this.received.length < 4 + length) return;
      const frame = StreamMessage.decode(this.received.subarray(4, 4 + length));
      this.received = this.received.subarray(4 + length);
      this.onFrame(frame);
    }
  }

  onFrame(frame) {
    if (frame.kind === Kind.KIND_HELLO) return;
    const id = Number(frame.streamId);
    if (frame.kind === Kind.KIND_ERROR && id === 0) return this.onEnd(errorText(frame));
    // Frames of a call or stream that has ended may still arrive.
    const receive = this.receivers.get(id);
    if (receive) receive(frame);
  }
}

const errorText = frame => Buffer.from(frame.errorText).toString();

function end(code, why) {
  if (why) process.stderr.write(`client: ${why}\n`);
  process.exitCode = code;
  connection.onEnd = () => {};
  connection.socket.destroy();
}

function call(name, json, then = () => end(0)) {
  const method = findMethod(name, 'unary');
  const request = method.request.encode(fromJson(method.request, json)).finish();
  connection.begin(Kind.KIND_CALL, method.index, request, frame => {
    if (frame.kind === Kind.KIND_ERROR) return end(1, errorText(frame));
    console.log(toJson(method.response, method.response.decode(frame.payload)));
    then();
  });
}

// A call whose effect lasts as long as its connection, such as Attach.
function hold(name, json) {
  call(name, json, () => process.once('SIGINT', () => end(0)).once('SIGTERM', () => end(0)));
}

// Opens a stream, subscribes it with `request`, and passes on its messages.
function follow(name, method, request, onMessage) {
  const streamId = connection.begin(Kind.KIND_OPEN, method.index, undefined, frame => {
    if (frame.kind === Kind.KIND_ERROR) return end(1, errorText(frame));
    if (frame.kind === Kind.KIND_COMPLETE) return end(0);
    onMessage(method.response.decode(frame.payload), frame);
  });
  connection.send({
    kind: Kind.KIND_NEXT, streamId, payload: method.request.encode(method.request.fromObject(request)).finish(),
  });
  connection.afterAll(method.index, () => console.log(`subscribed to ${name}`));
  const complete = () => connection.send({ kind: Kind.KIND_COMPLETE, streamId });
  process.once('SIGINT', complete).once('SIGTERM', complete);
  return streamId;
}

function watch(name, browser) {
  const method = findMethod(name, 'event stream');
  follow(name, method, { subscribe: { value: browser } },
         event => console.log(toJson(method.response, event)));
}

function serve(name, browser, json) {
  const method = findMethod(name, 'callback stream');
  const response = JSON.parse(json);
  const streamId = follow(name, method, { browserId: { value: browser }, subscribe: true }, (message, frame) => {
    console.log(toJson(method.response, message));
    const answer = method.request.fromObject({ browserId: message.browserId, response });
    connection.send({
      kind: Kind.KIND_NEXT, streamId, callId: frame.callId, payload: method.request.encode(answer).finish(),
    });
  });
}

function list() {
  service.methodsArray.forEach((method, index) => console.log(`${index} ${method.name} (${kindOf(method)})`));
}

const [socketPath, command, ...words] = process.argv.slice(2);
const commands = { call, hold, watch, serve };
let connection;
if (command === 'list') {
  list();
} else {
  connection = new Connection(socketPath, why => end(3, why));
  try {
    commands[command](...words);
  } catch (error) {
    end(2, error.message);
  }
}
