// The output side of a guest in the audio thread: each render quantum asks the
// jitter buffer for the samples that belong to the moment it will be heard.
import { JitterBuffer } from './jitter-buffer.js';

const HEADROOM_US = 200000;
// How often the page hears how much sound went out, in quanta (about 0.5 s).
const REPORT_EVERY = 188;

class GuestPlayer extends AudioWorkletProcessor {
  constructor() {
    super();
    this.buffer = new JitterBuffer();
    // Host microseconds at context time zero, as heard; null until known.
    this.hostAtZeroUs = null;
    this.heardFrames = 0;
    this.quanta = 0;
    this.port.onmessage = (event) => {
      const m = event.data;
      if (m.type === 'chunk') this.buffer.push(m.playAtUs, new Int16Array(m.pcm));
      else if (m.type === 'clock') this.hostAtZeroUs = m.hostAtZeroUs;
      else if (m.type === 'clear') this.buffer.clear();
    };
  }

  process(inputs, outputs) {
    const out = outputs[0];
    const left = out[0];
    const right = out[1] || out[0];
    if (this.hostAtZeroUs === null) {
      left.fill(0);
      right.fill(0);
      return true;
    }
    const heardUs = this.hostAtZeroUs + currentTime * 1e6;
    this.heardFrames += this.buffer.read(left, right, left.length, Math.round(heardUs) - HEADROOM_US);
    if (++this.quanta % REPORT_EVERY === 0) this.port.postMessage({ type: 'heard', frames: this.heardFrames });
    return true;
  }
}

registerProcessor('guest-player', GuestPlayer);
