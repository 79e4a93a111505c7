// Stamped audio in, samples out at the time the output asks for. Small clock
// corrections are taken one frame per read, which is inaudible; only a real
// discontinuity (more than 10 ms) makes the read jump. The same rules as the
// phone app's buffer, so web guests and app guests line up alike.

export const SAMPLE_RATE = 48000;
export const FRAME_US = 1e6 / SAMPLE_RATE;
const JUMP_FRAMES = 480;
const KEEP_BEHIND_US = 1e6;
const KEEP_BEFORE_NEWEST_US = 3e6;

export class JitterBuffer {
  constructor() {
    this.chunks = [];
    this.cursorUs = null;
  }

  clear() {
    this.chunks = [];
    this.cursorUs = null;
  }

  // `samples` is an Int16Array of interleaved stereo.
  push(playAtUs, samples) {
    let count = samples.length;
    if (count < 2) return;
    if (count % 2) {
      count -= 1;
      samples = samples.subarray(0, count);
    }
    const last = this.chunks[this.chunks.length - 1];
    if (last && last.startUs >= playAtUs) {
      // The timeline went back: what was queued from there on is void.
      this.chunks = this.chunks.filter((c) => c.startUs < playAtUs);
    }
    const frames = count / 2;
    this.chunks.push({ startUs: playAtUs, samples, frames, endUs: playAtUs + frames * FRAME_US });
    while (this.chunks.length && this.chunks[0].endUs < playAtUs - KEEP_BEFORE_NEWEST_US) {
      this.chunks.shift();
    }
    if (this.cursorUs !== null) {
      while (this.chunks.length && this.chunks[0].endUs < this.cursorUs - KEEP_BEHIND_US) {
        this.chunks.shift();
      }
    }
  }

  // Fills `left` and `right` (Float32Arrays of `frames`) for output starting
  // at `startUs`; returns how many frames came from chunks rather than silence.
  read(left, right, frames, startUs) {
    const wanted = startUs;
    const cursor = this.cursorUs === null ? wanted : this.cursorUs;
    const diff = (wanted - cursor) / FRAME_US;
    let position;
    if (Math.abs(diff) > JUMP_FRAMES) position = wanted;
    else if (diff >= 1) position = cursor + FRAME_US;
    else if (diff <= -1) position = cursor - FRAME_US;
    else position = cursor;

    // A moment belongs to the chunk whose sample lies nearest to it: within
    // half a frame of a chunk's end, the next chunk's first sample is nearer.
    // Deciding by the end itself would play the last sample twice and skip the
    // next chunk's first at every boundary, a buzz at the chunk rate.
    const chunks = this.chunks;
    const half = FRAME_US / 2;
    let c = 0;
    let filled = 0;
    while (c < chunks.length && chunks[c].endUs - half <= position) c++;
    for (let i = 0; i < frames; i++) {
      const t = position + i * FRAME_US;
      while (c < chunks.length && chunks[c].endUs - half <= t) c++;
      if (c >= chunks.length || t + half < chunks[c].startUs) {
        left[i] = 0;
        right[i] = 0;
        continue;
      }
      const chunk = chunks[c];
      let index = Math.round((t - chunk.startUs) / FRAME_US);
      if (index < 0) index = 0;
      else if (index > chunk.frames - 1) index = chunk.frames - 1;
      left[i] = chunk.samples[2 * index] / 32768;
      right[i] = chunk.samples[2 * index + 1] / 32768;
      filled++;
    }
    this.cursorUs = position + frames * FRAME_US;
    return filled;
  }

  bufferedUntilUs() {
    return this.chunks.length ? this.chunks[this.chunks.length - 1].endUs : null;
  }
}
