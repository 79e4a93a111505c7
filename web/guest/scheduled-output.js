// The player for a page without an AudioWorklet: a phone that opened the
// plain http link is not a secure context, so it has none. The jitter buffer
// is read ahead of time in blocks, and each block becomes an AudioBuffer
// started with AudioBufferSourceNode.start(when) exactly where the previous
// one ends, on whole frames of the context's clock, so that nothing is ever
// resampled or overlapped at a seam.
//
// A block read for context time `when` asks the buffer for host time
// hostAtZero + when - headroom: the sample heard at `when` is the one stamped
// for that moment. hostAtZero is the host's clock at context time zero as
// heard, so the output's own latency is already in it (see OutputClock).
//
// Drift between the sound card's clock and the host's shows as the wanted
// host time creeping away from the buffer's cursor. The buffer takes such
// small errors one frame per read, and the blocks are read in 128-frame
// steps: a correction drops or repeats a single sample at most once every
// 2.7 ms, and in steady play (tens of ppm) a few times a second. A single
// sample is inaudible, where resampling by a changing ratio would warble.
// An error beyond 10 ms is a jump (the output was rebuilt, the clock
// re-synced): blocks not yet started are stopped and the schedule is laid
// again from the new mapping.
import { FRAME_US, SAMPLE_RATE } from './jitter-buffer.js';

export const BLOCK_FRAMES = 1024;
// Far enough ahead to ride out a late timer, short enough that a new clock
// mapping is heard soon.
const AHEAD_S = 0.3;
// The first block's distance from now: the context must still be before it.
const LEAD_S = 0.05;
// A block closer to now than this is not safe to stop and lay again.
const GUARD_S = 0.01;
const QUANTUM = 128;
const JUMP_US = 10000;

export class ScheduledOutput {
  // `buffer` is a JitterBuffer; `headroomUs` how long after its stamp a sample is heard.
  constructor(context, destination, buffer, headroomUs) {
    this.context = context;
    this.destination = destination;
    this.buffer = buffer;
    this.headroomUs = headroomUs;
    this.hostAtZeroUs = null;
    this.nextFrame = null; // in 48 kHz frames of context time
    this.pending = []; // { source, frame, heard }
    this.heardFrames = 0;
  }

  setClock(hostAtZeroUs) {
    const before = this.hostAtZeroUs;
    this.hostAtZeroUs = hostAtZeroUs;
    if (before !== null && Math.abs(hostAtZeroUs - before) > JUMP_US) this.relay();
    this.pump();
  }

  // Stops what has not started and lays it again from the current mapping.
  relay() {
    const now = this.context.currentTime;
    const keep = [];
    let from = null;
    for (const p of this.pending) {
      if (p.frame / SAMPLE_RATE > now + GUARD_S) {
        p.source.onended = null;
        p.source.stop();
        if (from === null || p.frame < from) from = p.frame;
      } else {
        keep.push(p);
      }
    }
    this.pending = keep;
    if (from !== null) this.nextFrame = from;
    this.buffer.cursorUs = null;
  }

  clear() {
    for (const p of this.pending) {
      p.source.onended = null;
      p.source.stop();
    }
    this.pending = [];
    this.nextFrame = null;
    this.buffer.clear();
  }

  // Schedules blocks until AHEAD_S past now. Call often (a timer, each chunk).
  pump() {
    if (this.hostAtZeroUs === null) return;
    const ctx = this.context;
    const now = ctx.currentTime;
    if (this.nextFrame === null || this.nextFrame / SAMPLE_RATE < now + GUARD_S) {
      // The first block, or the page stalled past its schedule: start afresh.
      this.nextFrame = Math.ceil((now + LEAD_S) * SAMPLE_RATE);
      this.buffer.cursorUs = null;
    }
    while (this.nextFrame / SAMPLE_RATE < now + AHEAD_S) {
      const frame = this.nextFrame;
      const when = frame / SAMPLE_RATE;
      const audio = ctx.createBuffer(2, BLOCK_FRAMES, SAMPLE_RATE);
      const left = audio.getChannelData(0);
      const right = audio.getChannelData(1);
      const startUs = this.hostAtZeroUs + when * 1e6 - this.headroomUs;
      let heard = 0;
      for (let at = 0; at < BLOCK_FRAMES; at += QUANTUM) {
        heard += this.buffer.read(left.subarray(at, at + QUANTUM), right.subarray(at, at + QUANTUM),
          QUANTUM, Math.round(startUs + at * FRAME_US));
      }
      const source = ctx.createBufferSource();
      source.buffer = audio;
      source.connect(this.destination);
      const entry = { source, frame, heard };
      source.onended = () => {
        this.heardFrames += entry.heard;
        this.pending = this.pending.filter((p) => p !== entry);
      };
      // A hair before the frame: frame / rate can come out a hair after it in
      // floating point, and a browser that rounds start times up would then
      // leave one silent frame at every seam.
      source.start((frame - 1e-4) / SAMPLE_RATE);
      this.pending.push(entry);
      this.nextFrame = frame + BLOCK_FRAMES;
    }
  }
}
