// What the tests of the page share.
import { readFileSync } from 'node:fs';
import { kToken } from './robot.mjs';

const axe = readFileSync('node_modules/axe-core/axe.min.js', 'utf8');

/** What pages said on the console, and whether the browser itself may complain of requests that fail. */
export const said = { words: [], isLost: false };

export async function test(what, body) {
  const began = Date.now();
  await body();
  console.log(`passed: ${what} (${Date.now() - began} ms)`);
}

/** A page that may write, once it shows the memory. */
export async function open(browser, robot, options = {}) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, ...options });
  const page = await context.newPage();
  page.setDefaultTimeout(120000); // What takes milliseconds may take long beside other tests.
  page.on('console', (message) => void (said.isLost || said.words.push(message.text())));
  page.on('pageerror', (error) => said.words.push(error.message));
  await page.goto(`${robot.address}/#token=${kToken}`);
  await page.getByRole('row').first().waitFor();
  return page;
}

/** What keeps people with a keyboard, a screen reader or weak eyes out. */
export async function complaintsOf(page) {
  await page.evaluate(axe);
  const result = await page.evaluate(() => globalThis.axe.run(document, { resultTypes: ['violations'] }));
  return result.violations.map((each) => `${each.id}: ${each.nodes.map((node) => node.html.slice(0, 120)).join(' | ')}`);
}
