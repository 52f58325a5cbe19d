// SPDX-License-Identifier: Apache-2.0
//
// The page as a person uses it, in a headless Chromium: load, search, click, explain, by keyboard,
// dark and light, 360 pixels wide, and as a report. Screenshots go to a folder, to be looked at.
// usage: node page_test.js URL REPORT.html FOLDER   (playwright-core is found through NODE_PATH)
'use strict';
const assert = require('assert');
const {chromium} = require('playwright-core');
const [url, report, folder] = process.argv.slice(2);

async function visit(browser, address, look, use) {
  const context = await browser.newContext(look);
  const page = await context.newPage();
  const faults = [];
  page.on('pageerror', (error) => faults.push(error.message));
  page.on('console', (message) => message.type() === 'error' && faults.push(message.text()));
  page.on('request', (request) => new URL(request.url()).origin !== new URL(address).origin &&
                                  !request.url().startsWith('data:') && faults.push(`asks ${request.url()}`));
  await page.goto(address);
  await page.waitForSelector('body[data-ready]');
  const wide = await page.evaluate(() => document.documentElement.scrollWidth - window.innerWidth);
  assert(wide <= 0, `${wide} pixels wider than the window`);
  await use(page, (name) => page.screenshot({path: `${folder}/${name}.png`, fullPage: true}));
  assert.deepStrictEqual(faults.filter((fault) => !fault.includes('status of 400')), []);
  assert.deepStrictEqual(await context.cookies(), []);
  await context.close();
}

const desk = {viewport: {width: 1280, height: 900}};
const phone = {viewport: {width: 360, height: 740}, hasTouch: true};

async function useAll(page, shot) {
  const text = (selector) => page.textContent(selector);
  assert.match(await text('#tiles'), /last commit/);
  await shot('light');
  // Search, and what a click on a list says of its users.
  await page.fill('#search', 'site-list hub');
  assert.match(await text('#found'), /^1 hit$/);
  await page.press('#search', 'Enter');
  await page.waitForFunction(() => document.querySelector('#detail').textContent.includes('control-policy branch'));
  assert.match(await text('#detail'), /site-list hub.*Used by.*control-policy branch: sequence 40/s);
  // From there to the policy, and its counters.
  await page.click('#detail a[href="#control-policy/branch"]');
  await page.waitForSelector('#detail table');
  const row = await page.$$eval('#detail tbody tr', (rows) => rows.map((each) => [...each.cells].map((cell) => cell.textContent)));
  assert.deepStrictEqual(row.find((cells) => cells[0] === '60').slice(0, 4), ['60', 'accept', '1', '0']);
  await page.fill('#search', '');
  await shot('policy');
  await page.goBack();
  await page.waitForFunction(() => document.querySelector('#detail h3').textContent === 'site-list hub');
  await page.click('#detail .close');
  // Explain, and what is refused.
  await page.selectOption('#policy', 'control-policy branch');
  await page.fill('#prefix', '172.16.5.0/24');
  await page.fill('#site', '302');
  await page.fill('#vpn', '10');
  await page.press('#vpn', 'Enter');
  await page.waitForSelector('#verdict .decides');
  assert.match(await text('#verdict'), /sequence 20 fails: site 302 is in no range.*accept by sequence 60.*preference 300/s);
  await shot('explain');
  await page.fill('#prefix', 'nonsense');
  await page.click('#question button');
  await page.waitForSelector('#verdict .error');
  await page.waitForFunction(() => /none|warning/.test(document.querySelector('#findings-list').textContent));
  assert.match(await text('#commits-list'), /commit \d+.*\+ set policy/s);
  // A node of the drawing is reached and chosen by keyboard.
  await page.focus('#search');
  for (let i = 0; i < 2; ++i) await page.keyboard.press('Tab');
  const label = await page.evaluate(() => document.activeElement.getAttribute('aria-label'));
  await page.keyboard.press('Enter');
  await page.waitForFunction((name) => document.querySelector('#detail h3').textContent === name, label.split(',')[0]);
}

(async () => {
  const browser = await chromium.launch({executablePath: process.env.CHROMIUM || '/usr/bin/chromium', args: ['--no-sandbox']});
  await visit(browser, url, {...desk, colorScheme: 'light'}, useAll);
  await visit(browser, `${url}#control-policy/branch`, {...desk, colorScheme: 'dark'}, async (page, shot) => {
    await page.waitForSelector('#detail table');
    await shot('dark');
  });
  for (const colorScheme of ['light', 'dark']) {
    await visit(browser, url, {...phone, colorScheme}, async (page, shot) => {
      await page.tap('#drawing a[href="#prefix-list/reserved"]');
      await page.waitForSelector('#detail h3');
      await shot(`phone-${colorScheme}`);
    });
  }
  await visit(browser, `file://${report}`, desk, async (page, shot) => {
    await page.click('#drawing a[href="#control-policy/branch"]');
    await page.waitForSelector('#detail table');
    assert.strictEqual(await page.$('#explain'), null);
    await shot('report');
  });
  await browser.close();
})().catch((error) => {
  console.error(error);
  process.exit(1);
});
