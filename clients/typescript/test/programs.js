// Programs that tests talk to.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import process from 'node:process';

/** A widget server of its own, with a fresh model. */
export async function startWidgetServer() {
  const folder = mkdtempSync('/tmp/orvane-');
  const socket = join(folder, 'widget.sock');
  const program = spawn(process.env.ORVANE_WIDGET_SERVER, ['--socket', socket]);
  await once(program.stdout, 'data'); // It listens.
  return {
    socket,
    stop: async () => {
      program.kill();
      await once(program, 'exit');
      rmSync(folder, { recursive: true });
    },
  };
}
