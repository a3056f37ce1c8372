// Recorded sessions, played to a real widget server.

import assert from 'node:assert/strict';
import { readdirSync } from 'node:fs';
import { join } from 'node:path';
import process from 'node:process';
import { test } from 'node:test';
import { connect } from '../dist/index.js';
import { BrowserWidgetRpc } from '../dist/rpc/browser/browser_widget_pb.js';
import { startWidgetServer } from './programs.js';
import { Session } from './session.js';

const folder = process.env.ORVANE_SESSIONS;
const sessions = readdirSync(folder).filter((name) => name.endsWith('.session'));

test('there are sessions', () => assert(sessions.length > 0));

for (const name of sessions) {
  test(`the widget server answers ${name} as recorded`, async () => {
    const server = await startWidgetServer();
    try {
      const connection = await connect(server.socket);
      connection.client(BrowserWidgetRpc);
      const counts = await new Session(connection).play(join(folder, name));
      console.log(`typescript: ${name}: ${JSON.stringify(counts)}`);
      assert(counts.call > 0);
      await connection.close();
    } finally {
      await server.stop();
    }
  });
}
