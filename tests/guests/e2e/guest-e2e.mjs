// End to end in real headless Chromium: two guest pages join and become rows,
// the rows follow the senders' status, a removed guest is barred and its page
// says so, a thirteenth page sees "full", a page that vanishes and comes back
// within 15 s gets its row back, and one that stays away loses it.
//
//   node --experimental-websocket guest-e2e.mjs HOST_BIN WEB_ROOT
// with PULSE_SERVER pointing at a private PulseAudio that has sinks "living"
// and "phone".
import assert from 'node:assert/strict';
import { launchChromium } from './chromium.mjs';
import { GuestHost } from './host.mjs';

const [hostBin, webRoot] = process.argv.slice(2);
const pulse = process.env.PULSE_SERVER;
assert.ok(hostBin && webRoot && pulse, 'usage: guest-e2e.mjs HOST_BIN WEB_ROOT (with PULSE_SERVER)');

const step = (text) => console.log(`guest-e2e: ${text}`);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// Every address any page asked for: all must be this computer's server.
const requested = [];

async function openGuest(context, port, name) {
  const page = await context.newPage();
  page.on('pageerror', (e) => console.log(`page error (${name}): ${e.message}`));
  page.on('request', (r) => requested.push(r.url()));
  page.on('websocket', (w) => requested.push(w.url()));
  await page.goto(`http://127.0.0.1:${port}/join`);
  await page.waitForFunction(() => window.guestState && window.guestState.clientId);
  if (await page.isVisible('#name')) await page.fill('#name', name);
  return page;
}

async function join(page) {
  await page.click('#join');
}

const phase = (page) => page.evaluate(() => window.guestState.phase);
const clientId = (page) => page.evaluate(() => window.guestState.clientId);

// A bare Sendspin client that says hello and stays: fills the party cheaply.
function filler(port, n) {
  const id = `filler-${String(n).padStart(4, '0')}`;
  const ws = new WebSocket(`ws://127.0.0.1:${port}/guest/${id}/sendspin`);
  ws.onopen = () =>
    ws.send(JSON.stringify({ type: 'client/hello', payload: { client_id: id, name: `Filler ${n}` } }));
  return ws;
}

const host = new GuestHost(hostBin, ['--root', webRoot, '--speaker', 'living=0']);
let browser;
let failed = false;
try {
  const port = await host.until((h) => h.port, 'the guest server');
  step(`host listening on ${port}`);
  browser = await launchChromium(pulse);
  const annContext = await browser.newContext();
  const bobContext = await browser.newContext();

  const ann = await openGuest(annContext, port, 'Ann');
  const bob = await openGuest(bobContext, port, 'Bob');
  assert.equal(await ann.textContent('#host'), 'Test computer');
  await join(ann);
  await join(bob);
  const annId = await clientId(ann);
  const bobId = await clientId(bob);
  assert.notEqual(annId, bobId);

  await host.until((h) => h.row('Guest · Ann') && h.row('Guest · Bob'), 'two guest rows');
  step('both pages became rows');
  await host.until(
    (h) => h.row('Guest · Ann')?.subtitle === 'Guest · playing' && h.row('Guest · Bob')?.subtitle === 'Guest · playing',
    'both rows playing',
  );
  await ann.waitForFunction(() => window.guestState.phase === 'playing');
  assert.ok(host.seen.has('Guest · Ann|Guest · joining'), 'a row says "joining" before it plays');
  step('both rows went from "Guest · joining" to "Guest · playing" and the pages play');
  const annSlot = host.row('Guest · Ann').slot;

  // The party list on a page names the others.
  await ann.waitForFunction(() => document.querySelector('#party').textContent.includes('Bob'));

  // Fill the party to twelve; a thirteenth page is told plainly.
  const fillers = [];
  for (let i = 0; i < 10; i++) fillers.push(filler(port, i));
  await host.until((h) => h.rows.filter((r) => r.guest).length === 12, 'twelve guests');
  const carolContext = await browser.newContext();
  const carol = await openGuest(carolContext, port, 'Carol');
  await carol.waitForFunction(() => window.guestState.phase === 'full');
  assert.match(await carol.textContent('#refusal'), /12 phones playing already/);
  assert.equal(await carol.isVisible('#join'), false);
  step('the thirteenth page sees "full"');
  await carolContext.close();
  for (const f of fillers) f.close();

  // The host removes Bob: his row goes and his page says so, for good.
  host.send(`remove ${bobId}`);
  await host.until((h) => !h.row('Guest · Bob'), 'Bob\'s row removed');
  await bob.waitForFunction(() => window.guestState.phase === 'removed');
  assert.match(await bob.textContent('#refusal'), /removed this phone/);
  await bob.reload();
  await bob.waitForFunction(() => window.guestState && window.guestState.phase === 'removed');
  step('a removed guest is barred and its page says so');

  // Ann's page vanishes without a goodbye (its renderer dies) and comes back.
  const cdp = await annContext.newCDPSession(ann);
  cdp.send('Page.crash').catch(() => {});
  await host.until((h) => h.row('Guest · Ann')?.subtitle === 'Guest · Reconnecting', 'Ann reconnecting');
  step('a vanished page leaves its row "Guest · Reconnecting"');
  await sleep(3000);
  const annAgain = await openGuest(annContext, port, 'Ann');
  assert.equal(await clientId(annAgain), annId, 'the same client id after reopening');
  await join(annAgain);
  await host.until((h) => h.row('Guest · Ann')?.subtitle === 'Guest · playing', 'Ann playing again');
  assert.equal(host.row('Guest · Ann').slot, annSlot, 'the same row');
  assert.equal(host.rows.filter((r) => r.name === 'Guest · Ann').length, 1);
  step('a page back within 15 s has the same row');

  // Gone for longer than 15 s: the row goes.
  const cdp2 = await annContext.newCDPSession(annAgain);
  cdp2.send('Page.crash').catch(() => {});
  await host.until((h) => h.row('Guest · Ann')?.subtitle === 'Guest · Reconnecting', 'Ann reconnecting');
  const lostAt = Date.now();
  await host.until((h) => !h.row('Guest · Ann'), 'Ann expired', 25000);
  const after = (Date.now() - lostAt) / 1000;
  assert.ok(after >= 14, `row lasted ${after} s`);
  step(`a page away for longer loses its row (after ${after.toFixed(1)} s)`);

  // Leave says goodbye for good: the row goes at once.
  const dee = await openGuest(await browser.newContext(), port, 'Dee');
  await join(dee);
  await host.until((h) => h.row('Guest · Dee'), 'Dee\'s row');
  await dee.click('#leave');
  await host.until((h) => !h.row('Guest · Dee'), 'Dee gone after Leave', 3000);
  step('Leave removes the row at once');
  const outside = requested.filter(
    (u) => !u.startsWith(`http://127.0.0.1:${port}/`) && !u.startsWith(`ws://127.0.0.1:${port}/`),
  );
  assert.deepEqual(outside, [], 'the page loads nothing from outside the computer');
  step(`the pages asked for ${requested.length} addresses, all on the guest server`);
  console.log('guest-e2e: PASS');
} catch (error) {
  failed = true;
  console.log(`guest-e2e: FAIL ${error.stack || error}`);
  console.log(host.log.slice(-20).join('\n'));
} finally {
  if (browser) await browser.close().catch(() => {});
  await host.stop();
}
process.exit(failed ? 1 : 0);
