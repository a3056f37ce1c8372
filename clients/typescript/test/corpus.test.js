// What clients/corpus holds for hosts, played by this one.

import assert from 'node:assert/strict';
import { readdirSync } from 'node:fs';
import { basename, join } from 'node:path';
import process from 'node:process';
import { after, test } from 'node:test';
import { Pairs, play } from './scripted.js';

const corpus = process.env.ORVANE_CORPUS;
const scriptsIn = (folder) =>
  readdirSync(join(corpus, folder))
    .filter((name) => name.endsWith('.script'))
    .map((name) => join(corpus, folder, name));
const conversations = scriptsIn('scripts/conversations');
const all = [...conversations, ...scriptsIn('scripts/peers')];
const pairs = new Pairs();
after(() => pairs.close());

async function playAll(options) {
  assert(all.length > 50);
  for (const path of all) {
    await play(path, pairs, options).catch((error) => {
      error.message = `${basename(path)}: ${error.message}`;
      throw error;
    });
  }
}

test('each script goes as it says', async () => {
  await playAll({});
  console.log(`typescript: ${all.length} scripts agree`);
});

test('each goes so when bytes come one by one', () => playAll({ oneByOne: true }));

test('all in progress ends wherever the widget dies', async () => {
  let places = 0;
  for (const path of conversations) {
    let dieAfter = 0;
    while (await play(path, pairs, { dieAfter })) ++dieAfter;
    assert(dieAfter > 4);
    places += dieAfter;
  }
  console.log(`typescript: the widget died at ${places} places`);
});
