// The client for browsers and Node, as a program of Node uses it.
//
//   node client_test.mjs KORVO FOLDER
import assert from 'node:assert/strict';
import { existsSync } from 'node:fs';
import { createRequire } from 'node:module';
import { kToken, Robot as Broker } from '../browser/robot.mjs';

const [, , program, folder] = process.argv;
if (!existsSync(`${folder}/korvo.js`)) {
  console.error('skipped: npm could not fetch what the client is built with');
  process.exit(77);
}
const { connect } = await import(`${folder}/korvo.js`);
const { WebSocket } = createRequire(`${folder}/work/`)('ws');

const broker = new Broker(program);
await broker.start();

const test = async (what, body) => {
  let clock;
  const limit = new Promise((_, reject) => void (clock = setTimeout(() => reject(new Error(`${what}: nothing came`)), 30000)));
  await Promise.race([body(), limit]);
  clearTimeout(clock);
  console.log(`passed: ${what}`);
};
/** What callbacks are told, to be waited for. */
class Told {
  all = [];
  #look = () => {};
  add = (...told) => {
    this.all.push(...told);
    this.#look();
  };
  until(isThere) {
    return new Promise((resolve) => {
      this.#look = () => isThere(this.all) && resolve(this.all);
      this.#look();
    });
  }
}
const latestOf = (changes, key) => changes.flat().filter((change) => change.key === key).at(-1);

let robot;
try {
  await test('a wrong token and a silent port are told of', async () => {
    await assert.rejects(connect('http://127.0.0.1:1', { WebSocket }), /nobody answers at http:\/\/127.0.0.1:1/);
    await assert.rejects(connect(broker.address, { WebSocket, token: 'wrong' }), /the token is not that of the server/);
    robot = await connect(`${broker.address}/#token=${kToken}`, { WebSocket });
    assert.deepEqual([robot.broker, robot.mayWrite, robot.status], ['robot', true, 'open']);
  });

  await test('values come back as what they were', async () => {
    const values = [1, -2.5, true, 'täxt', null, [1, [2.5]], { a: { b: [] } }, 2 ** 40, 2n ** 62n];
    for (const [i, value] of values.entries()) await robot.set(`Js/Value/${i}`, value);
    assert.deepEqual(await robot.getAll(values.map((_, i) => `Js/Value/${i}`)), values);
    await robot.set('Js/Typed', 1, 'Double');
    assert.equal(await broker.korvo('get', 'Js/Typed'), '1.0');
    await robot.set('Js/Typed', 1, 'Int64');
    assert.equal(await robot.get('Js/Typed'), 1);
    assert.deepEqual(await robot.getAll(['Js/None']), [undefined]);
    await assert.rejects(robot.get('Js/None'), /no key Js\/None/);
    await assert.rejects(robot.set('Js/Typed', 'text', 'Bool'), /is no Bool/);
  });

  await test('a key is described, found, explained and removed', async () => {
    await robot.raise('Js/Event', { open: true });
    await robot.describe('Js/Event', 'A door.');
    const about = await robot.about('Js/Event');
    assert.deepEqual([about.kind, about.description, about.explanation.value], ['Event', 'A door.', { open: true }]);
    await robot.remove('Js/Event');
    assert.deepEqual(await robot.getAll(['Js/Event']), [undefined]);
  });

  const told = new Told();
  await test('what is watched is told of, also when it comes and goes', async () => {
    const stop = robot.watch(['Js/Watched', 'Js/Later'], told.add);
    await told.until((all) => latestOf(all, 'Js/Watched')?.type === 'none' && latestOf(all, 'Js/Later')?.type === 'none');
    for (const value of [0.5, [1, 'two'], 2n ** 60n, true]) {
      await robot.set('Js/Watched', value);
      await told.until((all) => {
        const seen = latestOf(all, 'Js/Watched');
        return JSON.stringify(seen.value, (_, each) => String(each)) === JSON.stringify(value, (_, each) => String(each));
      });
    }
    assert.match(latestOf(told.all, 'Js/Watched').author, /HXWeb|korvo/);
    await robot.set('Js/Later', 7);
    await told.until((all) => latestOf(all, 'Js/Later').value === 7);
    await robot.remove('Js/Later');
    await told.until((all) => latestOf(all, 'Js/Later').type === 'none');
    stop();
    const before = told.all.length;
    await robot.set('Js/Watched', 99);
    const after = new Told();
    robot.watch(['Js/Watched'], after.add);
    await after.until((all) => latestOf(all, 'Js/Watched')?.value === 99);
    assert.equal(told.all.length, before);
  });

  await test('methods are called and signals heard', async () => {
    assert.ok((await robot.services()).includes('HXMemory'));
    const memory = await robot.service('HXMemory');
    assert.ok(memory.methods.some(({ name, text }) => name === 'getData' && text));
    assert.equal(await robot.call('HXMemory', 'getData', 'Js/Watched'), 99);
    await assert.rejects(robot.call('HXMemory', 'getData', 'Js/None'), /not found/);
    await assert.rejects(robot.call('HXMemory', 'fly'), /no method fly/);
    await assert.rejects(robot.listen('HXMemory', 'fly', () => {}), /no such signal/);
  });

  await test('a broker that is killed and started again is found again', async () => {
    const statuses = new Told();
    const again = new Told();
    robot.onStatus = statuses.add;
    robot.watch(['Js/Watched'], again.add);
    await again.until((all) => latestOf(all, 'Js/Watched'));
    await broker.kill();
    await statuses.until((all) => all.includes('lost'));
    await assert.rejects(robot.get('Js/Watched'), /no connection/);
    await broker.start();
    await statuses.until((all) => all.at(-1) === 'open');
    await robot.set('Js/Watched', 'again');
    await again.until((all) => latestOf(all, 'Js/Watched').value === 'again');
    robot.close();
    await statuses.until((all) => all.at(-1) === 'lost');
  });
} finally {
  robot?.close();
  await broker.end();
}
