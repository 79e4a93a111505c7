// Debian's Chromium under playwright-core, headless but with real audio: the
// browser's own flags, never Playwright's headless mode, which mutes output.
import { chromium } from 'playwright-core';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

export async function launchChromium(pulseServer) {
  const userDataDir = fs.mkdtempSync(path.join(os.tmpdir(), 'vt-chromium-'));
  const browser = await chromium.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: false,
    ignoreDefaultArgs: true,
    args: [
      '--headless=new',
      '--no-sandbox',
      '--disable-gpu',
      '--disable-quic',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
      '--autoplay-policy=no-user-gesture-required',
      '--audio-buffer-size=480',
      '--disable-background-timer-throttling',
      '--disable-renderer-backgrounding',
      '--disable-backgrounding-occluded-windows',
      `--user-data-dir=${userDataDir}`,
      '--remote-debugging-pipe',
      'about:blank',
    ],
    env: { ...process.env, PULSE_SERVER: pulseServer },
  });
  // Chromium's last child processes may still be writing the profile when
  // the pipe closes: retry, and never let tidying up fail a finished test.
  browser.on('disconnected', () => {
    try {
      fs.rmSync(userDataDir, { recursive: true, force: true, maxRetries: 10, retryDelay: 100 });
    } catch (error) {
      console.error(`guest-e2e: left ${userDataDir} behind: ${error.code}`);
    }
  });
  return browser;
}
