// Plays stamped chunks at their stamp plus the headroom, on the host's
// timeline. An AudioWorklet where the page may have one (a secure context,
// which includes the computer itself); a script processor elsewhere, as on a
// phone that opened the plain http link, with the same buffer and rules.
import { JitterBuffer, FRAME_US } from './jitter-buffer.js';
import { OutputClock } from './clock.js';

const HEADROOM_US = 200000;
// Reads in the worklet's quantum even where the block is larger, so that a
// correction of one frame per read converges as fast on either path.
const QUANTUM = 128;

export class Player {
  constructor() {
    this.context = null;
    this.node = null;
    this.buffer = null; // script-processor path only
    this.hostAtZeroUs = null;
    this.outputClock = null;
    this.timer = null;
    this.hostOffsetUs = null;
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
    if (this.node) return;
    // "?scriptprocessor" tries the fallback on a page that could have a worklet.
    const fallback = new URLSearchParams(location.search).has('scriptprocessor');
    if (ctx.audioWorklet && window.isSecureContext && !fallback) {
      await ctx.audioWorklet.addModule('player-worklet.js');
      this.node = new AudioWorkletNode(ctx, 'guest-player', {
        numberOfInputs: 0,
        numberOfOutputs: 1,
        outputChannelCount: [2],
      });
    } else {
      this.buffer = new JitterBuffer();
      const node = ctx.createScriptProcessor(2048, 0, 2);
      node.onaudioprocess = (event) => {
        const out = event.outputBuffer;
        const left = out.getChannelData(0);
        const right = out.getChannelData(1);
        if (this.hostAtZeroUs === null) {
          left.fill(0);
          right.fill(0);
          return;
        }
        const startUs = Math.round(this.hostAtZeroUs + event.playbackTime * 1e6) - HEADROOM_US;
        for (let at = 0; at < left.length; at += QUANTUM) {
          const n = Math.min(QUANTUM, left.length - at);
          this.buffer.read(left.subarray(at, at + n), right.subarray(at, at + n), n,
            Math.round(startUs + at * FRAME_US));
        }
      };
      this.node = node;
    }
    this.node.connect(ctx.destination);
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
    const hostAtZeroUs = perfMinusCtx * 1000 + this.hostOffsetUs;
    if (this.hostAtZeroUs !== null && Math.abs(hostAtZeroUs - this.hostAtZeroUs) < 2) return;
    this.hostAtZeroUs = hostAtZeroUs;
    if (this.node && this.node.port) this.node.port.postMessage({ type: 'clock', hostAtZeroUs });
  }

  push(playAtUs, pcm) {
    if (!this.node) return;
    if (this.buffer) {
      this.buffer.push(playAtUs, new Int16Array(pcm));
    } else {
      this.node.port.postMessage({ type: 'chunk', playAtUs, pcm }, [pcm]);
    }
  }

  clear() {
    if (this.buffer) this.buffer.clear();
    else if (this.node && this.node.port) this.node.port.postMessage({ type: 'clear' });
    if (this.outputClock) this.outputClock.reset();
  }

  describe() {
    return {
      hostAtZeroUs: this.hostAtZeroUs,
      outputLatency: this.context ? this.context.outputLatency : null,
      baseLatency: this.context ? this.context.baseLatency : null,
      worklet: !this.buffer,
    };
  }
}
