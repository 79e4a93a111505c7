// The real application as a child: `vellatone --headless` on the private
// PulseAudio, its rows watched live through the control socket (which sends
// a state line whenever the state changes) and driven with vellatonectl.
import { spawn, execFile } from 'node:child_process';
import net from 'node:net';
import readline from 'node:readline';
import { promisify } from 'node:util';

const run = promisify(execFile);

export class App {
  // `env` must name VELLATONE_CONFIG_DIR and VELLATONE_CONTROL_SOCKET.
  constructor(binDir, env) {
    this.binDir = binDir;
    this.env = { ...process.env, ...env };
    this.rows = [];
    this.state = null; // the whole last state
    this.port = null;
    this.waiters = [];
    this.log = [];
    this.seen = new Set(); // every "name|subtitle" ever shown
    this.child = spawn(`${binDir}/vellatone`, ['--headless'], { env: this.env, stdio: ['ignore', 'ignore', 'pipe'] });
    readline.createInterface({ input: this.child.stderr }).on('line', (line) => {
      this.log.push(line);
      const m = /^vellatone: guest server on port (\d+)$/.exec(line);
      if (m) this.port = Number(m[1]);
      this.recheck();
    });
    this.exited = new Promise((resolve) => this.child.on('exit', resolve));
  }

  // Runs vellatonectl; resolves to its output, rejects with its sentence.
  async ctl(...args) {
    try {
      const { stdout } = await run(`${this.binDir}/vellatonectl`, args, { env: this.env });
      return stdout;
    } catch (error) {
      throw new Error(`vellatonectl ${args.join(' ')}: ${error.stderr || error.message}`);
    }
  }

  // Waits for the socket, then follows every state the app sends.
  async watch() {
    const path = this.env.VELLATONE_CONTROL_SOCKET;
    for (let i = 0; ; i++) {
      try {
        this.socket = await new Promise((resolve, reject) => {
          const s = net.createConnection(path, () => resolve(s));
          s.once('error', reject);
        });
        break;
      } catch (error) {
        if (i > 100 || this.child.exitCode !== null) throw new Error(`no control socket: ${this.log.join('\n')}`);
        await new Promise((r) => setTimeout(r, 50));
      }
    }
    readline.createInterface({ input: this.socket }).on('line', (line) => this.onState(line));
  }

  onState(line) {
    let message;
    try {
      message = JSON.parse(line);
    } catch {
      return;
    }
    if (message.artwork) {
      this.artwork = message.artwork; // {key, jpeg (base64)}
      return;
    }
    const state = message.state && (message.state._0 || message.state);
    if (!state || !Array.isArray(state.rows)) return;
    // The cover a state names must have come before it.
    const key = state.nowPlaying && state.nowPlaying.artworkKey;
    if (key && !(this.artwork && this.artwork.key === key)) this.artworkLate = key;
    this.state = state;
    this.rows = state.rows.map((r) => ({ ...r, subtitle: r.transport }));
    for (const r of this.rows) this.seen.add(`${r.name}|${r.subtitle}`);
    this.recheck();
  }

  recheck() {
    this.waiters = this.waiters.filter((w) => !w());
  }

  // Resolves once `test` holds on the app's state, or rejects after `ms`.
  until(test, what, ms = 15000) {
    return new Promise((resolve, reject) => {
      const check = () => {
        const value = test(this);
        if (value) {
          clearTimeout(timer);
          resolve(value);
          return true;
        }
        return false;
      };
      const timer = setTimeout(() => {
        this.waiters = this.waiters.filter((w) => w !== check);
        reject(new Error(`timed out waiting for ${what}; rows: ${JSON.stringify(this.rows.map(brief))}`));
      }, ms);
      if (!check()) this.waiters.push(check);
    });
  }

  row(name) {
    return this.rows.find((r) => r.name === name);
  }

  guests() {
    return this.rows.filter((r) => r.guestID);
  }

  async stop() {
    if (this.socket) this.socket.destroy();
    this.child.kill('SIGTERM');
    const timer = setTimeout(() => this.child.kill('SIGKILL'), 5000);
    const code = await this.exited;
    clearTimeout(timer);
    return code;
  }
}

function brief(r) {
  return { slot: r.slot, name: r.name, subtitle: r.subtitle, guestID: r.guestID, volume: r.volume, trimMs: r.trimMs };
}
