// Plays stamped chunks at their stamp plus the headroom, on the host's
// timeline. An AudioWorklet where the page may have one (a secure context,
// which includes the computer itself); elsewhere, as on a phone that opened
// the plain http link, blocks scheduled ahead on the context's clock, with the
// same buffer and rules. "?scheduled" in the page's address takes the second
// path where the first would do, to try it.
import { JitterBuffer } from './jitter-buffer.js';
import { OutputClock, SlewedMapping } from './clock.js';
import { ScheduledOutput } from './scheduled-output.js';

const HEADROOM_US = 200000;

export class Player {
  constructor() {
    this.context = null;
    this.node = null; // worklet path
    this.scheduled = null; // scheduled path
    this.hostAtZeroUs = null;
    this.outputClock = null;
    this.mapping = new SlewedMapping();
    this.timer = null;
    this.pumpTimer = null;
    this.hostOffsetUs = null;
    this.workletHeard = 0;
  }

  // Must run inside the tap's handler: that is what unlocks audio.
  unlock() {
    if (!this.context) {
      const Context = window.AudioContext || window.webkitAudioContext;
      try {
        this.context = new Context({ sampleRate: 48000, latencyHint: 'interactive' });
      } catch (e) {
        this.context = new Context();
      }
      this.outputClock = new OutputClock(this.context);
    }
    if (this.context.state !== 'running') this.context.resume();
  }

  async start() {
    const ctx = this.context;
    if (this.node || this.scheduled) return;
    const forced = new URLSearchParams(location.search).has('scheduled');
    if (ctx.audioWorklet && window.isSecureContext && !forced) {
      await ctx.audioWorklet.addModule('player-worklet.js');
      this.node = new AudioWorkletNode(ctx, 'guest-player', {
        numberOfInputs: 0,
        numberOfOutputs: 1,
        outputChannelCount: [2],
      });
      this.node.port.onmessage = (event) => {
        if (event.data.type === 'heard') this.workletHeard = event.data.frames;
      };
      this.node.connect(ctx.destination);
    } else {
      this.scheduled = new ScheduledOutput(ctx, ctx.destination, new JitterBuffer(), HEADROOM_US);
      this.pumpTimer = setInterval(() => this.scheduled.pump(), 40);
    }
    // A whisper far below one 16-bit step keeps the browser from closing its
    // output stream in quiet passages, which would shift the timing.
    const keepAlive = ctx.createConstantSource();
    keepAlive.offset.value = 1e-6;
    keepAlive.connect(ctx.destination);
    keepAlive.start();
    this.timer = setInterval(() => this.tick(), 100);
  }

  setHostOffset(offsetUs) {
    this.hostOffsetUs = offsetUs;
    this.tick();
  }

  tick() {
    if (!this.context) return;
    this.outputClock.sample();
    const perfMinusCtx = this.outputClock.perfMinusContextMs();
    if (perfMinusCtx === null || this.hostOffsetUs === null) return;
    const hostAtZeroUs = this.mapping.follow(perfMinusCtx * 1000 + this.hostOffsetUs, performance.now());
    if (this.hostAtZeroUs !== null && Math.abs(hostAtZeroUs - this.hostAtZeroUs) < 2) return;
    this.hostAtZeroUs = hostAtZeroUs;
    if (this.scheduled) this.scheduled.setClock(hostAtZeroUs);
    else if (this.node) this.node.port.postMessage({ type: 'clock', hostAtZeroUs });
  }

  push(playAtUs, pcm) {
    if (this.scheduled) {
      this.scheduled.buffer.push(playAtUs, new Int16Array(pcm));
      this.scheduled.pump();
    } else if (this.node) {
      this.node.port.postMessage({ type: 'chunk', playAtUs, pcm }, [pcm]);
    }
  }

  clear() {
    if (this.scheduled) this.scheduled.clear();
    else if (this.node) this.node.port.postMessage({ type: 'clear' });
    if (this.outputClock) this.outputClock.reset();
    this.mapping.reset();
  }

  describe() {
    return {
      hostAtZeroUs: this.hostAtZeroUs,
      outputLatency: this.context ? this.context.outputLatency : null,
      baseLatency: this.context ? this.context.baseLatency : null,
      // The last raw reading of when context time zero is heard, for diagnosis.
      lastOutputReadingMs: this.outputClock ? this.outputClock.readings.at(-1) ?? null : null,
      path: this.scheduled ? 'scheduled' : this.node ? 'worklet' : null,
      // Frames of sound (not silence) handed to the output so far.
      heardFrames: this.scheduled ? this.scheduled.heardFrames : this.workletHeard,
    };
  }
}
