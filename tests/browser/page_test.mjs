// What a person does with the page, in a real browser.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { createServer } from 'node:http';
import { pathToFileURL } from 'node:url';
import { launch } from './browser.mjs';
import { complaintsOf, open, said, test } from './kit.mjs';
import { kToken, Robot } from './robot.mjs';

const robot = new Robot(process.argv[2]);

/** Serves a page of somebody else, and by it the client. */
const client = new URL('../js/korvo.js', pathToFileURL(process.argv[2]));
const elsewhere = createServer((request, response) => {
  const isScript = request.url === '/korvo.js';
  response.setHeader('Content-Type', isScript ? 'text/javascript' : 'text/html');
  response.end(isScript ? readFileSync(client) : '<h1>Dashboard</h1>');
});
await new Promise((resolve) => elsewhere.listen(0, '127.0.0.1', resolve));
const kDashboard = `http://127.0.0.1:${elsewhere.address().port}`;
robot.origins.push(kDashboard);

await robot.start();
const browser = await launch();
try {
  await robot.korvo('set', 'Arm/Speed', '0.5');
  await robot.korvo('set', 'Arm/Name', '"left"');
  const page = await open(browser, robot);

  await test('the token leaves the address', () => assert.ok(!page.url().includes(kToken)));

  await test('the tree shows values as they change', async () => {
    const row = page.getByRole('row').filter({ hasText: 'Speed' });
    await row.filter({ hasText: '0.5' }).waitFor();
    await robot.korvo('set', 'Arm/Speed', '0.75');
    await row.filter({ hasText: '0.75' }).waitFor();
  });

  await test('a key is found, opened by the keyboard, and set', async () => {
    await page.keyboard.press('/');
    await page.keyboard.type('arm/sp');
    await page.getByText('1 found').waitFor();
    await page.getByRole('row').filter({ hasText: 'Arm/Speed' }).waitFor();
    await page.keyboard.press('ArrowDown');
    await page.keyboard.press('ArrowDown');
    await page.keyboard.press('Enter');
    await page.getByRole('heading', { name: 'Arm/Speed' }).waitFor();
    await page.getByLabel('Value', { exact: true }).last().fill('1.25');
    await page.getByRole('button', { name: 'Set', exact: true }).click();
    await page.getByText('Set', { exact: true }).last().waitFor();
    assert.equal(await robot.korvo('get', 'Arm/Speed'), '1.25');
  });

  await test('an error is shown in words', async () => {
    await page.getByLabel('Value', { exact: true }).last().fill('fast');
    await page.getByRole('button', { name: 'Set', exact: true }).click();
    await page.getByRole('alert').filter({ hasText: 'fast is no number' }).waitFor();
  });

  await test('a removal asks first', async () => {
    await page.getByRole('button', { name: 'Remove…' }).click();
    await page.getByRole('button', { name: 'Remove Arm/Speed' }).click();
    await page.getByText('0 found').waitFor();
  });

  const views = ['#/memory?key=Host%2FMemory%2FUsed', '#/plots?p=Host%2FMemory%2FUsed', '#/events', '#/wiring', '#/services?service=HXMemory', '#/health'];
  const marks = ['Host/Memory/', 'Host/Memory/Used', 'Lid', 'Host/Sampled', 'insertData', 'changes a second'];
  await test('each view shows what it is for, and axe has no complaint', async () => {
    for (const colorScheme of ['dark', 'light']) {
      await page.emulateMedia({ colorScheme, reducedMotion: 'reduce' });
      for (const [i, view] of views.entries()) {
        await page.evaluate((wanted) => void (location.hash = wanted), view);
        if (view === '#/events') {
          await page.getByText('0 raises').or(page.getByText(/\d raises/)).first().waitFor();
          await robot.korvo('raise', 'Lid', 'true');
        }
        await page.locator('main').getByText(marks[i]).first().waitFor({ state: 'attached' });
        assert.deepEqual(await complaintsOf(page), [], `${view} ${colorScheme}`);
      }
    }
  });

  await test('a method is called by its form', async () => {
    await page.evaluate(() => void (location.hash = '#/services?service=HXMemory'));
    await page.getByLabel('Find a method').fill('getStrDataType');
    const form = page.locator('details').filter({ hasText: 'getType' }).or(page.locator('details').filter({ hasText: 'getStrDataType' }));
    await page.getByLabel('Find a method').fill('getType');
    await form.first().locator('summary').click();
    await form.first().locator('input').fill('Lid');
    await form.first().getByRole('button', { name: 'Call' }).click();
    await page.getByRole('status').filter({ hasText: 'Event' }).waitFor();
  });

  await test('a line is plotted', async () => {
    await page.evaluate(() => void (location.hash = '#/plots?p=Host%2FMemory%2FUsed'));
    await page.waitForFunction(() => {
      const canvas = document.querySelector('.panel canvas');
      if (!canvas) return false;
      // A copy: the browser complains of canvases that are read time and again.
      const copy = new OffscreenCanvas(canvas.width, canvas.height).getContext('2d', { willReadFrequently: true });
      copy.drawImage(canvas, 0, 0);
      const { data } = copy.getImageData(0, 0, canvas.width, canvas.height);
      // Lines are the only thing of much colour.
      for (let at = 0; at < data.length; at += 4) if (Math.max(data[at], data[at + 1], data[at + 2]) - Math.min(data[at], data[at + 1], data[at + 2]) > 90) return true;
      return false;
    });
  });

  await test('a part of a value is dragged into a plot', async () => {
    await robot.korvo('set', 'Arm/Pose', '{"x": 1.5, "name": "left"}');
    await page.evaluate(() => void (location.hash = '#/memory?key=Arm%2FPose'));
    const part = page.locator('.part').filter({ hasText: 'x' });
    await part.waitFor();
    // As a hand does it: over the name of the view, which shows it, and there into a panel.
    const transfer = await page.evaluateHandle(() => new DataTransfer());
    await part.dispatchEvent('dragstart', { dataTransfer: transfer });
    // Let go in the step that draws the panel: a page that is busy is slower than a hand.
    await page.evaluate((dropped) => {
      new MutationObserver((_, observer) => {
        const panel = document.querySelector('.panel');
        if (!panel) return;
        observer.disconnect();
        panel.dispatchEvent(new DragEvent('drop', { dataTransfer: dropped, bubbles: true, cancelable: true }));
      }).observe(document.body, { childList: true, subtree: true });
    }, transfer);
    await page.getByRole('link', { name: 'Plots' }).dispatchEvent('dragenter', { dataTransfer: transfer });
    await page.locator('.chip').filter({ hasText: 'Arm/Pose[x]' }).waitFor();
  });

  await test('what is slow, wrong and overdue is told', async () => {
    await robot.korvo('call', 'HXFreshness', 'expect', '"Lidar/Scan"', '0.1');
    await page.evaluate(() => void (location.hash = '#/health'));
    await page.getByText('Lidar/Scan is overdue').waitFor();
    await page.getByRole('region', { name: 'Keys that are expected' }).getByText('Lidar/Scan').waitFor();
    await robot.korvo('call', 'HXFreshness', 'forget', '"Lidar/Scan"');
  });

  await test('the recorder records, notes a moment, and saves what was before', async () => {
    await page.locator('.recorder').getByRole('button').click();
    const panel = page.getByRole('dialog', { name: 'Recorder' });
    const press = async (name, outcome) => {
      await panel.getByRole('button', { name, exact: true }).click();
      const told = panel.getByRole('status').filter({ hasText: outcome });
      await told.waitFor();
      return (await told.textContent()).replace(outcome, '');
    };
    await press('Record', 'Recording: ');
    await panel.getByText(/\.mcap$/).first().waitFor();
    await panel.getByLabel('Note').fill('left the dock');
    await press('Note', 'Noted');
    assert.match(await robot.korvo('info', await press('Save black box', 'Saved: ')), /left the dock/);
    assert.deepEqual(await complaintsOf(page), []);
    assert.match(await robot.korvo('info', await press('Stop', 'Written: ')), /left the dock/);
    await page.keyboard.press('Escape');
    await panel.waitFor({ state: 'detached' });
  });

  await test('a wall shows the view alone, a phone all of it', async () => {
    const wall = await open(browser, robot);
    await wall.goto(`${robot.address}/?kiosk#/memory`);
    await wall.getByRole('row').first().waitFor();
    assert.equal(await wall.getByRole('navigation', { name: 'Views' }).isVisible(), false);
    await wall.setViewportSize({ width: 390, height: 844 });
    await wall.goto(`${robot.address}/#/memory?key=Host%2FMemory%2FUsed`);
    await wall.getByRole('heading', { name: 'Host/Memory/Used' }).waitFor();
    assert.ok(await wall.evaluate(() => document.documentElement.scrollWidth <= innerWidth), 'nothing is cut off');
    assert.deepEqual(await complaintsOf(wall), []);
    await wall.context().close();
  });

  await test('100,000 keys are read at 50,000 changes a second', async () => {
    await page.evaluate(() => void (location.hash = '#/memory'));
    const writing = robot.write(100000, 50000, 12);
    await page.getByText(/100,\d{3} keys/).first().waitFor();
    await page.getByRole('row').filter({ hasText: 'Load' }).first().waitFor();
    await page.getByRole('searchbox').fill('Load/99/');
    await page.getByText('1,000 found').waitFor();
    const rows = page.getByRole('treegrid');
    await rows.evaluate((element) => void (element.scrollTop = element.scrollHeight));
    const last = page.getByRole('row').filter({ hasText: 'Key99' }).last();
    const before = await last.textContent();
    await page.waitForFunction((text) => [...document.querySelectorAll('.row')].some((row) => row.textContent.includes('Key99') && row.textContent !== text), before);
    assert.ok((await rows.getByRole('row').count()) < 100, 'only what is in view is there');
    assert.ok((await writing) > 1000);
    await page.getByRole('searchbox').fill('');
  });

  await test('the console has no word', () => assert.deepEqual(said.words, []));

  await test('a killed broker is told at once, and the page comes back by itself', async () => {
    await page.evaluate(() => void (location.hash = '#/memory'));
    said.isLost = true; // The browser itself reports each request that fails.
    await robot.kill();
    await page.getByText('The robot does not answer').waitFor();
    await robot.start();
    await page.getByText('The robot does not answer').waitFor({ state: 'detached' });
    await robot.korvo('set', 'Arm/Back', '7');
    await page.getByRole('searchbox').fill('Arm/Back');
    await page.getByRole('row').filter({ hasText: 'Arm/Back' }).filter({ hasText: '7' }).waitFor();
  });

  await test("a page of another origin gets nothing, with the reader's cookie and all", async () => {
    const attacker = createServer((_, response) => response.setHeader('Content-Type', 'text/html').end('<h1>Prizes</h1>'));
    await new Promise((resolve) => attacker.listen(0, '127.0.0.1', resolve));
    const evil = await page.context().newPage();
    await evil.goto(`http://127.0.0.1:${attacker.address().port}/`);
    const outcome = await evil.evaluate(async (address) => {
      const socket = await new Promise((resolve) => {
        const made = new WebSocket(`${address.replace('http', 'ws')}/page`);
        made.onopen = () => resolve('opened');
        made.onerror = () => resolve('refused');
      });
      const read = await fetch(`${address}/metrics`, { credentials: 'include' }).then((answer) => answer.text(), () => 'refused');
      return { socket, read };
    }, robot.address);
    assert.deepEqual(outcome, { socket: 'refused', read: 'refused' });
    attacker.close();
  });

  await test('a page from elsewhere that was let in reads and writes by the client', async () => {
    const dashboard = await page.context().newPage();
    await dashboard.goto(kDashboard);
    const value = await dashboard.evaluate(async (link) => {
      const { connect } = await import('/korvo.js');
      const robot = await connect(link);
      await robot.set('Arm/Angle', 0.5);
      return robot.get('Arm/Angle');
    }, `${robot.address}/#token=${kToken}`);
    assert.equal(value, 0.5);
  });

  await test('a name that was made to mean this machine gets nothing', async () => {
    const rebound = await page.context().newPage();
    const answer = await rebound.goto(`http://rebound.example:${robot.port}/`);
    assert.equal(answer.status(), 421);
  });
} finally {
  await browser.close();
  elsewhere.close();
  await robot.end();
}
