// When to retry a lost link and when to give up: the same rules the phone app
// follows when it plays as a guest.
export const PATIENCE_S = 15;
export const IDLE_AFTER_S = 2;
export const SILENCE_LIMIT_S = 4;
export const CLOSE_REMOVED = 4001;
export const CLOSE_FULL = 4002;

const IN = new Set(['joining', 'playing', 'paused', 'reconnecting']);

export class SpeakerState {
  constructor() {
    this.phase = 'join';
    this.lostSince = null;
  }

  get isIn() {
    return IN.has(this.phase);
  }

  join() {
    if (this.isIn) return false;
    this.phase = 'joining';
    this.lostSince = null;
    return true;
  }

  leave() {
    this.phase = 'join';
    this.lostSince = null;
  }

  hello() {
    if (!this.isIn) return;
    this.lostSince = null;
    if (this.phase === 'reconnecting') this.phase = 'joining';
  }

  streamStarted(sampleRate, channels, bitDepth) {
    if (!this.isIn) return false;
    if (sampleRate === 48000 && channels === 2 && bitDepth === 16) {
      this.phase = 'playing';
      this.lostSince = null;
      return true;
    }
    this.phase = 'unsupported';
    return false;
  }

  streamEnded() {
    if (this.phase === 'joining' || this.phase === 'playing') this.phase = 'paused';
  }

  idle() {
    if (this.phase === 'joining') this.phase = 'paused';
  }

  // True: try again. `at` in seconds.
  lost(closeCode, status, at) {
    if (!this.isIn) return false;
    if (closeCode === CLOSE_REMOVED || status === 'removed') {
      this.phase = 'removed';
      return false;
    }
    if (closeCode === CLOSE_FULL || status === 'full') {
      this.phase = 'full';
      return false;
    }
    if (this.lostSince === null) this.lostSince = at;
    if (at - this.lostSince < PATIENCE_S) {
      this.phase = 'reconnecting';
      return true;
    }
    this.phase = 'join';
    return false;
  }
}
