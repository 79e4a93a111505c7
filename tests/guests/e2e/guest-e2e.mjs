// End to end in real headless Chromium against the real application: a
// speaker row "living" and two guest pages (one on each player path) join and
// become rows, the rows follow the senders' status, a removed guest is barred
// and its page says so, a thirteenth page sees "full", a page that vanishes
// and comes back within 15 s gets its row and settings back, and one that
// stays away loses its row.
//
//   node --experimental-websocket guest-e2e.mjs BIN_DIR WORK_DIR
// with PULSE_SERVER pointing at a private PulseAudio that has the sinks
// "living" and "phone".
import assert from 'node:assert/strict';
import os from 'node:os';
import { launchChromium } from './chromium.mjs';
import { App } from './app.mjs';

const [binDir, work] = process.argv.slice(2);
const pulse = process.env.PULSE_SERVER;
assert.ok(binDir && work && pulse, 'usage: guest-e2e.mjs BIN_DIR WORK_DIR (with PULSE_SERVER)');

const step = (text) => console.log(`guest-e2e: ${text}`);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

// Every address any page asked for: all must be this computer's server.
const requested = [];

async function openGuest(context, port, name, query = '') {
  const page = await context.newPage();
  page.on('pageerror', (e) => console.log(`page error (${name}): ${e.message}`));
  page.on('request', (r) => requested.push(r.url()));
  page.on('websocket', (w) => requested.push(w.url()));
  await page.goto(`http://127.0.0.1:${port}/join${query}`);
  await page.waitForFunction(() => window.guestState && window.guestState.clientId);
  if (await page.isVisible('#name')) await page.fill('#name', name);
  return page;
}

// A row's subtitle starts with the sender's status; a delay set on the row follows it.
const says = (row, words) => !!row && (row.subtitle === words || row.subtitle.startsWith(`${words} · `));
const clientId = (page) => page.evaluate(() => window.guestState.clientId);

// A page plays when its player keeps handing sound to the output.
async function playsThrough(page, path) {
  assert.equal(await page.evaluate(() => window.guestState.path), path);
  // The first sound is heard the lead and the headroom after the stream starts.
  await page.waitForFunction(() => window.guestState.heardFrames > 0, null, { timeout: 5000 });
  const first = await page.evaluate(() => window.guestState);
  await sleep(1000);
  const then = await page.evaluate(() => window.guestState);
  assert.ok(then.heardFrames > first.heardFrames + 24000, `${path} path: ${first.heardFrames} -> ${then.heardFrames}`);
}

// A bare Sendspin client that says hello and stays: fills the party cheaply.
function filler(port, n) {
  const id = `filler-${String(n).padStart(4, '0')}`;
  const ws = new WebSocket(`ws://127.0.0.1:${port}/guest/${id}/sendspin`);
  ws.onopen = () =>
    ws.send(JSON.stringify({ type: 'client/hello', payload: { client_id: id, name: `Filler ${n}` } }));
  return ws;
}

const app = new App(binDir, {
  VELLATONE_CONFIG_DIR: `${work}/config`,
  VELLATONE_CONTROL_SOCKET: `${work}/control/control.sock`,
  VELLATONE_GUEST_BIND: '127.0.0.1',
  VELLATONE_GUEST_PORT: '0',
  HOME: `${work}/home`,
});
let browser;
let failed = false;
try {
  await app.watch();
  await app.ctl('add', 'uid:living');
  await app.ctl('start');
  const port = await app.until((a) => a.port, 'the guest server');
  await app.until((a) => a.rows.length === 1 && a.rows[0].name === 'Living', 'the speaker row');
  step(`the app plays to "living"; guests join on port ${port}`);

  browser = await launchChromium(pulse);
  const annContext = await browser.newContext();
  const bobContext = await browser.newContext();
  const ann = await openGuest(annContext, port, 'Ann');
  // Bob's page takes the path of a phone on the plain http link.
  const bob = await openGuest(bobContext, port, 'Bob', '?scheduled');
  assert.equal(await ann.textContent('#host'), os.hostname());
  // One after the other, so that the rows' order is known.
  await ann.click('#join');
  await app.until((a) => a.row('Guest · Ann'), "Ann's row");
  await bob.click('#join');
  const annId = await clientId(ann);
  const bobId = await clientId(bob);
  assert.notEqual(annId, bobId);

  await app.until((a) => a.row('Guest · Ann') && a.row('Guest · Bob'), 'two guest rows');
  assert.deepEqual(app.rows.map((r) => r.name), ['Living', 'Guest · Ann', 'Guest · Bob']);
  step('both pages became rows behind the speaker');
  await app.until(
    (a) => says(a.row('Guest · Ann'), 'Guest · playing') && says(a.row('Guest · Bob'), 'Guest · playing'),
    'both rows playing',
  );
  assert.ok(app.seen.has('Guest · Ann|Guest · joining'), 'a row says "joining" before it plays');
  await ann.waitForFunction(() => window.guestState.phase === 'playing');
  await bob.waitForFunction(() => window.guestState.phase === 'playing');
  await playsThrough(ann, 'worklet');
  await playsThrough(bob, 'scheduled');
  step('both rows went from "Guest · joining" to "Guest · playing"; the worklet and the scheduled player play');

  // The party list on a page names the others.
  await ann.waitForFunction(() => document.querySelector('#party').textContent.includes('Bob'));

  // Stopping pauses the guests; starting again plays them.
  await app.ctl('stop');
  await app.until((a) => says(a.row('Guest · Ann'), 'Guest · paused'), 'Ann paused');
  await ann.waitForFunction(() => window.guestState.phase === 'paused');
  await app.ctl('start');
  await app.until((a) => says(a.row('Guest · Ann'), 'Guest · playing'), 'Ann playing again');
  step('stop and start pause and resume the guests');

  // Fill the party to twelve; a thirteenth page is told plainly.
  const fillers = [];
  for (let i = 0; i < 10; i++) fillers.push(filler(port, i));
  await app.until((a) => a.guests().length === 12, 'twelve guests');
  const carolContext = await browser.newContext();
  const carol = await openGuest(carolContext, port, 'Carol');
  await carol.waitForFunction(() => window.guestState.phase === 'full');
  assert.match(await carol.textContent('#refusal'), /12 phones playing already/);
  assert.equal(await carol.isVisible('#join'), false);
  assert.equal(app.guests().length, 12);
  step('the thirteenth page sees "full"');
  await carolContext.close();
  for (const f of fillers) {
    f.send(JSON.stringify({ type: 'client/goodbye', payload: { reason: 'user_request' } }));
    f.close();
  }
  await app.until((a) => a.guests().length === 2, 'the fillers gone');

  // The host removes Bob: his row goes and his page says so, for good.
  await app.ctl('remove-guest', bobId);
  await app.until((a) => !a.row('Guest · Bob'), 'Bob\'s row gone');
  await bob.waitForFunction(() => window.guestState.phase === 'removed');
  assert.match(await bob.textContent('#refusal'), /removed this phone/);
  await bob.reload();
  await bob.waitForFunction(() => window.guestState && window.guestState.phase === 'removed');
  await sleep(500);
  assert.equal(app.row('Guest · Bob'), undefined, 'a barred phone does not come back');
  step('a guest removed with vellatonectl is barred and its page says so');

  // Settings made on Ann's row outlive a short absence.
  const annSlot = app.row('Guest · Ann').slot;
  await app.ctl('volume', String(annSlot), '0.4');
  await app.ctl('delay', String(annSlot), '30');
  // Ann's page vanishes without a goodbye (its renderer dies) and comes back.
  const cdp = await annContext.newCDPSession(ann);
  cdp.send('Page.crash').catch(() => {});
  await app.until((a) => says(a.row('Guest · Ann'), 'Guest · Reconnecting'), 'Ann reconnecting');
  step('a vanished page leaves its row "Guest · Reconnecting"');
  await sleep(3000);
  const annAgain = await openGuest(annContext, port, 'Ann');
  assert.equal(await clientId(annAgain), annId, 'the same client id after reopening');
  await annAgain.click('#join');
  await app.until((a) => says(a.row('Guest · Ann'), 'Guest · playing'), 'Ann playing again');
  const back = app.row('Guest · Ann');
  assert.equal(back.slot, annSlot, 'the same row');
  assert.equal(back.volume, 0.4, 'the volume kept');
  assert.equal(back.trimMs, 30, 'the delay kept');
  assert.equal(app.rows.filter((r) => r.name === 'Guest · Ann').length, 1);
  step('a page back within 15 s has the same row, volume and delay');

  // Gone for longer than 15 s: the row goes.
  const cdp2 = await annContext.newCDPSession(annAgain);
  cdp2.send('Page.crash').catch(() => {});
  await app.until((a) => says(a.row('Guest · Ann'), 'Guest · Reconnecting'), 'Ann reconnecting');
  const lostAt = Date.now();
  await app.until((a) => !a.row('Guest · Ann'), 'Ann expired', 25000);
  const after = (Date.now() - lostAt) / 1000;
  assert.ok(after >= 14, `row lasted ${after} s`);
  assert.deepEqual(app.rows.map((r) => r.name), ['Living']);
  step(`a page away for longer loses its row (after ${after.toFixed(1)} s)`);

  // Leave says goodbye for good: the row goes at once.
  const dee = await openGuest(await browser.newContext(), port, 'Dee', '?scheduled');
  await dee.click('#join');
  await app.until((a) => a.row('Guest · Dee'), 'Dee\'s row');
  await dee.click('#leave');
  await app.until((a) => !a.row('Guest · Dee'), 'Dee gone after Leave', 3000);
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
  console.log(app.log.slice(-20).join('\n'));
} finally {
  if (browser) await browser.close().catch(() => {});
  const code = await app.stop();
  if (code !== 0) {
    console.log(`guest-e2e: FAIL the app exited with ${code} on SIGTERM`);
    failed = true;
  }
}
process.exit(failed ? 1 : 0);
