// How fast the page is: figures for docs/performance.md. On a quiet machine.
//
//   tests/browser/run FOLDER KORVO --aims [AIM...]
import { spawn } from 'node:child_process';
import { createConnection } from 'node:net';
import { launch } from './browser.mjs';
import { kToken, Robot } from './robot.mjs';

const [program, ...wanted] = process.argv.slice(2);
const sleep = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
const tell = (aim, figure) => console.log(`${aim}: ${figure}`);

async function withRobot(body) {
  const robot = new Robot(program);
  await robot.start();
  try {
    await body(robot);
  } finally {
    await robot.end();
  }
}

async function openPage(browser, robot, hash = '') {
  const page = await (await browser.newContext({ viewport: { width: 1280, height: 800 } })).newPage();
  await page.goto(`${robot.address}/#token=${kToken}`);
  await page.locator('.row').first().waitFor();
  if (hash) await page.evaluate((text) => void (location.hash = text), hash);
  return page;
}

/** Frames that the browser draws in a second. */
const framesOf = (page) => page.evaluate(() => new Promise((resolve) => {
  let frames = 0;
  const began = performance.now();
  const count = () => {
    ++frames;
    if (performance.now() - began < 5000) requestAnimationFrame(count);
    else resolve((frames * 1000) / (performance.now() - began));
  };
  requestAnimationFrame(count);
}));

/** From a write to the new value on the screen, in milliseconds. */
async function writeToDrawn(page, robot) {
  await robot.korvo('set', 'Aim/Drawn', '0');
  await page.evaluate(() => void (location.hash = '#/memory?key=Aim%2FDrawn'));
  await page.locator('.key .large').waitFor();
  return page.evaluate(async () => {
    const socket = new WebSocket(`ws://${location.host}/page`);
    await new Promise((resolve) => void (socket.onopen = resolve));
    const shown = document.querySelector('.key .large');
    const took = [];
    for (let i = 1; i <= 60; ++i) {
      const began = performance.now();
      const drawn = new Promise((resolve) => {
        const look = () => (shown.textContent === String(i) ? resolve() : requestAnimationFrame(look));
        requestAnimationFrame(look);
      });
      socket.send(JSON.stringify({ op: 'set', key: 'Aim/Drawn', value: i, type: 'Int' }));
      await drawn;
      took.push(performance.now() - began);
    }
    socket.close();
    return took;
  });
}

/** A client that has the first rows watched, and takes each batch at once. */
function plainClient(robot) {
  const socket = new WebSocket(`ws://127.0.0.1:${robot.port}/page`, { headers: { Authorization: `Bearer ${kToken}` } });
  socket.binaryType = 'arraybuffer';
  socket.onopen = () => socket.send(JSON.stringify({ op: 'watch', ids: Array.from({ length: 40 }, (_, i) => i + 10) }));
  socket.onmessage = ({ data }) => {
    if (typeof data !== 'string') socket.send(JSON.stringify({ op: 'drawn', number: new Uint32Array(data, 0, 2)[1] }));
  };
  return socket;
}

const aims = {
  async firstView(browser) {
    for (const keys of [1000, 100000]) {
      await withRobot(async (robot) => {
        await robot.write(keys, 1e9, keys / 25000 + 0.1);
        const took = [];
        for (let i = 0; i < 5; ++i) {
          const page = await (await browser.newContext()).newPage();
          const began = performance.now();
          await page.goto(`${robot.address}/#token=${kToken}`);
          await page.locator('.row').first().waitFor();
          took.push(performance.now() - began);
          await page.close();
        }
        // The first one finds a server that follows nothing yet, and a browser that has read no script.
        tell(`first view, ${keys} keys`, `${Math.round(median(took))} ms; the very first ${Math.round(took[0])} ms`);
      });
    }
  },
  async drawn(browser) {
    await withRobot(async (robot) => {
      const page = await openPage(browser, robot);
      tell('from a write to drawn, median', `${Math.round(median(await writeToDrawn(page, robot)))} ms`);
    });
  },
  async frames(browser) {
    await withRobot(async (robot) => {
      await robot.write(100000, 1e9, 2);
      const page = await openPage(browser, robot, '#/memory?find=Load%2F0');
      const clients = [1, 2, 3, 4].map(() => plainClient(robot));
      await sleep(2000);
      const idle = await framesOf(page);
      const writing = robot.write(100000, 50000, 9);
      await sleep(2000);
      const busy = await framesOf(page);
      tell('frames at 50,000 changes a second, by those of an idle page', `${(busy / idle).toFixed(2)} (${Math.round(busy)} of ${Math.round(idle)}); ${await writing} changes a second`);
      for (const client of clients) client.close();
    });
  },
  async writes(browser) {
    await withRobot(async (robot) => {
      const rates = { follower: [], elsewhere: [], here: [] };
      const measure = async (whom, end) => {
        await sleep(700);
        for (let i = 0; i < 2; ++i) rates[whom].push(await robot.write(1000, 1e9, 2));
        await end();
      };
      for (let round = 0; round < 3; ++round) {
        const follower = spawn(program, ['watch', 'Load/'], { env: robot.environment, stdio: 'ignore' });
        await measure('follower', () => follower.kill());
        const client = plainClient(robot);
        await measure('elsewhere', () => client.close());
        const page = await openPage(browser, robot, '#/memory');
        await measure('here', () => page.context().close());
      }
      const ratio = (whom) => (median(rates.follower) / median(rates[whom])).toFixed(2);
      tell("the broker's writes with a page, by those with one follower", `${ratio('elsewhere')}; ${ratio('here')} with the browser on the robot's own processors`);
    });
  },
  async silent(browser) {
    await withRobot(async (robot) => {
      const page = await openPage(browser, robot);
      const alone = median(await writeToDrawn(page, robot));
      const sockets = Array.from({ length: 1000 }, () => createConnection(robot.port, '127.0.0.1').on('error', () => {}));
      const flood = plainClient(robot);
      await sleep(1000);
      const flooding = setInterval(() => { for (let i = 0; i < 200; ++i) flood.send('{"op":"find","text":"a"}'); }, 10);
      const beside = median(await writeToDrawn(page, robot));
      clearInterval(flooding);
      flood.close();
      for (const socket of sockets) socket.destroy();
      tell('write to drawn beside 1,000 silent and a flooding one, by alone', `${(beside / alone).toFixed(2)} (${Math.round(beside)} by ${Math.round(alone)} ms)`);
    });
  },
  async hour(browser) {
    await withRobot(async (robot) => {
      const page = await (await browser.newContext()).newPage();
      // The server's batches with a clock that runs sixty times as fast: a minute of points in each second.
      await page.routeWebSocket(/\/page$/, (socket) => {
        const server = socket.connectToServer();
        let number = 0;
        let time = Date.now();
        socket.onMessage((message) => {
          const { op, series } = JSON.parse(message);
          if (op === 'drawn') return void setTimeout(next, 16);
          server.send(message);
          if (op === 'plot' && series.length > 0 && number === 0) next();
        });
        server.onMessage((message) => void (typeof message === 'string' && socket.send(message)));
        const next = () => {
          const points = 240; // Of two seconds, four for each of thirty frames.
          const bytes = new ArrayBuffer(24 + 16 * points + 8);
          new Uint32Array(bytes, 0, 6).set([0x3142574b, ++number, 0, 1, points, 0]);
          const times = new Float64Array(bytes, 24, points);
          for (let i = 0; i < points; ++i) times[i] = time += 2000 / points;
          new Float64Array(bytes, 24 + 8 * points, points).fill(Math.random());
          new Uint32Array(bytes, 24 + 16 * points, 2).set([1, points]);
          socket.send(Buffer.from(bytes));
        };
      });
      await page.goto(`${robot.address}/?kiosk#token=${kToken}`);
      await page.waitForFunction(() => document.querySelector('main'));
      await page.evaluate(() => void (location.hash = '#/plots?p=Aim%2FHour&s=600'));
      const session = await page.context().newCDPSession(page);
      const heap = async () => {
        await session.send('HeapProfiler.collectGarbage');
        return (await session.send('Runtime.getHeapUsage')).usedSize / (1 << 20);
      };
      const sizes = [];
      for (let quarter = 0; quarter < 4; ++quarter) {
        await sleep(15000);
        sizes.push((await heap()).toFixed(1));
      }
      tell("an hour's page, MiB at each quarter", sizes.join(', '));
    });
  },
};

const browser = await launch();
try {
  for (const [name, aim] of Object.entries(aims)) if (wanted.length === 0 || wanted.includes(name)) await aim(browser);
} finally {
  await browser.close();
}
