// Random and damaged bytes from a widget: nothing but RpcError comes of them.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { readdirSync } from 'node:fs';
import { join } from 'node:path';
import process from 'node:process';
import { after, test } from 'node:test';
import { Code, connect, RpcError } from '../dist/index.js';
import { BrowserWidgetRpc } from '../dist/rpc/browser/browser_widget_pb.js';
import { FrameReader } from '../dist/wire.js';
import { bytesOf, Pairs, readSteps } from './scripted.js';

const seconds = Number(process.env.ORVANE_FUZZ_SECONDS ?? 10);
const seed = Number(process.env.ORVANE_FUZZ_SEED ?? Date.now() % 2 ** 32);
const pairs = new Pairs();
after(() => pairs.close());

// xorshift32: the same seed gives the same inputs.
let state = seed || 1;
function below(limit) {
  state ^= state << 13;
  state ^= state >>> 17;
  state ^= state << 5;
  return (state >>> 0) % limit;
}

const seeds = ['conversations', 'peers']
  .map((name) => join(process.env.ORVANE_CORPUS, 'scripts', name))
  .flatMap((folder) => readdirSync(folder).map((name) => join(folder, name)))
  .map((path) =>
    Buffer.concat(
      readSteps(path)
        .filter(([word, rest]) => word === '<' && rest !== 'end')
        .map(([, rest]) => bytesOf(rest)),
    ),
  )
  .filter((bytes) => bytes.length > 0);

function damaged(data) {
  const bytes = [...data];
  for (let i = below(5); i > 0; --i) {
    const at = below(bytes.length + 1);
    const kind = below(4);
    if (kind === 0) bytes.splice(at, 0, ...Array.from({ length: 1 + below(8) }, () => below(256)));
    else if (kind === 1) bytes.splice(at, 1 + below(8));
    else if (kind === 2 && at < bytes.length) bytes[at] ^= 1 << below(8);
    else bytes.splice(at, 0, ...bytes.slice(0, below(40)));
  }
  return Buffer.from(bytes);
}

async function runFor(share, survive) {
  assert(seeds.length > 40);
  const end = Date.now() + seconds * 1000 * share;
  let count = 0;
  for (; Date.now() < end; ++count) {
    const data = damaged(seeds[below(seeds.length)]);
    try {
      await survive(data);
    } catch (error) {
      error.message += `\nseed ${seed}, bytes ${data.toString('hex')}`;
      throw error;
    }
  }
  console.log(`typescript: ${count} inputs, seed ${seed}`);
}

test('the reader finds frames or throws', () =>
  runFor(0.5, (data) => {
    const reader = new FrameReader(4 << 20);
    try {
      while (data.length > 0) {
        const count = 1 + below(data.length);
        for (const frame of reader.feed(data.subarray(0, count))) assert(frame);
        data = data.subarray(count);
      }
    } catch (error) {
      if (!(error instanceof RpcError)) throw error;
    }
  }));

test('a host survives', () =>
  runFor(0.5, async (data) => {
    const { near, far } = await pairs.next();
    const connection = await connect(near);
    const widget = connection.client(BrowserWidgetRpc);
    const quiet = (promise) =>
      promise.catch((error) => {
        if (!(error instanceof RpcError)) throw error;
      });
    const call = quiet(widget.getAccessibilityToken({ value: 9n }));
    const events = widget.whenTooltipChanged({ value: 9n });
    const watching = quiet(
      (async () => {
        for await (const event of events) assert(event);
      })(),
    );
    const serving = widget.onTakeFocus({ value: 9n }, () => ({ taken: true }));
    const [sent] = await once(far, 'data');
    far.resume();
    far.write(sent.subarray(0, 4 + sent.readUInt32LE()));
    far.end(data);
    assert.equal((await connection.closed).code, Code.UNAVAILABLE);
    await Promise.all([call, watching, quiet(serving.ended)]);
    far.destroy();
  }));
