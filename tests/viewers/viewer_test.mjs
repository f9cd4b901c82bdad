// What viewers of robots see, by client libraries that are not ours.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { readFileSync } from 'node:fs';
import { kToken, Robot } from './robot.mjs';

const require = createRequire(import.meta.url);
const { FoxgloveClient } = require('@foxglove/ws-protocol');
const { WebSocket } = require('ws');
const { McapStreamReader } = require('@mcap/core');
const Zstd = require('@foxglove/wasm-zstd');

const robot = new Robot(process.argv[2]);
const text = (bytes) => Buffer.from(bytes.buffer, bytes.byteOffset, bytes.byteLength).toString();
const bytesOf = (value) => new TextEncoder().encode(JSON.stringify(value));

const test = async (what, body) => {
  const began = Date.now();
  let clock;
  const limit = new Promise((_, reject) => void (clock = setTimeout(() => reject(new Error(`${what}: nothing came`)), 30000)));
  await Promise.race([body(), limit]);
  clearTimeout(clock);
  console.log(`passed: ${what} (${Date.now() - began} ms)`);
};

/** A client, and all that it was told, for tests to wait for. */
class Viewer {
  channels = new Map();
  services = new Map();
  heard = [];
  waiting = new Set();

  constructor(subprotocol, token = kToken) {
    this.socket = new WebSocket(`ws://127.0.0.1:${robot.port}/?token=${token}`, [subprotocol]);
    this.client = new FoxgloveClient({ ws: this.socket });
    for (const kind of ['serverInfo', 'status', 'message', 'time', 'parameterValues', 'serviceCallResponse',
                        'connectionGraphUpdate', 'serviceCallFailure', 'unadvertise', 'error', 'close']) {
      this.client.on(kind, (event) => this.hear(kind, event));
    }
    this.client.on('advertise', (channels) => {
      for (const channel of channels) this.channels.set(channel.topic, channel);
      this.hear('advertise', channels);
    });
    this.client.on('advertiseServices', (services) => {
      for (const service of services) this.services.set(service.name, service);
      this.hear('advertiseServices', services);
    });
  }

  hear(kind, event) {
    this.heard.push([kind, event]);
    for (const look of this.waiting) look();
  }

  /** Waits until `find` finds something in what was and will be heard of a kind. */
  waitFor(kind, find = () => true) {
    return new Promise((resolve) => {
      const look = () => {
        const found = this.heard.find(([its, event]) => its === kind && find(event));
        if (!found) return;
        this.waiting.delete(look);
        resolve(found[1]);
      };
      this.waiting.add(look);
      look();
    });
  }

  async channel(topic) {
    await this.waitFor('advertise', () => this.channels.has(topic));
    return this.channels.get(topic);
  }

  value(subscription, find) {
    return this.waitFor('message', (event) => event.subscriptionId === subscription && find(JSON.parse(text(event.data)).value));
  }

  async call(service, payload) {
    await this.waitFor('advertiseServices', () => this.services.has(service));
    const { id } = this.services.get(service);
    const callId = this.heard.length;
    this.client.sendServiceCallRequest({ serviceId: id, callId, encoding: 'json', data: bytesOf(payload) });
    return Promise.race([
      this.waitFor('serviceCallResponse', (event) => event.callId === callId).then((event) => JSON.parse(text(event.data))),
      this.waitFor('serviceCallFailure', (event) => event.callId === callId).then((event) => { throw new Error(event.message); }),
    ]);
  }
}

/** Runs one of the library's own programs until something is printed, and ends it as a person does. */
async function example(words, isSeen, signal = 'SIGINT') {
  const child = spawn(process.execPath, ['node_modules/@foxglove/ws-protocol-examples/dist/cjs/ws-protocol-examples/src/index.js', ...words],
                      { stdio: ['ignore', 'pipe', 'pipe'] });
  let printed = '';
  await new Promise((resolve, reject) => {
    const hear = (bytes) => {
      printed += bytes;
      if (isSeen(printed)) resolve();
    };
    child.stdout.on('data', hear);
    child.stderr.on('data', hear);
    child.on('exit', (status) => reject(new Error(`it ended with ${status}: ${printed}`)));
  });
  child.removeAllListeners('exit');
  const ended = new Promise((resolve) => child.on('exit', resolve));
  child.kill(signal);
  await ended;
  return printed;
}

robot.parameters = ['Arm/'];
await robot.start();
try {
  await robot.korvo('set', 'Arm/Speed', '0.5');
  await robot.korvo('set', 'Arm/Enabled', 'true');
  await robot.korvo('set', 'Arm/Pose', '{"x": 1.5, "y": [1, 2]}');
  await robot.korvo('raise', 'Door', 'true');

  for (const subprotocol of ['foxglove.websocket.v1', 'foxglove.sdk.v1']) {
    await test(`${subprotocol} is spoken`, async () => {
      const viewer = new Viewer(subprotocol);
      const info = await viewer.waitFor('serverInfo');
      assert.equal(viewer.socket.protocol, subprotocol);
      assert.ok(info.capabilities.includes('clientPublish') && info.sessionId);
      viewer.client.close();
    });
  }
  await test('another subprotocol, a wrong token and another origin are refused', async () => {
    const outcome = (path, protocols, options) => new Promise((resolve) => {
      const socket = new WebSocket(`ws://127.0.0.1:${robot.port}${path}`, protocols, options);
      socket.on('open', () => resolve('opened'));
      socket.on('unexpected-response', (_, response) => resolve(response.statusCode));
      socket.on('error', () => {});
    });
    const token = `/?token=${kToken}`;
    assert.equal(await outcome(token, ['mqtt']), 400);
    assert.equal(await outcome('/?token=not-the-token-at-all', ['foxglove.sdk.v1']), 401);
    assert.equal(await outcome(token, ['foxglove.sdk.v1'], { origin: 'https://evil.example' }), 403);
    assert.equal(await outcome(token, ['foxglove.sdk.v1'], { origin: 'https://viewer.example' }), 'opened');
  });

  const viewer = new Viewer('foxglove.sdk.v1');
  await test('a channel has a schema, its present value, and every change', async () => {
    const channel = await viewer.channel('Arm/Pose');
    assert.deepEqual(JSON.parse(channel.schema), {
      type: 'object',
      properties: { value: { type: 'object', properties: { x: { type: 'number' }, y: { type: 'array', items: { type: 'integer' } } } } },
    });
    const pose = viewer.client.subscribe(channel.id);
    await viewer.value(pose, (value) => value.x === 1.5);
    const speed = viewer.client.subscribe((await viewer.channel('Arm/Speed')).id);
    await viewer.value(speed, (value) => value === 0.5);
    await robot.korvo('set', 'Arm/Speed', '0.75');
    await viewer.value(speed, (value) => value === 0.75);
  });
  await test('the time never goes back', async () => {
    const times = viewer.heard.filter(([kind]) => kind === 'time').map(([, event]) => event.timestamp);
    assert.ok(times.length > 1);
    assert.ok(times.every((time, i) => i === 0 || time >= times[i - 1]));
  });
  await test('a method is a service, and fails in its own words', async () => {
    assert.deepEqual(await viewer.call('HXMemory.getType', { key: 'Door' }).catch((error) => error.message), { value: 'Event' });
    await assert.rejects(viewer.call('HXMemory.getType', {}), /the argument .* is missing/);
  });
  await test('what is published is raised', async () => {
    const id = viewer.client.advertise({ topic: 'Door', encoding: 'json', schemaName: 'any' });
    const door = viewer.client.subscribe((await viewer.channel('Door')).id);
    await viewer.value(door, (value) => value === true);
    viewer.client.sendMessage(id, bytesOf({ value: false }));
    await viewer.value(door, (value) => value === false);
  });
  await test('the graph and errors are told', async () => {
    viewer.client.subscribeConnectionGraph();
    await viewer.waitFor('connectionGraphUpdate', (update) => update.publishedTopics.some((topic) => topic.name === 'Arm/Speed'));
    viewer.client.subscribe(4000000);
    await viewer.waitFor('status', (status) => status.level === 2 && status.message.includes('4000000'));
  });
  await test('parameters are set as the type that they have', async () => {
    viewer.client.subscribeParameterUpdates(['Arm/Speed']);
    viewer.client.setParameters([{ name: 'Arm/Speed', value: 2 }], 'mine');
    await viewer.waitFor('parameterValues', (event) => event.id === 'mine' && event.parameters[0].value === 2);
    assert.equal(await robot.korvo('get', 'Arm/Speed'), '2.0');
  });
  await test('none of it was an error to the library', () => {
    assert.deepEqual(viewer.heard.filter(([kind]) => kind === 'error' || kind === 'close'), []);
  });

  const address = `ws://127.0.0.1:${robot.port}/?token=${kToken}`;
  await test('param-client sets what it finds', async () => {
    await example(['param-client', address], (printed) => /Received 1 parameter/.test(printed), 'SIGTERM');
  });
  await test('mcap-record writes what another library reads', async () => {
    const file = join(robot.folder, 'viewer.mcap');
    const writing = setInterval(() => void robot.korvo('set', 'Arm/Speed', String(Math.random())), 200);
    await example(['mcap-record', address, '--output', file], (printed) => (printed.match(/subscribing to/g) ?? []).length >= 4);
    clearInterval(writing);
    await Zstd.isLoaded;
    const reader = new McapStreamReader({ decompressHandlers: { zstd: (data, size) => Zstd.decompress(data, Number(size)) } });
    reader.append(readFileSync(file));
    const topics = new Set();
    for (let record; (record = reader.nextRecord()); ) if (record.type === 'Channel') topics.add(record.topic);
    assert.ok(reader.done());
    assert.ok(topics.has('Arm/Speed') && topics.has('Door'), [...topics].join(' '));
  });

  await test('another memory is another session', async () => {
    const before = (await viewer.waitFor('serverInfo')).sessionId;
    await robot.kill();
    await viewer.waitFor('close');
    await robot.start();
    const again = new Viewer('foxglove.sdk.v1');
    assert.notEqual((await again.waitFor('serverInfo')).sessionId, before);
    again.client.close();
  });
} finally {
  await robot.end();
}
