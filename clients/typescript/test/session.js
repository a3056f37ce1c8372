// Plays a session file (clients/corpus/README.md) to a widget server.

import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { create, fromJsonString, isFieldSet, toJson } from '@bufbuild/protobuf';
import { Fail, RpcError } from '../dist/index.js';
import { callbackType } from '../dist/streams.js';
import { keyOf, methodNamed } from './scripted.js';

const TIMEOUT_MS = 10_000;
// Where the first arrow stands that is not inside a string of the JSON.
const ARROW = /^((?:[^"=]|"(?:[^"\\]|\\.)*"|=(?!>))*)=>[ \t]*(.*)$/;

/** Whether every field that `expected` has is the same in `actual`. */
function hasAllOf(schema, actual, expected) {
  return schema.fields.every((field) => {
    if (!isFieldSet(expected, field)) return true;
    const of = (message) =>
      field.oneof ? message[field.oneof.localName].value : message[field.localName];
    if (!isFieldSet(actual, field)) return false;
    const [found, wanted] = [of(actual), of(expected)];
    if (field.fieldKind === 'message') return hasAllOf(field.message, found, wanted);
    if (field.fieldKind === 'list' && field.listKind === 'message') {
      return (
        found.length === wanted.length &&
        wanted.every((each, i) => hasAllOf(field.message, found[i], each))
      );
    }
    if (wanted instanceof Uint8Array) return Buffer.compare(found, wanted) === 0;
    if (field.fieldKind === 'list') {
      return found.length === wanted.length && wanted.every((each, i) => each === found[i]);
    }
    return found === wanted;
  });
}

export class Session {
  counts = {};
  #arrived = new Map(); // By method: what came, and who waits for it.
  #open = new Map();

  constructor(connection) {
    this.connection = connection;
  }

  async play(path) {
    let number = 0;
    for (const whole of readFileSync(path, 'utf8').split('\n')) {
      ++number;
      const line = whole.trimStart();
      if (line === '' || line.startsWith('#')) continue;
      try {
        await this.#take(line);
      } catch (error) {
        error.message = `line ${number}: ${error.message}`;
        throw error;
      }
    }
    await this.connection.settle();
    for (const [name, { messages }] of this.#arrived) {
      assert.equal(messages.length, 0, `nobody expected all of ${name}`);
    }
    for (const stream of this.#open.values()) stream.close();
    return this.counts;
  }

  async #take(line) {
    const [, word, rest] = /^(\S+)\s*(.*)$/.exec(line);
    const isVerb = ['watch', 'serve', 'event', 'called', 'end'].includes(word);
    this.counts[isVerb ? word : 'call'] = (this.counts[isVerb ? word : 'call'] ?? 0) + 1;
    if (!isVerb) return this.#call(line);
    if (word === 'serve') return this.#serve(rest);
    const [, name, json] = /^(\S+)\s+(.*)$/.exec(rest);
    const method = methodNamed(name);
    if (word === 'watch') {
      const events = this.connection.watch(method, keyOf(json));
      this.#open.set(rest, events);
      void this.#collect(name, events);
    } else if (word === 'end') {
      this.#open.get(rest).close();
      this.#open.delete(rest);
    } else {
      const expected = fromJsonString(method.output, json);
      const actual = await this.#next(name);
      assert(
        hasAllOf(method.output, actual, expected),
        `${name}: ${JSON.stringify(toJson(method.output, actual))}`,
      );
    }
    return undefined;
  }

  #of(name) {
    if (!this.#arrived.has(name)) this.#arrived.set(name, { messages: [], wake: undefined });
    return this.#arrived.get(name);
  }

  #arrive(name, message) {
    const of = this.#of(name);
    of.messages.push(message);
    of.wake?.();
  }

  async #next(name) {
    const of = this.#of(name);
    if (of.messages.length === 0) {
      let timer;
      const late = new Promise((_, reject) => {
        timer = setTimeout(() => reject(new Error(`nothing of ${name}`)), TIMEOUT_MS);
      });
      await Promise.race([new Promise((resolve) => (of.wake = resolve)), late]);
      clearTimeout(timer);
      of.wake = undefined;
    }
    return of.messages.shift();
  }

  async #collect(name, events) {
    for await (const event of events) this.#arrive(name, event);
  }

  #serve(rest) {
    const [, head, answer] = ARROW.exec(rest);
    const [, name, key] = /^(\S+)\s+(.*)$/.exec(head.trim());
    const method = methodNamed(name);
    const type = callbackType(method.output);
    const serving = this.connection.serve(method, keyOf(key), (call) => {
      const stage = { case: 'call', value: call };
      const message = create(method.output, {
        browserId: keyOf(key),
        [type.call.oneof.localName]: stage,
      });
      this.#arrive(name, message);
      if (answer.startsWith('error:')) throw new Fail(answer.replace(/^error: ?/, ''));
      return fromJsonString(type.response.message, answer);
    });
    this.#open.set(head.trim(), serving);
  }

  async #call(line) {
    const [, head, answer] = ARROW.exec(line);
    const [, name, json] = /^(\S+)\s+(.*)$/.exec(head.trim());
    const method = methodNamed(name);
    let response;
    try {
      const request = fromJsonString(method.input, json);
      response = await this.connection.call(method, request, { timeoutMs: TIMEOUT_MS });
    } catch (error) {
      if (!(error instanceof RpcError)) throw error;
      assert.equal(`error: ${error.text}`, answer.replace(/^error: ?/, 'error: '));
      return;
    }
    assert(!answer.startsWith('error:'), `${name} has succeeded`);
    assert.deepEqual(
      toJson(method.output, response),
      toJson(method.output, fromJsonString(method.output, answer)),
    );
  }
}
