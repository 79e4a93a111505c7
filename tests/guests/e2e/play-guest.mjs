// One guest page that joins and keeps playing, for the timing measurement.
//   node play-guest.mjs PORT SECONDS   (with PULSE_SERVER)
// PAGE_QUERY is added to the page's address ("?scheduled" for the player of
// a page without an AudioWorklet).
// Prints "playing" once the page plays, then its timing figures now and then.
import { launchChromium } from './chromium.mjs';

const [port, seconds] = process.argv.slice(2).map(Number);
const browser = await launchChromium(process.env.PULSE_SERVER);
const page = await (await browser.newContext()).newPage();
page.on('pageerror', (e) => console.log(`page error: ${e.message}`));
await page.goto(`http://127.0.0.1:${port}/join${process.env.PAGE_QUERY || ''}`);
await page.fill('#name', 'Meter');
await page.click('#join');
await page.waitForFunction(() => window.guestState && window.guestState.phase === 'playing', null, {
  timeout: 20000,
});
console.log('playing');
const end = Date.now() + seconds * 1000;
while (Date.now() < end) {
  await new Promise((r) => setTimeout(r, 2000));
  const s = await page.evaluate(() => window.guestState);
  console.error(
    `guest: ${s.phase} offset ${(s.hostOffsetUs / 1000).toFixed(3)} ms rtt ${(s.bestRttUs / 1000).toFixed(3)} ms ` +
      `hostAtZero ${(s.hostAtZeroUs / 1000).toFixed(3)} ms outputLatency ${s.outputLatency} baseLatency ${s.baseLatency} path ${s.path}`,
  );
}
await browser.close();
