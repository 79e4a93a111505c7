// The page's timing and reconnect rules, run under node: the same rules as the
// phone app's, so the two kinds of guest behave alike.
import assert from 'node:assert/strict';
import test from 'node:test';
import { JitterBuffer, FRAME_US, SAMPLE_RATE } from '../../../web/guest/jitter-buffer.js';
import { ScheduledOutput, BLOCK_FRAMES } from '../../../web/guest/scheduled-output.js';
import { ClockSync, OutputClock, SlewedMapping } from '../../../web/guest/clock.js';
import { SpeakerState } from '../../../web/guest/speaker-state.js';

// A chunk of `frames` whose left samples count up from `first`.
function ramp(first, frames) {
  const s = new Int16Array(frames * 2);
  for (let i = 0; i < frames; i++) {
    s[2 * i] = first + i;
    s[2 * i + 1] = -(first + i);
  }
  return s;
}

function readLeft(buffer, frames, startUs) {
  const left = new Float32Array(frames);
  const right = new Float32Array(frames);
  buffer.read(left, right, frames, startUs);
  return Array.from(left, (v) => Math.round(v * 32768));
}

test('reads the sample stamped for each moment, and silence outside the chunks', () => {
  const b = new JitterBuffer();
  b.push(1_000_000, ramp(0, 480));
  b.push(1_010_000, ramp(480, 480));
  assert.deepEqual(readLeft(b, 4, 1_000_000), [0, 1, 2, 3]);
  const before = new JitterBuffer();
  before.push(1_000_000, ramp(0, 480));
  assert.deepEqual(readLeft(before, 2, 1_000_000 - 2 * FRAME_US), [0, 0]);
});

test('a small error is taken one frame per read, a large one jumps', () => {
  const b = new JitterBuffer();
  for (let i = 0; i < 10; i++) b.push(1_000_000 + i * 10_000, ramp(i * 480, 480));
  readLeft(b, 128, 1_000_000);
  // Asked 5 ms ahead of the cursor: one frame forward only.
  assert.equal(readLeft(b, 1, 1_000_000 + 128 * FRAME_US + 5000)[0], 129);
  // 11 ms ahead: straight there.
  const at = 1_000_000 + 129 * FRAME_US + 11_000;
  assert.equal(readLeft(b, 1, at)[0], Math.round((at - 1_000_000) / FRAME_US));
});

test('a timeline that goes back replaces what was queued from there on', () => {
  const b = new JitterBuffer();
  b.push(1_000_000, ramp(0, 480));
  b.push(1_010_000, ramp(480, 480));
  b.push(1_010_000, ramp(5000, 480));
  assert.equal(b.chunks.length, 2);
  assert.equal(readLeft(b, 1, 1_010_000)[0], 5000);
  b.push(1_000_000, ramp(7, 3)); // odd-length stereo: the half pair is dropped
  assert.equal(b.chunks.length, 1);
});

test('the clock offset believes only the quickest quarter of exchanges', () => {
  const c = new ClockSync();
  c.add(0, 500, 500, 1000);
  c.add(0, 500, 500, 1000);
  c.add(0, 500, 500, 1000);
  assert.equal(c.offsetUs(), null);
  for (let i = 0; i < 5; i++) c.add(0, 2000, 2000, 10000); // slow, biased legs
  c.add(0, 100, 100, 200); // quickest: offset 0
  c.add(0, 150, 150, 300);
  assert.equal(c.offsetUs(), 0);
  c.add(10, 0, 0, 5); // answer before the question: ignored
  assert.equal(c.samples.length, 10);
});

test('the output clock takes the median of its readings', () => {
  const o = new OutputClock({});
  o.push(10);
  o.push(1000);
  assert.equal(o.perfMinusContextMs(), null);
  o.push(11);
  o.push(12);
  assert.equal(o.perfMinusContextMs(), 11.5);
});

test('the output clock follows a real jump after three agreeing readings, not one stray', () => {
  const o = new OutputClock({});
  for (let i = 0; i < 10; i++) o.push(100 + (i % 3) * 0.1);
  o.push(125);
  o.push(100.1);
  assert.ok(Math.abs(o.perfMinusContextMs() - 100.1) < 0.11);
  o.push(125);
  o.push(125.2);
  assert.ok(Math.abs(o.perfMinusContextMs() - 100.1) < 0.11);
  o.push(125.1);
  assert.equal(o.perfMinusContextMs(), 125.1);
});

test('reconnects for fifteen seconds from the first loss, never after full or removed', () => {
  const s = new SpeakerState();
  s.join();
  assert.equal(s.streamStarted(48000, 2, 16), true);
  assert.equal(s.lost(1006, null, 100), true);
  assert.equal(s.phase, 'reconnecting');
  assert.equal(s.lost(1006, 'member', 114.9), true);
  assert.equal(s.lost(1006, null, 115), false);
  assert.equal(s.phase, 'join');

  const full = new SpeakerState();
  full.join();
  assert.equal(full.lost(1006, 'full', 1), false);
  assert.equal(full.phase, 'full');
  const removed = new SpeakerState();
  removed.join();
  assert.equal(removed.lost(4001, null, 1), false);
  assert.equal(removed.phase, 'removed');
  const odd = new SpeakerState();
  odd.join();
  assert.equal(odd.streamStarted(44100, 2, 16), false);
  assert.equal(odd.phase, 'unsupported');
});

test('chunk boundaries pass without a repeated or skipped sample, at any phase', () => {
  for (const phase of [0, 3, 10, 11, 20]) {
    const b = new JitterBuffer();
    for (let i = 0; i < 5; i++) b.push(1_000_000 + i * 10_000, ramp(i * 480, 480));
    const got = readLeft(b, 1500, 1_000_000 + phase);
    for (let i = 1; i < got.length; i++) assert.equal(got[i] - got[i - 1], 1, `phase ${phase} at ${i}`);
  }
});

// ---- The scheduled player, against a context whose clock the test moves.

class FakeContext {
  constructor() {
    this.currentTime = 0;
    this.started = [];
  }
  createBuffer(channels, length, sampleRate) {
    const data = [new Float32Array(length), new Float32Array(length)];
    return { length, sampleRate, getChannelData: (i) => data[i] };
  }
  createBufferSource() {
    const started = this.started;
    const source = {
      connect() {},
      start(when) {
        source.when = when;
        started.push(source);
      },
      stop() {
        source.stopped = true;
      },
    };
    return source;
  }
}

const T0 = 5_000_000;
const HEADROOM = 200_000;
// With this mapping the block at context time 0.05 s plays the sample stamped T0.
const H = T0 + HEADROOM - 50_000;

function rampedBuffer(chunks) {
  const b = new JitterBuffer();
  for (let i = 0; i < chunks; i++) b.push(T0 + i * 10_000, ramp(i * 480, 480));
  return b;
}

const leftOf = (source) => Array.from(source.buffer.getChannelData(0), (v) => Math.round(v * 32768));
const live = (ctx) => ctx.started.filter((s) => !s.stopped);

test('scheduled blocks lie back to back on whole frames and play the sample stamped for their time', () => {
  const ctx = new FakeContext();
  const out = new ScheduledOutput(ctx, null, rampedBuffer(30), HEADROOM);
  out.pump();
  assert.equal(ctx.started.length, 0, 'nothing before the clock is known');
  out.setClock(H);
  assert.equal(ctx.started.length, 12);
  ctx.started.forEach((s, i) => {
    assert.equal(Math.round(s.when * SAMPLE_RATE), 2400 + i * BLOCK_FRAMES);
    assert.equal(leftOf(s)[0], i * BLOCK_FRAMES);
  });
  assert.deepEqual(leftOf(ctx.started[1]).slice(0, 3), [1024, 1025, 1026]);
  // Later pumps only add what has come within reach.
  ctx.currentTime = 0.03;
  out.pump();
  assert.equal(ctx.started.length, 14);
  ctx.started[0].onended();
  assert.equal(out.heardFrames, BLOCK_FRAMES);
});

test('drift is taken by single dropped samples, never by a jump', () => {
  const ctx = new FakeContext();
  const out = new ScheduledOutput(ctx, null, rampedBuffer(200), HEADROOM);
  // The host's clock gains 500 ppm on the sound card's.
  for (let t = 0; t < 1.2; t += 0.04) {
    ctx.currentTime = t;
    out.setClock(H + t * 500);
  }
  const all = live(ctx).sort((a, b) => a.when - b.when).flatMap(leftOf);
  const steps = new Map();
  for (let i = 1; i < all.length; i++) {
    const d = (all[i] - all[i - 1] + 65536) % 65536;
    steps.set(d, (steps.get(d) || 0) + 1);
  }
  assert.deepEqual([...steps.keys()].sort(), [1, 2]);
  // The last mapping is 580 us on: about 28 frames, each dropped once.
  assert.ok(Math.abs(steps.get(2) - 28) <= 2, `${steps.get(2)} dropped`);
});

test('a jump of the clock lays the blocks not yet started again; a stalled page starts afresh', () => {
  const ctx = new FakeContext();
  const out = new ScheduledOutput(ctx, null, rampedBuffer(120), HEADROOM);
  out.setClock(H);
  ctx.currentTime = 0.1;
  out.setClock(H + 20_000);
  const stopped = ctx.started.filter((s) => s.stopped);
  assert.ok(stopped.length > 0);
  assert.ok(stopped.every((s) => s.when > 0.11));
  const kept = live(ctx).filter((s) => s.when <= 0.11);
  const relaid = live(ctx).filter((s) => s.when > 0.11);
  // The new schedule continues the kept one seamlessly and is 20 ms (960 frames) further on.
  const frameOf = (source) => Math.round(source.when * SAMPLE_RATE);
  assert.equal(frameOf(relaid[0]), frameOf(kept.at(-1)) + BLOCK_FRAMES);
  const frame = frameOf(relaid[0]) - 2400;
  assert.equal(leftOf(relaid[0])[0], frame + 960);

  ctx.currentTime = 1.0;
  out.pump();
  const first = live(ctx).find((s) => s.when > 1.0);
  assert.equal(frameOf(first), Math.ceil(1.05 * SAMPLE_RATE));
  assert.equal((leftOf(first)[0] + 65536) % 65536, Math.ceil(1.05 * SAMPLE_RATE) - 2400 + 960);

  out.clear();
  assert.ok(ctx.started.every((s) => s.stopped));
});

test('the mapping follows small wobbles at 500 ppm at most and real moves at once', () => {
  const m = new SlewedMapping();
  assert.equal(m.follow(1_000_000, 0), 1_000_000);
  // 300 us off, 100 ms later: 50 us of it.
  assert.equal(m.follow(1_000_300, 100), 1_000_050);
  assert.equal(m.follow(1_000_300, 200), 1_000_100);
  assert.equal(m.follow(1_000_120, 300), 1_000_120);
  // Back the other way, as fast.
  assert.equal(m.follow(999_000, 400), 1_000_070);
  // A move of the output beyond 2 ms.
  assert.equal(m.follow(1_015_000, 500), 1_015_000);
  m.reset();
  assert.equal(m.follow(5, 600), 5);
});
