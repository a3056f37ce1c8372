// Plays the scripts of clients/corpus: this host against a scripted widget.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { connect as connectSocket, createServer } from 'node:net';
import { join } from 'node:path';
import { create, fromJsonString, toJson } from '@bufbuild/protobuf';
import { Code, connect, Fail, RpcError } from '../dist/index.js';
import { BrowserIdSchema } from '../dist/rpc/browser/browser_id_pb.js';
import { BrowserWidgetRpc } from '../dist/rpc/browser/browser_widget_pb.js';
import { callbackType } from '../dist/streams.js';

const DEADLINE_MS = 20_000;

export const methodNamed = (name) => {
  const method = BrowserWidgetRpc.methods.find((each) => each.name === name);
  assert(method, `no method ${name}`);
  return method;
};

export const keyOf = (text) =>
  /^\d+$/.test(text)
    ? create(BrowserIdSchema, { value: BigInt(text) })
    : fromJsonString(BrowserIdSchema, text);

/** The first word of each step, and the rest of it. */
export function readSteps(path) {
  const steps = [];
  for (const line of readFileSync(path, 'utf8').split('\n')) {
    if (line === '' || line.startsWith('#')) continue;
    if (line.startsWith(' ')) {
      steps.at(-1)[1] += line;
    } else {
      const [, word, rest] = /^(\S+) ?(.*)$/.exec(line);
      steps.push([word, rest]);
    }
  }
  return steps;
}

export const bytesOf = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');

/** Two connected sockets; Node.js has no socketpair. */
export class Pairs {
  #folder = mkdtempSync('/tmp/orvane-');
  #server = createServer({ allowHalfOpen: true });

  async next() {
    const path = join(this.#folder, 'socket');
    if (!this.#server.listening) {
      this.#server.listen(path);
      await once(this.#server, 'listening');
    }
    const near = connectSocket(path);
    const [[far]] = await Promise.all([once(this.#server, 'connection'), once(near, 'connect')]);
    far.on('error', () => undefined); // The host may leave first.
    return { near, far };
  }

  close() {
    this.#server.close();
    rmSync(this.#folder, { recursive: true });
  }
}

class Cut extends Error {}

/** One play of a script. What happens at the host is written down by name. */
class Player {
  happened = new Map();
  running = new Map(); // What cancels or ends what was begun.
  tasks = [];
  received = Buffer.alloc(0);
  hostHasLeft = false;
  #waiting = new Set();
  oneByOne = false;
  bytesLeft = Infinity; // Until the widget dies.

  constructor(far, connection) {
    this.far = far;
    this.connection = connection;
    far.on('data', (chunk) => {
      this.received = Buffer.concat([this.received, chunk]);
      this.changed();
    });
    far.on('end', () => {
      this.hostHasLeft = true;
      this.changed();
    });
  }

  changed() {
    for (const look of this.#waiting) look();
  }

  async until(condition) {
    while (!condition()) {
      await new Promise((resolve) => {
        const look = () => {
          this.#waiting.delete(look);
          resolve();
        };
        this.#waiting.add(look);
      });
    }
  }

  note(name, what) {
    if (!this.happened.has(name)) this.happened.set(name, []);
    this.happened.get(name).push(what);
    this.changed();
  }

  async take([word, rest]) {
    if (word === 'call' || word === 'watch' || word === 'serve') {
      const [, name, method, argument] = /^(\S+) (\S+) (.*)$/.exec(rest);
      this.tasks.push(this[word](name, methodNamed(method), argument));
    } else if (word === 'cancel' || word === 'end') {
      this.running.get(rest)();
    } else if (word === 'hello') {
      await this.until(() => this.received.length >= 4);
      const length = 4 + this.received.readUInt32LE();
      await this.send(await this.receive(length));
    } else if (word === '>') {
      const expected = bytesOf(rest);
      assert.equal((await this.receive(expected.length)).toString('hex'), expected.toString('hex'));
    } else if (word === '<' && rest === 'end') {
      this.far.end();
    } else if (word === '<') {
      await this.send(bytesOf(rest));
    } else if (word === 'connection') {
      assertError(await this.connection.closed, rest.slice('ends '.length));
    } else {
      await this.expect(word, rest);
    }
  }

  async receive(count) {
    await this.until(() => this.received.length >= count || this.hostHasLeft);
    const bytes = this.received.subarray(0, count);
    this.received = this.received.subarray(count);
    return bytes;
  }

  async send(data) {
    const dies = this.bytesLeft < data.length;
    if (dies) data = data.subarray(0, this.bytesLeft);
    this.bytesLeft -= data.length;
    for (const piece of this.oneByOne ? [...data].map((byte) => Buffer.of(byte)) : [data]) {
      this.far.write(piece);
      if (this.oneByOne) await new Promise(setImmediate);
    }
    if (dies) {
      this.far.end();
      throw new Cut();
    }
  }

  async call(name, method, argument) {
    const giveUp = new AbortController();
    this.running.set(name, () => giveUp.abort());
    try {
      const request = fromJsonString(method.input, argument);
      const response = await this.connection.call(method, request, { signal: giveUp.signal });
      this.note(name, { verb: 'replies', json: toJson(method.output, response) });
    } catch (error) {
      if (error instanceof RpcError) this.note(name, { verb: 'fails', error });
      else if (error.name !== 'AbortError') throw error;
    }
  }

  async watch(name, method, argument) {
    const events = this.connection.watch(method, keyOf(argument));
    let isEnded = false;
    this.running.set(name, () => {
      isEnded = true;
      events.close();
    });
    try {
      for await (const event of events) {
        this.note(name, { verb: 'event', json: toJson(method.output, event) });
      }
      if (!isEnded) this.note(name, { verb: 'ends' });
    } catch (error) {
      this.note(name, { verb: 'ends', error });
    }
  }

  async serve(name, method, argument) {
    const [key, answer] = argument.split(' => ');
    const type = callbackType(method.output);
    const serving = this.connection.serve(method, keyOf(key), async (call, { signal }) => {
      const json = {
        browserId: toJson(BrowserIdSchema, keyOf(key)),
        call: toJson(type.call.message, call),
      };
      this.note(name, { verb: 'called', json });
      if (answer === 'never') {
        await once(signal, 'abort');
        this.note(name, { verb: 'given_up' });
        throw signal.reason;
      }
      if (answer.startsWith('error: ')) throw new Fail(answer.slice('error: '.length));
      return fromJsonString(type.response.message, answer);
    });
    this.running.set(name, () => serving.close());
    try {
      await serving.ended;
      this.note(name, { verb: 'ends' });
    } catch (error) {
      this.note(name, { verb: 'ends', error });
    }
  }

  async expect(name, expected) {
    await this.until(() => this.happened.get(name)?.length);
    const happened = this.happened.get(name).shift();
    const [, verb, what] = /^(\S+) ?(.*)$/.exec(expected);
    assert.equal(happened.verb, verb, `${name}: ${happened.error}`);
    if (happened.json !== undefined) assert.deepEqual(happened.json, JSON.parse(what));
    else if (what === '') assert.equal(happened.error, undefined);
    else assertError(happened.error, what);
  }

  /** All that happened was expected, and the host has sent nothing else. */
  async finish() {
    await this.connection.close();
    await this.until(() => this.hostHasLeft);
    assert.equal(this.received.toString('hex'), '', 'the host sent more');
    await Promise.all(this.tasks);
    for (const [name, all] of this.happened) {
      const left = all.filter(({ error }) => error?.code !== Code.CANCELLED);
      assert.deepEqual(left, [], `nobody expected this of ${name}`);
    }
  }
}

/** Only the code counts where no text is expected. */
function assertError(actual, expected) {
  assert(actual instanceof RpcError, `${actual}, not ${expected}`);
  const [, code, text] = /^([A-Z_]+)(?:: ?(.*))?$/.exec(expected);
  assert.equal(Code[actual.code], code, String(actual));
  if (text !== undefined) assert.equal(actual.text, text);
}

/**
 * Plays a script. With `dieAfter` the widget closes the connection once it has sent so
 * many bytes; false if the script has fewer.
 */
export async function play(path, pairs, { oneByOne = false, dieAfter = Infinity } = {}) {
  const { near, far } = await pairs.next();
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error('it takes too long')), DEADLINE_MS);
  });
  const run = async () => {
    const connection = await connect(near);
    connection.client(BrowserWidgetRpc);
    const player = new Player(far, connection);
    player.oneByOne = oneByOne;
    player.bytesLeft = dieAfter;
    const steps = readSteps(path);
    try {
      for (const step of steps) await player.take(step);
    } catch (error) {
      if (!(error instanceof Cut)) throw error;
      assert.equal((await connection.closed).code, Code.UNAVAILABLE);
      await Promise.all(player.tasks); // Nothing hangs: each call and stream ends.
      return true;
    }
    if (steps.some(([word]) => word === 'connection')) await Promise.all(player.tasks);
    else await player.finish();
    return false;
  };
  try {
    return await Promise.race([run(), late]);
  } finally {
    clearTimeout(timer);
    far.destroy();
    near.destroy();
  }
}

