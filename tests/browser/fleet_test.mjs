// A fleet in the page: a hub, a desk from which one looks at it, and a robot.
import assert from 'node:assert/strict';
import { launch } from './browser.mjs';
import { hasFleet, Hub } from './hub.mjs';
import { complaintsOf, open, said, test } from './kit.mjs';
import { Robot } from './robot.mjs';

const program = process.argv[2];
if (!hasFleet(program)) {
  console.log('skipped: no fleet without nats-server and libnats');
  process.exit(0);
}
const hub = await Hub.start(program);
const [desk, robot] = ['desk', 'robot7'].map((name) => Object.assign(new Robot(program, name), { hub: hub.address }));
await robot.start();
await desk.start();
const browser = await launch();
try {
  await robot.korvo('set', 'Arm/Speed', '0.5', '--broker', 'robot7');
  const page = await open(browser, desk);
  const tile = page.getByRole('listitem').filter({ hasText: 'robot7' });

  await test('robots are tiles with their state', async () => {
    await page.getByRole('link', { name: 'Fleet' }).click();
    await tile.getByText('online').waitFor();
    await tile.getByText('queued').waitFor();
    await tile.getByText(/seen/).waitFor();
    assert.deepEqual(await complaintsOf(page), []);
  });

  await test("a click leads into a robot's memory, and its keys are its own to change", async () => {
    await tile.getByRole('button', { name: 'robot7' }).click();
    await page.getByRole('row').filter({ hasText: 'Speed' }).filter({ hasText: '0.5' }).click();
    await page.getByRole('heading', { name: 'robot7/Arm/Speed' }).waitFor();
    await page.getByLabel('Value', { exact: true }).last().fill('0.75');
    await page.getByRole('button', { name: 'Set', exact: true }).click();
    await page.getByLabel('Value', { exact: true }).first().filter({ hasText: '0.75' }).waitFor();
    assert.equal(await robot.korvo('get', 'Arm/Speed', '--broker', 'robot7'), '0.75');
    assert.deepEqual(await complaintsOf(page), []);
  });

  await test('its services are called like ours', async () => {
    await page.getByRole('link', { name: 'Services' }).click();
    await page.getByRole('button', { name: 'robot7/HXMemory' }).click();
    await page.getByLabel('Find a method').fill('getType');
    const form = page.locator('details').filter({ hasText: 'getType' }).first();
    await form.locator('summary').click();
    await form.locator('input').fill('["Arm/Speed"]');
    await form.getByRole('button', { name: 'Call' }).click();
    await page.getByRole('status').filter({ hasText: 'Data' }).waitFor();
  });

  await test('a robot that is off is said to be', async () => {
    await page.getByRole('link', { name: 'Fleet' }).click();
    await robot.kill();
    await tile.getByText('off', { exact: true }).waitFor();
    assert.deepEqual(said.words, []);
  });
} finally {
  await browser.close();
  await desk.end();
  await robot.end();
  await hub.end();
}
