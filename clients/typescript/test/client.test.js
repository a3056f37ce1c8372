// What the client promises beyond what travels.

import assert from 'node:assert/strict';
import { getEventListeners, once } from 'node:events';
import process from 'node:process';
import { after, test } from 'node:test';
import { setFlagsFromString } from 'node:v8';
import { runInNewContext } from 'node:vm';
import { create, fromBinary, toBinary } from '@bufbuild/protobuf';
import { Code, connect, Fail, RpcError } from '../dist/index.js';
import { BrowserWidgetRpc } from '../dist/rpc/browser/browser_widget_pb.js';
import { CursorChangedSchema } from '../dist/rpc/browser/cursor_pb.js';
import { TakeFocusSchema } from '../dist/rpc/browser/focus_pb.js';
import { TooltipChangedSchema } from '../dist/rpc/browser/tooltip_pb.js';
import {
  HelloSchema,
  LimitsSchema,
  StreamMessage_Kind as Kind,
} from '../dist/rpc/transport/stream_message_pb.js';
import { encode, FrameReader } from '../dist/wire.js';
import { Pairs } from './scripted.js';

setFlagsFromString('--expose-gc');
const collectGarbage = runInNewContext('gc');

const browser = { value: 9n };
const pairs = new Pairs();
after(() => pairs.close());

/** The other end: takes frames apart and sends what a test tells it to. */
class Widget {
  #frames = [];
  #reader = new FrameReader(4 << 20);

  constructor(socket) {
    this.socket = socket;
    socket.pause();
  }

  async frame() {
    while (this.#frames.length === 0) {
      const chunk = this.socket.read();
      if (chunk === null) await once(this.socket, 'readable');
      else this.#frames.push(...this.#reader.feed(chunk));
    }
    return this.#frames.shift();
  }

  send(frame) {
    this.socket.write(encode(frame));
  }

  /** The host has sent nothing that the widget has not seen yet. */
  async settleAsFirst(connection) {
    const settled = connection.settle();
    const { kind, streamId } = await this.frame();
    assert.equal(kind, Kind.OPEN);
    assert.equal((await this.frame()).kind, Kind.COMPLETE);
    this.send({ kind: Kind.COMPLETE, streamId });
    await settled;
  }

  /** All that it has sent has been handled by the host. */
  async settle(connection) {
    const settled = connection.settle();
    let frame;
    do frame = await this.frame();
    while (frame.kind !== Kind.COMPLETE);
    this.send({ kind: Kind.COMPLETE, streamId: frame.streamId });
    await settled;
  }
}

async function connected(run, options = {}) {
  const { near, far } = await pairs.next();
  const connection = await connect(near, options);
  const host = connection.client(BrowserWidgetRpc);
  const widget = new Widget(far);
  widget.send(await widget.frame());
  await run(host, widget, connection);
  far.destroy();
  await connection.close();
}

const failsWith = (code) => (error) => error instanceof RpcError && error.code === code;

test('an aborted signal gives up its call', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const controller = new AbortController();
    const call = host.show(browser, { signal: controller.signal });
    const sent = await widget.frame();
    controller.abort();
    await assert.rejects(call, { name: 'AbortError' });
    const frame = await widget.frame();
    assert.equal(frame.kind, Kind.CANCEL);
    assert.equal(frame.streamId, sent.streamId);
  }));

test('a widget may ask whether the host is there', { timeout: 20_000 }, () =>
  connected(async (host, widget, connection) => {
    widget.send({ kind: Kind.PONG });
    widget.send({ kind: Kind.PING });
    assert.equal((await widget.frame()).kind, Kind.PONG);
    await widget.settleAsFirst(connection);
  }));

test('an aborted signal ends its streams with its reason', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const controller = new AbortController();
    const { signal } = controller;
    const events = host.whenTooltipChanged(browser, { signal });
    const serving = host.onTakeFocus(browser, () => ({ taken: true }), { signal });
    for (let i = 0; i < 4; ++i) await widget.frame();
    controller.abort('enough');
    await assert.rejects(events.next(), (reason) => reason === 'enough');
    await assert.rejects(serving.ended, (reason) => reason === 'enough');
    assert.equal((await widget.frame()).kind, Kind.COMPLETE);
    assert.equal((await widget.frame()).kind, Kind.COMPLETE);
  }));

test('one signal may be for many', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const { signal } = new AbortController();
    for (let i = 0; i < 20; ++i) {
      void host.show(browser, { signal }).catch(() => undefined);
      host.whenTooltipChanged(browser, { signal });
    }
    assert.equal(getEventListeners(signal, 'abort').length, 1);
    await widget.frame();
  }));

test('a signal that is aborted already begins nothing', { timeout: 20_000 }, () =>
  connected(async (host, widget, connection) => {
    const signal = AbortSignal.abort('enough');
    const isReason = (reason) => reason === 'enough';
    await assert.rejects(host.show(browser, { signal }), isReason);
    await assert.rejects(host.whenTooltipChanged(browser, { signal }).next(), isReason);
    await assert.rejects(host.onTakeFocus(browser, () => ({}), { signal }).ended, isReason);
    await widget.settleAsFirst(connection);
  }));

test('a signal does not keep the streams that have ended', { timeout: 20_000 }, () =>
  connected(async (host) => {
    const { signal } = new AbortController();
    host.whenTooltipChanged(browser, { signal }).close();
    host.onTakeFocus(browser, () => ({}), { signal }).close();
    assert.equal(getEventListeners(signal, 'abort').length, 0);
  }));

test('a call ends at its timeout', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    await assert.rejects(host.show(browser, { timeoutMs: 10 }), failsWith(Code.DEADLINE_EXCEEDED));
    await widget.frame();
    assert.equal((await widget.frame()).kind, Kind.CANCEL);
  }));

for (const timeoutMs of [Infinity, 2 ** 31]) {
  test(`a call may have a timeout of ${timeoutMs} ms`, { timeout: 20_000 }, () =>
    connected(async (host, widget) => {
      const call = host.show(browser, { timeoutMs });
      const { streamId } = await widget.frame();
      // The timer of 1 ms that Node.js makes of such a number would come before this.
      await new Promise((resolve) => setTimeout(resolve, 2));
      widget.send({ kind: Kind.REPLY, streamId });
      await call;
    }));
}

test('a timeout that is longer than any timer passes in the end', { timeout: 20_000 }, (context) =>
  connected(async (host, widget) => {
    context.mock.timers.enable({ apis: ['setTimeout'] });
    const call = host.show(browser, { timeoutMs: 2 ** 31 });
    await widget.frame();
    context.mock.timers.tick(2 ** 31 - 1);
    context.mock.timers.tick(1);
    await assert.rejects(call, failsWith(Code.DEADLINE_EXCEEDED));
    context.mock.timers.reset();
  }));

for (const timeoutMs of [0, -1, -Infinity]) {
  test(`a timeout of ${timeoutMs} ms has passed`, { timeout: 20_000 }, () =>
    connected(async (host, widget, connection) => {
      await assert.rejects(host.show(browser, { timeoutMs }), failsWith(Code.DEADLINE_EXCEEDED));
      await widget.settleAsFirst(connection);
    }));
}

test('a timeout that is not a number is refused', { timeout: 20_000 }, () =>
  connected(async (host, widget, connection) => {
    await assert.rejects(host.show(browser, { timeoutMs: NaN }), {
      name: 'RangeError',
      message: 'timeoutMs is not a number',
    });
    await widget.settleAsFirst(connection);
  }));

test('a request of another type is not sent', { timeout: 20_000 }, () =>
  connected(async (host, widget, connection) => {
    const wrong = create(TooltipChangedSchema);
    const takes = (method, given) => ({
      name: 'TypeError',
      message: `${method} takes BrowserId, not ${given}`,
    });
    await assert.rejects(host.show(wrong), takes('Show', 'rpc.TooltipChanged'));
    await assert.rejects(host.show(null), takes('Show', 'null'));
    assert.throws(
      () => host.whenTooltipChanged(wrong),
      takes('WhenTooltipChanged', 'rpc.TooltipChanged'),
    );
    assert.throws(() => host.onTakeFocus('7', () => ({})), takes('OnTakeFocus', 'string'));
    await widget.settleAsFirst(connection);
  }));

test('the end of the connection ends all with its reason', { timeout: 20_000 }, () =>
  connected(async (host, widget, connection) => {
    const call = host.show(browser);
    const events = host.whenTooltipChanged(browser);
    const serving = host.onTakeFocus(browser, () => ({ taken: true }));
    widget.socket.destroy();
    await assert.rejects(call, failsWith(Code.UNAVAILABLE));
    await assert.rejects(events.next(), failsWith(Code.UNAVAILABLE));
    await assert.rejects(serving.ended, failsWith(Code.UNAVAILABLE));
    await assert.rejects(host.hide(browser), failsWith(Code.UNAVAILABLE));
    assert.equal(await connection.closed, connection.error);
  }));

test('leaving an iteration ends its stream', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const events = host.whenTooltipChanged(browser);
    const { streamId } = await widget.frame();
    await widget.frame();
    const payload = toBinary(TooltipChangedSchema, create(TooltipChangedSchema, { text: 'Hi' }));
    widget.send({ kind: Kind.NEXT, streamId, payload });
    for await (const event of events) {
      assert.equal(event.text, 'Hi');
      break;
    }
    assert.equal((await widget.frame()).kind, Kind.COMPLETE);
  }));

test('only one reader waits for events', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const events = host.whenTooltipChanged(browser);
    const { streamId } = await widget.frame();
    const first = events.next();
    await assert.rejects(events.next(), { message: /two readers wait for events/ });
    widget.send({ kind: Kind.NEXT, streamId });
    assert.equal((await first).value.text, '');
  }));

test('empty events that are not read take no more memory than the limit', { timeout: 60_000 }, () => {
  const maxUnreadEventBytes = 4 << 20;
  return connected(
    async (host, widget, connection) => {
      const events = host.whenDropDownDeleted(browser);
      const { streamId } = await widget.frame();
      await widget.settle(connection);
      collectGarbage();
      const before = process.memoryUsage().heapUsed;
      for (let i = 0; i < 40_000; ++i) widget.send({ kind: Kind.NEXT, streamId });
      await widget.settle(connection);
      collectGarbage();
      assert(process.memoryUsage().heapUsed - before < maxUnreadEventBytes);
      await events.next(); // They are still there.
    },
    { maxUnreadEventBytes },
  );
});

test('unread events are bounded', { timeout: 20_000 }, () =>
  connected(
    async (host, widget, connection) => {
      const events = host.whenDropDownDeleted(browser);
      const { streamId } = await widget.frame();
      for (let i = 0; i < 100; ++i) widget.send({ kind: Kind.NEXT, streamId });
      await widget.settle(connection);
      let count = 0;
      await assert.rejects(async () => {
        for await (const event of events) count += event ? 1 : 0;
      }, failsWith(Code.RESOURCE_EXHAUSTED));
      assert.equal(count, 7); // 512 bytes each.
    },
    { maxUnreadEventBytes: 4000 },
  ));

test('the latest is kept where only that counts', { timeout: 20_000 }, () =>
  connected(
    async (host, widget, connection) => {
      const events = host.whenCursorChanged(browser);
      const { streamId } = await widget.frame();
      for (let value = 1n; value <= 100n; ++value) {
        const event = create(CursorChangedSchema, { browserId: { value } });
        widget.send({ kind: Kind.NEXT, streamId, payload: toBinary(CursorChangedSchema, event) });
      }
      await widget.settle(connection);
      events.close();
      const values = [];
      for await (const event of events) values.push(event.browserId.value);
      assert.equal(values.at(-1), 100n);
      assert(values.length < 8);
    },
    { maxUnreadEventBytes: 4000 },
  ));

test('what the widget does not read is bounded', { timeout: 20_000 }, () =>
  connected(
    async (host, widget, connection) => {
      const [method] = BrowserWidgetRpc.methods;
      const request = create(method.input);
      // A field of 10 000 bytes that nobody knows.
      const data = Buffer.concat([Buffer.of(0x90, 0x4e), Buffer.alloc(10_000)]);
      request.$unknown = [{ no: 99, wireType: 2, data }];
      const calls = Array.from({ length: 200 }, () => connection.call(method, request));
      const settled = Promise.allSettled(calls);
      widget.socket.destroy();
      const failures = (await settled).map(({ reason }) => reason.code);
      assert(failures.includes(Code.RESOURCE_EXHAUSTED));
    },
    { maxQueuedBytes: 100_000 },
  ));

test('a host learns what the widget takes', { timeout: 20_000 }, async () => {
  const { near, far } = await pairs.next();
  const connection = await connect(near);
  connection.client(BrowserWidgetRpc);
  assert.equal(connection.serverLimits, undefined);
  const widget = new Widget(far);
  const hello = fromBinary(HelloSchema, (await widget.frame()).payload);
  hello.limits = create(LimitsSchema, { maxCalls: 3 });
  widget.send({ kind: Kind.HELLO, payload: toBinary(HelloSchema, hello) });
  await widget.settle(connection);
  assert.equal(connection.serverLimits.maxCalls, 3);
  assert.equal(connection.serverLimits.maxStreams, undefined);
  far.destroy();
  await connection.close();
});

async function serveOne(host, widget, handler) {
  const serving = host.onTakeFocus(browser, handler);
  const { streamId } = await widget.frame();
  await widget.frame();
  const call = create(TakeFocusSchema, { browserId: browser, stage: { case: 'call', value: {} } });
  widget.send({ kind: Kind.NEXT, streamId, callId: 1n, payload: toBinary(TakeFocusSchema, call) });
  const answer = await widget.frame();
  serving.close();
  return answer;
}

test('a handler that throws fails its call and is reported', { timeout: 20_000 }, () => {
  const reported = [];
  const mistake = new TypeError('oops');
  return connected(
    async (host, widget) => {
      const answer = await serveOne(host, widget, () => {
        throw mistake;
      });
      assert.equal(answer.kind, Kind.ERROR);
      assert.equal(Buffer.from(answer.errorText).toString(), 'the handler threw TypeError');
      assert.deepEqual(reported, [mistake]);
    },
    { onHandlerError: (error) => reported.push(error) },
  );
});

const hostile = {
  'an error whose name throws': Object.defineProperty(new Error(), 'name', {
    get: () => {
      throw new Error();
    },
  }),
  'an error whose name is a symbol': Object.assign(new Error(), { name: Symbol('name') }),
  'a failure whose message is an object': Object.assign(new Fail(), { message: {} }),
  'a proxy that throws': new Proxy(new Error(), {
    get: () => {
      throw new Error();
    },
    getPrototypeOf: () => {
      throw new Error();
    },
  }),
  'an object without a prototype': Object.create(null),
};
for (const [what, thrown] of Object.entries(hostile)) {
  test(`a handler that throws ${what} fails its call`, { timeout: 20_000 }, () =>
    connected(async (host, widget) => {
      const answer = await serveOne(host, widget, () => Promise.reject(thrown));
      assert.equal(answer.kind, Kind.ERROR);
    }));
}

test('a handler that returns another type fails its call', { timeout: 20_000 }, () => {
  const reported = [];
  return connected(
    async (host, widget) => {
      const answer = await serveOne(host, widget, () => create(TooltipChangedSchema));
      assert.equal(answer.kind, Kind.ERROR);
      assert.equal(
        reported[0].message,
        'the handler of OnTakeFocus must return rpc.TakeFocusResponse, not rpc.TooltipChanged',
      );
    },
    { onHandlerError: (error) => reported.push(error) },
  );
});

test('a handler may fail its call', { timeout: 20_000 }, () =>
  connected(async (host, widget) => {
    const answer = await serveOne(host, widget, () => Promise.reject(new Fail('no control')));
    assert.equal(Buffer.from(answer.errorText).toString(), 'no control');
  }));

test('calls beyond the limit fail', { timeout: 20_000 }, () =>
  connected(
    async (host, widget) => {
      const answer = await serveOne(host, widget, () => ({ taken: true }));
      assert.equal(answer.kind, Kind.ERROR);
    },
    { maxServedCalls: 0 },
  ));

test('a path of digits is a path', () =>
  assert.rejects(connect('36009'), (error) => error.message.includes('ENOENT')));

test('what cannot be a path is refused', async () => {
  for (const path of ['', '/tmp/socket\0', '\0socket']) {
    await assert.rejects(connect(path), failsWith(Code.INVALID_ARGUMENT));
  }
});

test('nobody listens', () =>
  assert.rejects(connect('/nowhere/widget.sock'), failsWith(Code.UNAVAILABLE)));
