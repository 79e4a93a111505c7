// The two clocks a guest must bridge: the host's (every stamp on the wire) and
// the sound card's (where the output actually is). Both are mapped onto
// performance.now(), the one clock the page can read directly.

// Offset of the host's clock from ours by four-timestamp exchanges. Only the
// quickest quarter is believed: their two legs were most nearly equal.
export class ClockSync {
  constructor(window = 40) {
    this.window = window;
    this.samples = [];
  }

  // All four in microseconds: t1 sent, t2 host received, t3 host sent, t4 arrived.
  add(t1, t2, t3, t4) {
    const rtt = t4 - t1 - (t3 - t2);
    if (t4 < t1 || rtt < 0) return;
    this.samples.push({ rtt, offset: (t2 - t1 + (t3 - t4)) / 2 });
    while (this.samples.length > this.window) this.samples.shift();
  }

  // Host microseconds minus ours, or null while fewer than four exchanges.
  offsetUs() {
    if (this.samples.length < 4) return null;
    const best = [...this.samples].sort((a, b) => a.rtt - b.rtt);
    const n = Math.floor(best.length / 4);
    let sum = 0;
    for (let i = 0; i < n; i++) sum += best[i].offset;
    return sum / n;
  }

  bestRttUs() {
    return this.samples.length ? Math.min(...this.samples.map((s) => s.rtt)) : null;
  }
}

// When the sample at a given context time is heard, in performance.now()
// milliseconds. getOutputTimestamp() says it to a fraction of a millisecond
// but wobbles; the median of the last two seconds is steady. Where the browser
// lacks it, the context's own latency figures stand in, which are coarser.
export class OutputClock {
  constructor(context) {
    this.context = context;
    this.readings = [];
  }

  sample() {
    const ctx = this.context;
    if (typeof ctx.getOutputTimestamp === 'function') {
      const stamp = ctx.getOutputTimestamp();
      if (stamp && stamp.performanceTime > 0 && stamp.contextTime > 0) {
        this.push(stamp.performanceTime - stamp.contextTime * 1000);
        return;
      }
    }
    const latency = (ctx.outputLatency || 0) + (ctx.baseLatency || 0);
    this.push(performance.now() - ctx.currentTime * 1000 + latency * 1000);
  }

  push(value) {
    this.readings.push(value);
    if (this.readings.length > 20) this.readings.shift();
    // After a glitch the output really has moved: three readings that agree
    // with each other and not with the rest are believed at once, rather than
    // waiting a second for the median to come round.
    if (this.readings.length >= 6) {
      const recent = this.readings.slice(-3);
      const spread = Math.max(...recent) - Math.min(...recent);
      const before = median(this.readings.slice(0, -3));
      const now = median(recent);
      if (spread < 0.5 && Math.abs(now - before) > 2) this.readings = recent;
    }
  }

  // After a pause the browser may rebuild its output stream: start afresh.
  reset() {
    this.readings = [];
  }

  // performance.now() ms minus context ms for heard output, or null.
  perfMinusContextMs() {
    return this.readings.length < 3 ? null : median(this.readings);
  }
}

function median(values) {
  const sorted = [...values].sort((a, b) => a - b);
  const m = sorted.length >> 1;
  return sorted.length % 2 ? sorted[m] : (sorted[m - 1] + sorted[m]) / 2;
}

// The mapping the player reads from, following the measured one smoothly.
// The measured mapping wobbles by a few hundred microseconds from reading to
// reading; a player that chased each wobble would take a burst of one-sample
// steps every time, a brief pitch change that can be heard. Followed at no
// more than 500 ppm, a wobble costs single samples at least 40 ms apart,
// while the real drift of a sound card (tens of ppm) and the slow creep of an
// output that keeps missing its deadlines on a busy computer are kept up with.
// A difference beyond 2 ms is a real move of the output and is taken at once.
export const SLEW_PPM = 500;
export const MOVE_US = 2000;

export class SlewedMapping {
  constructor() {
    this.valueUs = null;
    this.atMs = null;
  }

  // The measured value at performance.now() `nowMs`; returns the one to use.
  follow(measuredUs, nowMs) {
    if (this.valueUs === null || Math.abs(measuredUs - this.valueUs) > MOVE_US) {
      this.valueUs = measuredUs;
    } else {
      const allowed = Math.max(0, nowMs - this.atMs) * 1000 * SLEW_PPM * 1e-6;
      const step = Math.max(-allowed, Math.min(allowed, measuredUs - this.valueUs));
      this.valueUs += step;
    }
    this.atMs = nowMs;
    return this.valueUs;
  }

  reset() {
    this.valueUs = null;
    this.atMs = null;
  }
}
