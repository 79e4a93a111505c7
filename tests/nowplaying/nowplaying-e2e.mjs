// The track from real mpv players (mpv-mpris on a private session bus) through
// the real application: the model follows track changes, pause and play and
// seeks; playerctl agrees; vellatonectl's commands reach the player; of two
// players the one that began playing last is shown until it stops; a guest
// page in headless Chromium shows the title, artist and artwork, and a control
// client is sent the same cover before the state that names it.
//
//   node --experimental-websocket nowplaying-e2e.mjs BIN_DIR WORK_DIR MPRIS_SO
// with PULSE_SERVER and DBUS_SESSION_BUS_ADDRESS set, and the media made by
// run-nowplaying.sh in WORK_DIR.
import assert from 'node:assert/strict';
import { spawn, execFile } from 'node:child_process';
import { promisify } from 'node:util';
import { launchChromium } from '../guests/e2e/chromium.mjs';
import { App } from '../guests/e2e/app.mjs';

const run = promisify(execFile);
const [binDir, work, mprisPlugin] = process.argv.slice(2);
const pulse = process.env.PULSE_SERVER;
assert.ok(binDir && work && mprisPlugin && pulse && process.env.DBUS_SESSION_BUS_ADDRESS);

const TRACK_CHANGE_LIMIT_MS = 500;
const step = (text) => console.log(`nowplaying-e2e: ${text}`);
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const started = Date.now();

const players = [];
function mpv(...files) {
  const child = spawn('mpv', ['--no-config', '--no-video', '--no-terminal', '--ao=pulse',
    `--script=${mprisPlugin}`, ...files], { stdio: 'ignore' });
  players.push(child);
  return child;
}

async function playerctl(...args) {
  try {
    return (await run('playerctl', args)).stdout.trim();
  } catch {
    return '';
  }
}

// Polls until `test` gives something truthy, or fails after `ms`.
async function until(test, what, ms = 5000) {
  const end = Date.now() + ms;
  for (;;) {
    const value = await test();
    if (value) return value;
    if (Date.now() > end) throw new Error(`timed out waiting for ${what}`);
    await sleep(25);
  }
}

const np = (a) => (a.state && a.state.nowPlaying) || null;
const showing = (title) => (a) => np(a) && np(a).title === title;
// Where the app places the track now, carried on from its last report.
function elapsedNow(a) {
  const n = np(a);
  if (!n || n.elapsed === undefined || n.elapsed === null) return null;
  return n.elapsed;
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

  mpv(`${work}/album/one.flac`, `${work}/album/two.flac`);
  await app.until((a) => showing('First Light')(a) && np(a).playing, 'the first track playing');
  const first = np(app);
  assert.equal(first.artist, 'The Testers');
  assert.equal(first.album, 'Loopback');
  assert.equal(first.appName, 'mpv');
  assert.ok(Math.abs(first.duration - 60) < 0.5, `duration ${first.duration}`);
  assert.equal(await playerctl('-p', 'mpv', 'metadata', 'title'), 'First Light');
  assert.match(await app.ctl('track'), /^First Light · The Testers — Loopback \(playing, 0:0\d of 1:00\) in mpv\n$/);
  step('the model shows what mpv plays, as playerctl does');

  // A track change, timed from the moment it is asked for.
  const nextAt = Date.now();
  await playerctl('-p', 'mpv', 'next');
  await app.until(showing('Second Wind'), 'the second track', 3000);
  const followedMs = Date.now() - nextAt;
  step(`a track change reached the model in ${followedMs} ms`);
  assert.ok(followedMs <= TRACK_CHANGE_LIMIT_MS, `track change took ${followedMs} ms`);

  // The app's commands reach the player; the player's own pause reaches the app.
  await app.ctl('pause');
  await until(async () => (await playerctl('-p', 'mpv', 'status')) === 'Paused', 'mpv paused');
  await app.until((a) => showing('Second Wind')(a) && !np(a).playing, 'the model paused');
  await app.ctl('play');
  await until(async () => (await playerctl('-p', 'mpv', 'status')) === 'Playing', 'mpv playing');
  await app.until((a) => np(a).playing, 'the model playing');
  await app.ctl('seek', '30');
  await until(async () => Number(await playerctl('-p', 'mpv', 'position')) >= 29.5, 'mpv at 30 s');
  await app.until((a) => elapsedNow(a) >= 29.5 && elapsedNow(a) < 33, 'the model at 30 s');
  await app.ctl('back15');
  await until(async () => Number(await playerctl('-p', 'mpv', 'position')) < 20, 'mpv back 15 s');
  await app.until((a) => elapsedNow(a) < 20, 'the model back 15 s');
  await playerctl('-p', 'mpv', 'pause');
  await app.until((a) => !np(a).playing, 'the player\'s own pause');
  await playerctl('-p', 'mpv', 'play');
  await app.until((a) => np(a).playing, 'the player\'s own play');
  step('pause, play, seek and back15 from vellatonectl reach mpv; its own pause and play reach the model');

  // The guest page shows the track and a thumbnail of the cover.
  browser = await launchChromium(pulse);
  const page = await (await browser.newContext()).newPage();
  await page.goto(`http://127.0.0.1:${port}/join`);
  await page.waitForFunction(() => window.guestState && window.guestState.clientId);
  await page.fill('#name', 'Ann');
  await page.click('#join');
  await page.waitForFunction(() => document.querySelector('#track').textContent === 'Second Wind · The Testers');
  await page.waitForFunction(() => {
    const img = document.querySelector('#artwork');
    return !img.hidden && img.src.startsWith('data:image/jpeg;base64,') && img.complete && img.naturalWidth > 0;
  });
  const size = await page.evaluate(() => [document.querySelector('#artwork').naturalWidth,
    document.querySelector('#artwork').naturalHeight]);
  assert.deepEqual(size, [300, 225]);
  step(`the guest page shows "Second Wind · The Testers" and the cover as a ${size[0]}x${size[1]} JPEG`);
  // A control client gets the same thumbnail once, before the state naming it.
  await app.until((a) => showing('Second Wind')(a) && np(a).artworkKey, 'the artwork key');
  assert.equal(app.artworkLate, undefined, 'a state named artwork not sent before it');
  assert.equal(app.artwork.key, np(app).artworkKey);
  assert.ok(Buffer.from(app.artwork.jpeg, 'base64').subarray(0, 3).equals(Buffer.from([0xff, 0xd8, 0xff])));

  // A second player that starts later is the one shown, until it stops.
  const other = mpv(`${work}/single/beta.flac`);
  await app.until(showing('Beta Song'), 'the later player', 5000);
  await page.waitForFunction(() => document.querySelector('#track').textContent === 'Beta Song · Someone Else');
  const names = (await playerctl('-l')).split('\n');
  const otherName = names.find((n) => n.startsWith('mpv.instance'));
  assert.ok(otherName, `players: ${names}`);
  await playerctl('-p', otherName, 'stop');
  await app.until(showing('Second Wind'), 'the first player again', 3000);
  other.kill('SIGTERM');
  await app.until((a) => showing('Second Wind')(a) && np(a).playing, 'the first player still shown');
  step('the later player is shown while it plays; when it stops the other takes over');

  for (const p of players) p.kill('SIGTERM');
  await app.until((a) => !np(a), 'nothing playing once the players quit');
  assert.equal(await app.ctl('track'), 'nothing playing\n');
  step(`PASS in ${((Date.now() - started) / 1000).toFixed(1)} s`);
} catch (error) {
  failed = true;
  console.log(`nowplaying-e2e: FAIL ${error.stack || error}`);
  console.log(`state: ${JSON.stringify(app.state && app.state.nowPlaying)}`);
  console.log(app.log.slice(-20).join('\n'));
} finally {
  for (const p of players) p.kill('SIGKILL');
  if (browser) await browser.close().catch(() => {});
  const code = await app.stop();
  if (code !== 0) {
    console.log(`nowplaying-e2e: FAIL the app exited with ${code} on SIGTERM`);
    failed = true;
  }
}
process.exit(failed ? 1 : 0);
