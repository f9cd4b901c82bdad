// Pictures of all views, for the README and for whoever changes them: on a desk and on a phone, dark and light; and one of
// all but the first together.
import { readFileSync } from 'node:fs';
import { join } from 'node:path';
import { launch } from './browser.mjs';
import { hasFleet, Hub } from './hub.mjs';
import { kToken, Robot } from './robot.mjs';

const [program, folder] = process.argv.slice(2);
const hub = hasFleet(program) ? await Hub.start(program) : null;
const fleet = ['korvo', 'robot3', 'robot7', 'robot12'].slice(0, hub ? 4 : 1).map((name) => {
  return Object.assign(new Robot(program, name), { hub: hub?.address ?? '' });
});
const [robot, ...others] = fleet;
for (const each of fleet) await each.start();

const browser = await launch();
const plots = ['Host/Processor/Load', 'Host/Memory/Used', 'Host/LoadAverage/1min', 'Host/Memory/Available'];
const views = {
  memory: '#/memory?key=Host%2FMemory%2FUsed',
  list: '#/memory?key=Arm%2FPose',
  plots: `#/plots?p=${plots.map(encodeURIComponent).join('%7C')}`,
  events: '#/events',
  wiring: '#/wiring',
  services: '#/services?service=HXMemory',
  health: '#/health',
  ...(hub ? { fleet: '#/fleet' } : {}),
};
const korvo = (...words) => robot.korvo(...words, '--broker', 'korvo');
await korvo('set', 'Arm/Pose', '{"x": 0.42, "y": -1.5, "joints": [0.1, 0.7, -0.2]}');
await korvo('call', 'HXFreshness', 'expect', '"Lidar/Scan"', '0.2');
await korvo('call', 'HXFreshness', 'expect', '"Host/Memory/Used"', '5');
await others.at(-1)?.kill(); // One that is off.

const shapes = { desk: { width: 1280, height: 760 }, phone: { width: 390, height: 844 } };
for (const [shape, viewport] of Object.entries(shapes)) {
  for (const colorScheme of ['dark', 'light']) {
    const page = await (await browser.newContext({ viewport, colorScheme })).newPage();
    await page.goto(`${robot.address}/#token=${kToken}`);
    await page.waitForSelector('.row');
    for (const [name, view] of Object.entries(views)) {
      await page.evaluate((wanted) => void (location.hash = wanted), view);
      for (let i = 0; i < 4; ++i) await korvo('raise', 'Door/Open', i % 2 ? 'true' : 'false');
      // The first picture is the README's, with lines that have some length.
      await page.waitForTimeout(shape === 'desk' ? (name === 'memory' ? 40000 : 4000) : 1500);
      await page.screenshot({ path: join(folder, `${name}-${shape}-${colorScheme}.png`) });
    }
  }
}

const pictures = Object.keys(views).filter((name) => name !== 'memory' && name !== 'list').map((name) => {
  const bytes = readFileSync(join(folder, `${name}-desk-dark.png`));
  return `<img width="636" alt="" src="data:image/png;base64,${bytes.toString('base64')}">`;
});
const sheet = await browser.newPage({ viewport: { width: 1280, height: 760 } });
await sheet.setContent(`<body style="margin:0;display:grid;grid-template-columns:1fr 1fr;gap:8px;background:#262f3a">${pictures.join('')}`);
await sheet.screenshot({ path: join(folder, 'views.png'), fullPage: true });

await browser.close();
for (const each of fleet) await each.end();
await hub?.end();
