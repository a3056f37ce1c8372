#!/usr/bin/env node
// A host in TypeScript's package, over our client or gRPC's, and the C++ server of
// that stack.
//
//   typescript_peer.js FIGURE --server PROGRAM --server-interface NAME
//       --interface orvane|grpc --in-flight N --pin same|across
//       --duration-ms N --warm-up-ms N
//
// FIGURE is unary or events. Prints one line of JSON, as the programs in C++ do
// (../transport/measure.h). `stage` puts it beside the modules that it imports.

import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import process from 'node:process';
import { setTimeout as sleep } from 'node:timers/promises';
import { parseArgs } from 'node:util';
import { create, fromBinary, toBinary } from '@bufbuild/protobuf';
import { EmptySchema } from '@bufbuild/protobuf/wkt';
import { connect } from 'orvane';
import { EventSubscriptionSchema } from 'orvane/rpc/event_subscription_pb.js';
import { CursorChangedSchema } from 'orvane/rpc/browser/cursor_pb.js';
import { PayloadSchema, PeerRpc } from './benchmarks/transport/peer_pb.js';

// As in measure.h.
const BURST = 256;
const BURSTS_IN_FLIGHT = 8;

const START_LIMIT_MS = 30_000;

/** Counts operations once it is warm, until the duration is over. */
class Meter {
  #warmAt;
  #begun = 0; // Once it is warm.
  #ended = 0;
  #operations = 0;
  #times = [];
  isDone = false;

  constructor(warmUpMs, durationMs) {
    this.#warmAt = performance.now() + warmUpMs;
    this.durationMs = durationMs;
  }

  /** Call it when operations have ended. False once the measurement is over. */
  ended(operations, begun) {
    const now = performance.now();
    if (this.#begun === 0) {
      if (now >= this.#warmAt) this.#begun = now;
      return true;
    }
    if (this.isDone) return false;
    this.#operations += operations;
    if (begun !== undefined) this.#times.push(now - begun);
    this.isDone = now >= this.#begun + this.durationMs;
    if (this.isDone) this.#ended = now;
    return !this.isDone;
  }

  results() {
    if (!this.isDone) throw new Error('the connection broke');
    const results = {
      operations: this.#operations,
      per_s: (this.#operations * 1e3) / (this.#ended - this.#begun),
    };
    const times = this.#times.sort((a, b) => a - b);
    if (times.length > 0) {
      const at = (percent) => 1e3 * times[Math.floor(((times.length - 1) * percent) / 100)];
      Object.assign(results, { p50_us: at(50), p99_us: at(99) });
    }
    return results;
  }
}

async function callInFlight(inFlight, meter, echo) {
  const payload = create(PayloadSchema);
  const call = async () => {
    let begun;
    do {
      begun = performance.now();
      await echo(payload);
    } while (meter.ended(1, begun));
  };
  await Promise.all(Array.from({ length: inFlight }, call));
}

async function runOrvane(figure, inFlight, path, meter) {
  const connection = await connect(path);
  const peer = connection.client(PeerRpc);
  if (figure === 'unary') {
    await callInFlight(inFlight, meter, (payload) => peer.echo(payload));
  } else {
    const asked = new Set();
    const ask = () => {
      const call = peer.askBurst({}).finally(() => asked.delete(call));
      asked.add(call);
    };
    const events = peer.whenCursorChanged({ value: 1n });
    await peer.echo({}); // The subscription has been seen.
    for (let i = 0; i < BURSTS_IN_FLIGHT; ++i) ask();
    let count = 0;
    for await (const event of events) {
      if (event === undefined || ++count % BURST !== 0) continue;
      if (!meter.ended(BURST)) break;
      ask();
    }
    await Promise.all(asked);
  }
  await connection.close();
}

async function runGrpc(figure, inFlight, path, meter) {
  const { Client, credentials } = await import('@grpc/grpc-js');
  const client = new Client(`unix:${path}`, credentials.createInsecure());
  const bytesOf = (schema) => (message) => Buffer.from(toBinary(schema, message));
  const messageOf = (schema) => (bytes) => fromBinary(schema, bytes);
  if (figure === 'unary') {
    const [toBytes, fromBytes] = [bytesOf(PayloadSchema), messageOf(PayloadSchema)];
    const echo = (payload) =>
      new Promise((resolve, reject) => {
        client.makeUnaryRequest('/benchmarks.PeerRpc/Echo', toBytes, fromBytes, payload, (error, answer) => {
          if (error) reject(error);
          else resolve(answer);
        });
      });
    await callInFlight(inFlight, meter, echo);
  } else {
    const call = client.makeBidiStreamRequest(
      '/benchmarks.PeerRpc/WhenCursorChanged',
      bytesOf(EventSubscriptionSchema),
      messageOf(CursorChangedSchema),
    );
    const subscription = create(EventSubscriptionSchema);
    call.on('error', () => undefined); // Cancelled below.
    for (let i = 0; i < BURSTS_IN_FLIGHT; ++i) call.write(subscription);
    let count = 0;
    await new Promise((resolve) => {
      call.on('data', () => {
        if (++count % BURST !== 0) return;
        if (meter.ended(BURST)) call.write(subscription);
        else resolve();
      });
    });
    call.cancel();
  }
  client.close();
}

/** The cores that this process may use. */
function allowedCores() {
  const [, list] = /^Cpus_allowed_list:\s*(.*)$/m.exec(readFileSync('/proc/self/status', 'utf8'));
  return list.split(',').flatMap((range) => {
    const [first, last = first] = range.split('-').map(Number);
    return Array.from({ length: last - first + 1 }, (_, i) => first + i);
  });
}

const { positionals, values } = parseArgs({
  allowPositionals: true,
  options: {
    server: { type: 'string' },
    'server-interface': { type: 'string', default: '' },
    interface: { type: 'string' },
    'in-flight': { type: 'string', default: '1' },
    pin: { type: 'string', default: 'same' },
    'duration-ms': { type: 'string', default: '300' },
    // Before anything is measured: the compiler of Node.js takes its time.
    'warm-up-ms': { type: 'string', default: '3000' },
  },
});
const [figure] = positionals;
const cores = allowedCores();
const folder = mkdtempSync('/tmp/orvane-benchmark-');
const path = join(folder, 'socket');
const serverArguments = [figure, '--socket', path, '--core', String(values.pin === 'same' ? cores[0] : cores[1])];
if (values['server-interface']) serverArguments.push('--interface', values['server-interface']);
const server = spawn(values.server, serverArguments, { stdio: ['ignore', 'inherit', 'inherit'] });
try {
  // Node.js cannot pin itself; all its threads follow.
  execFileSync('taskset', ['--all-tasks', '--pid', '--cpu-list', String(cores[0]), String(process.pid)], {
    stdio: 'ignore',
  });
  const until = performance.now() + START_LIMIT_MS;
  while (!existsSync(path)) {
    if (server.exitCode !== null || performance.now() > until) throw new Error('the server does not listen');
    await sleep(10);
  }
  const meter = new Meter(Number(values['warm-up-ms']), Number(values['duration-ms']));
  const run = values.interface === 'grpc' ? runGrpc : runOrvane;
  await run(figure, Number(values['in-flight']), path, meter);
  console.log(JSON.stringify(meter.results()));
} finally {
  server.kill('SIGKILL');
  await once(server, 'exit').catch(() => undefined);
  rmSync(folder, { recursive: true });
}
