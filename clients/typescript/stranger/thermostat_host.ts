// Uses home.Thermostat: calls it, watches its events, answers its questions.

import { connect, type Events, RpcError } from 'orvane';
import { Thermostat, type TemperatureChanged } from './home/thermostat_pb.js';

const kitchen = { value: 7n };

async function show(changes: Events<TemperatureChanged>): Promise<void> {
  for await (const event of changes) {
    console.log(`event: the kitchen has ${event.temperature?.degrees ?? 0} degrees`);
  }
}

const connection = await connect(process.argv[2]);
const thermostat = connection.client(Thermostat);
const changes = thermostat.whenTemperatureChanged(kitchen);
const showing = show(changes);
const serving = thermostat.onConfirmHeat(kitchen, (call) => {
  const degrees = call.target?.degrees ?? 0;
  const wanted = degrees < 30;
  console.log(`asked: are ${degrees} degrees wanted? ${wanted ? 'yes' : 'no'}`);
  return { wanted };
});
for (const degrees of [21, 28, 40]) {
  try {
    await thermostat.heat({ room: kitchen, target: { degrees } }, { timeoutMs: 10_000 });
    console.log('answer: done');
  } catch (error) {
    if (!(error instanceof RpcError)) throw error;
    console.log(`answer: ${error.text}`);
  }
}
serving.close();
changes.close();
await showing;
await connection.close();
