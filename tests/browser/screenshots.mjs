// Pictures of all views, for the README and for whoever changes them: on a desk and on a phone, dark and light.
import { join } from 'node:path';
import { launch } from './browser.mjs';
import { kToken, Robot } from './robot.mjs';

const [program, folder] = process.argv.slice(2);
const robot = new Robot(program, 'korvo');
await robot.start();
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
};
await robot.korvo('set', 'Arm/Pose', '{"x": 0.42, "y": -1.5, "joints": [0.1, 0.7, -0.2]}');
await robot.korvo('call', 'HXFreshness', 'expect', '"Lidar/Scan"', '0.2');
await robot.korvo('call', 'HXFreshness', 'expect', '"Host/Memory/Used"', '5');

const shapes = { desk: { width: 1280, height: 760 }, phone: { width: 390, height: 844 } };
for (const [shape, viewport] of Object.entries(shapes)) {
  for (const colorScheme of ['dark', 'light']) {
    const page = await (await browser.newContext({ viewport, colorScheme })).newPage();
    await page.goto(`${robot.address}/#token=${kToken}`);
    await page.waitForSelector('.row');
    for (const [name, view] of Object.entries(views)) {
      await page.evaluate((wanted) => void (location.hash = wanted), view);
      for (let i = 0; i < 4; ++i) await robot.korvo('raise', 'Door/Open', i % 2 ? 'true' : 'false');
      // The first picture is the README's, with lines that have some length.
      await page.waitForTimeout(shape === 'desk' ? (name === 'memory' ? 40000 : 4000) : 1500);
      await page.screenshot({ path: join(folder, `${name}-${shape}-${colorScheme}.png`) });
    }
  }
}
await browser.close();
await robot.end();
