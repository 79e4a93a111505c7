// The guest host program as a child: its "rows" lines become a live table.
import { spawn } from 'node:child_process';
import readline from 'node:readline';

export class GuestHost {
  constructor(bin, args) {
    this.rows = [];
    this.port = null;
    this.waiters = [];
    this.log = [];
    this.seen = new Set(); // every "name|subtitle" ever shown
    this.child = spawn(bin, args, { stdio: ['pipe', 'pipe', 'pipe'] });
    readline.createInterface({ input: this.child.stdout }).on('line', (line) => this.onLine(line));
    readline.createInterface({ input: this.child.stderr }).on('line', (line) => this.log.push(line));
    this.exited = new Promise((resolve) => this.child.on('exit', resolve));
  }

  onLine(line) {
    if (line.startsWith('listening ')) this.port = Number(line.slice(10));
    if (line.startsWith('rows ')) {
      this.rows = JSON.parse(line.slice(5));
      for (const r of this.rows) this.seen.add(`${r.name}|${r.subtitle}`);
    }
    this.waiters = this.waiters.filter((w) => !w());
  }

  // Resolves once `test` holds on the host's state, or rejects after `ms`.
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
        reject(new Error(`timed out waiting for ${what}; rows: ${JSON.stringify(this.rows)}`));
      }, ms);
      if (!check()) this.waiters.push(check);
    });
  }

  row(name) {
    return this.rows.find((r) => r.name === name);
  }

  send(line) {
    this.child.stdin.write(line + '\n');
  }

  async stop() {
    this.send('quit');
    const timer = setTimeout(() => this.child.kill('SIGKILL'), 5000);
    await this.exited;
    clearTimeout(timer);
  }
}
