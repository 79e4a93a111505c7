// The output side of a guest in the audio thread: each render quantum asks the
// jitter buffer for the samples that belong to the moment it will be heard.
import { JitterBuffer } from './jitter-buffer.js';

const HEADROOM_US = 200000;

class GuestPlayer extends AudioWorkletProcessor {
  constructor() {
    super();
    this.buffer = new JitterBuffer();
    // Host microseconds at context time zero, as heard; null until known.
    this.hostAtZeroUs = null;
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
    this.buffer.read(left, right, left.length, Math.round(heardUs) - HEADROOM_US);
    return true;
  }
}

registerProcessor('guest-player', GuestPlayer);
