// Pictures of all views, for the README.
import { join } from 'node:path';
import { kToken, launch, Robot } from './robot.mjs';

const [program, folder] = process.argv.slice(2);
const robot = new Robot(program);
await robot.start('robot');
const browser = await launch();
const views = {
  memory: '#/memory?key=Host%2FMemory%2FUsed',
  plots: '#/plots?p=Host%2FMemory%2FUsed%7CHost%2FProcessor%2FLoad%7CHost%2FLoadAverage%2F1min%7CHost%2FMemory%2FAvailable',
  events: '#/events',
  wiring: '#/wiring',
  services: '#/services?service=HXMemory',
};
for (const colorScheme of ['dark', 'light']) {
  const page = await (await browser.newContext({ viewport: { width: 1280, height: 760 }, colorScheme })).newPage();
  await page.goto(`${robot.address}/#token=${kToken}`);
  await page.waitForSelector('.row');
  for (const [name, view] of Object.entries(views)) {
    await page.evaluate((wanted) => void (location.hash = wanted), view);
    for (let i = 0; i < 5; ++i) await robot.korvo('raise', 'Door/Open', i % 2 ? 'true' : 'false');
    await page.waitForTimeout(6000);
    await page.screenshot({ path: join(folder, `${name}-${colorScheme}.png`) });
  }
}
await browser.close();
await robot.end();
