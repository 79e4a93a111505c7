// A fake Google Cast TV for the Cast tests: the receiver side of the Cast
// channel over TLS (castv2's server), and a default media receiver that
// behaves like a TV rather than a mirror of our sender: on LOAD it fetches
// the URL, fills a buffer of its own before it plays, plays in real time
// into a sink of the test's sound server (through vellatone-tv-sink),
// resamples for SET_PLAYBACK_RATE, and reports as currentTime what has been
// heard, by the sound server's own timing of its sink as a TV's audio stack
// knows its output delay, answering a little late now and then as TVs do. It also runs the
// clock-synced receiver application (--sync-app, our id by default): on its
// LAUNCH it opens receiver/receiver.html in headless Chromium, which joins
// the sender's Sendspin server and plays at the stamps into the same sink.
// Any other application id gets LAUNCH_ERROR, as from a TV without it.
//
//   node fake-tv.mjs [--port 8009] [--host 127.0.0.1] [--sink tv]
//                    [--buffer 2.5] [--jitter 0.02] [--refuse-rate-2]
//                    [--mode normal|firewall|close|silent]
//                    [--publish NAME] [--id HEX32] [--no-audio]
//                    [--sync-app ID] [--player PATH-OF-vellatone-tv-sink]
//
// Modes: "firewall" never fetches the stream; "close" ends the connection
// 3 s after LOAD; "silent" stops answering anything (heartbeats too) 3 s
// after LOAD. Lines on standard input steer it while it runs: "takeover"
// (another sender launches an app and takes the session), "stall SECONDS"
// (stop reading the stream for that long, so the buffer runs dry), "close".
// It reports events as JSON lines on standard output; the first is
// {"event":"listening","port":N}.
import { spawn, execFileSync } from 'node:child_process';
import { createHash, randomUUID } from 'node:crypto';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import http from 'node:http';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { dirname, extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';
import readline from 'node:readline';

const require = createRequire(import.meta.url);
const { Server } = require('castv2');

const NS = {
    heartbeat: 'urn:x-cast:com.google.cast.tp.heartbeat',
    connection: 'urn:x-cast:com.google.cast.tp.connection',
    receiver: 'urn:x-cast:com.google.cast.receiver',
    media: 'urn:x-cast:com.google.cast.media',
    sendspin: 'urn:x-cast:sendspin',
};
const MEDIA_APP = 'CC1AD845';
const RATE_HZ = 44100;
const BYTES_PER_FRAME = 4;
const WAV_HEADER_BYTES = 44;
const TICK_MS = 10;
// The loudspeaker is kept this far ahead of what it plays.
const OUTPUT_LEAD_S = 0.25;
// Of that lead, the sound server holds this much and vellatone-tv-sink the
// rest. A sink asked for a long latency plays in long bursts, and the timing
// snapshots of its monitor then scatter by milliseconds (4 ms at 250 ms on
// PulseAudio), which is more than is measured through them.
const SERVER_BUFFER_MS = 100;
// Its timing reports scatter (by a millisecond or so on pipewire-pulse): the
// line from its frames to the clock is the median of this many of them.
const HEARD_REPORTS_KEPT = 50;
// What was written in each tick, to find the input heard from the output.
const TICKS_KEPT = 500;
// The line moves when the loudspeaker ran dry and starts again: so many
// reports in a row this far off the median start a new one.
const HEARD_JUMP_S = 0.005;
const HEARD_JUMP_REPORTS = 5;
const ALL_BASIC_MEDIA = 12303;

function parseArgs(argv) {
    const o = { port: 8009, host: '127.0.0.1', sink: 'tv', buffer: 2.5, jitter: 0.02, refuseRate2: false,
        mode: 'normal', publish: null, id: randomUUID().replaceAll('-', ''), audio: true, syncApp: 'FAB7FE2B',
        player: process.env.VELLATONE_TV_SINK || '' };
    for (let i = 2; i < argv.length; ++i) {
        const a = argv[i];
        const next = () => argv[++i];
        if (a === '--port') o.port = Number(next());
        else if (a === '--host') o.host = next();
        else if (a === '--sink') o.sink = next();
        else if (a === '--buffer') o.buffer = Number(next());
        else if (a === '--jitter') o.jitter = Number(next());
        else if (a === '--refuse-rate-2') o.refuseRate2 = true;
        else if (a === '--mode') o.mode = next();
        else if (a === '--publish') o.publish = next();
        else if (a === '--id') o.id = next();
        else if (a === '--no-audio') o.audio = false;
        else if (a === '--sync-app') o.syncApp = next();
        else if (a === '--player') o.player = next();
        else throw new Error(`unknown argument ${a}`);
    }
    return o;
}

const opts = parseArgs(process.argv);
const report = (event, fields = {}) => process.stdout.write(JSON.stringify({ event, ...fields }) + '\n');

// A TV shows the cover the sender names: fetched as a receiver would, and
// told by its size and hash.
function fetchArtwork(metadata) {
    const url = metadata && Array.isArray(metadata.images) && metadata.images[0] && metadata.images[0].url;
    if (typeof url !== 'string') return;
    http.get(url, (res) => {
        const parts = [];
        res.on('data', (d) => parts.push(d));
        res.on('end', () => {
            const body = Buffer.concat(parts);
            report('artwork', { url, status: res.statusCode, bytes: body.length,
                sha256: createHash('sha256').update(body).digest('hex') });
        });
    }).on('error', (e) => report('artwork-failed', { url, error: e.message }));
}

// --- the player -------------------------------------------------------------

class Player {
    constructor(onState) {
        this.onState = onState;
        this.reset();
    }

    reset() {
        this.chunks = [];          // Buffers of PCM not yet consumed
        this.chunkAt = 0;          // byte offset into chunks[0]
        this.buffered = 0;         // PCM bytes held
        this.position = 0;         // fractional input frame being read, counted from the start
        this.consumedBase = 0;     // input frames dropped from the front of chunks
        this.rate = 1.0;
        this.state = 'IDLE';
        this.idleReason = undefined;
        this.playStart = 0;
        this.written = 0;          // output frames written since playStart
        this.headerLeft = WAV_HEADER_BYTES;
        this.ticks = [];           // { out, position, rate }: output frame `out` (as the
                                   // loudspeaker counts) was made from input `position`
        this.request = null;
        this.stalledUntil = 0;
        this.mediaSessionId = 0;
        this.contentId = '';
    }

    load(url, mediaSessionId) {
        this.stop();
        this.reset();
        this.mediaSessionId = mediaSessionId;
        this.contentId = url;
        this.setState('BUFFERING');
        if (opts.mode === 'firewall') return;
        report('fetching', { url });
        this.request = http.get(url, (res) => {
            if (res.statusCode !== 200) {
                this.fail('http ' + res.statusCode);
                return;
            }
            res.on('data', (data) => this.take(data));
            res.on('end', () => { if (this.state !== 'IDLE') this.finish('FINISHED'); });
            res.on('error', () => this.fail('http error'));
            this.response = res;
        });
        this.request.on('error', (e) => this.fail(e.message));
        this.timer = setInterval(() => this.tick(), TICK_MS);
    }

    take(data) {
        if (this.headerLeft > 0) {
            const skip = Math.min(this.headerLeft, data.length);
            this.headerLeft -= skip;
            data = data.subarray(skip);
        }
        if (data.length === 0) return;
        this.chunks.push(data);
        this.buffered += data.length;
    }

    stall(seconds) {
        if (!this.response) return;
        this.response.pause();
        report('stall', { seconds });
        setTimeout(() => this.response && this.response.resume(), seconds * 1000);
    }

    framesHeld() {
        return Math.floor(this.buffered / BYTES_PER_FRAME);
    }

    // The sample of channel c at input frame f (relative to the first held frame).
    sample(f, c) {
        let offset = this.chunkAt + f * BYTES_PER_FRAME + c * 2;
        for (const chunk of this.chunks) {
            if (offset + 1 < chunk.length) return chunk.readInt16LE(offset);
            if (offset < chunk.length) {  // a sample split across chunks
                const next = this.chunks[this.chunks.indexOf(chunk) + 1];
                return Buffer.from([chunk[offset], next[0]]).readInt16LE(0);
            }
            offset -= chunk.length;
        }
        return 0;
    }

    dropFrames(n) {
        let bytes = n * BYTES_PER_FRAME;
        this.buffered -= bytes;
        this.consumedBase += n;
        while (bytes > 0) {
            const left = this.chunks[0].length - this.chunkAt;
            if (bytes < left) {
                this.chunkAt += bytes;
                return;
            }
            bytes -= left;
            this.chunks.shift();
            this.chunkAt = 0;
        }
    }

    tick() {
        const now = performance.now() / 1000;
        if (this.state === 'BUFFERING') {
            if (this.framesHeld() >= opts.buffer * RATE_HZ) {
                this.playStart = now;
                this.written = 0;
                this.setState('PLAYING');
            } else {
                return;
            }
        }
        if (this.state !== 'PLAYING') return;
        // Paced by the loudspeaker, as a player is by its audio clock: when it
        // falls behind (a dropout) the media time falls behind with it. The
        // clock only caps the pace until the loudspeaker says where it is.
        const byClock = Math.floor((now - this.playStart + OUTPUT_LEAD_S) * RATE_HZ) - this.written;
        const heard = output.heardNow({ clamped: false });
        const byLoudspeaker = heard === null ? byClock : Math.floor(heard + OUTPUT_LEAD_S * RATE_HZ) - output.written;
        const due = Math.min(byClock, byLoudspeaker);
        if (due <= 0) return;
        const out = Buffer.alloc(due * BYTES_PER_FRAME);
        const startPosition = this.position;
        let made = 0;
        for (; made < due; ++made) {
            const local = this.position - this.consumedBase;
            const i = Math.floor(local);
            if (i + 1 >= this.framesHeld()) break;
            const frac = local - i;
            for (let c = 0; c < 2; ++c) {
                const a = this.sample(i, c);
                const b = this.sample(i + 1, c);
                out.writeInt16LE(Math.max(-32768, Math.min(32767, Math.round(a + (b - a) * frac))), made * BYTES_PER_FRAME + c * 2);
            }
            this.position += this.rate;
            const whole = Math.floor(this.position - this.consumedBase);
            if (whole > 0) this.dropFrames(whole);
        }
        if (made > 0) {
            this.ticks.push({ out: output.written, position: startPosition, rate: this.rate });
            if (this.ticks.length > TICKS_KEPT) this.ticks.shift();
            output.write(out.subarray(0, made * BYTES_PER_FRAME));
            this.written += made;
        }
        if (made < due) {
            report('underrun', { at: this.currentTime() });
            this.setState('BUFFERING');
        }
    }

    // What has been heard: the input frame that made the output frame the
    // loudspeaker plays now.
    currentTime() {
        if (this.state === 'IDLE' || this.ticks.length === 0) return 0;
        const heard = output.heardNow();
        if (heard === null) return 0;
        let i = this.ticks.length - 1;
        while (i > 0 && this.ticks[i].out > heard) --i;
        const tick = this.ticks[i];
        if (heard < tick.out) return tick.position / RATE_HZ;  // nothing of this load heard yet
        const position = Math.min(this.position, tick.position + (heard - tick.out) * tick.rate);
        return position / RATE_HZ;
    }

    setRate(rate) {
        this.rate = rate;
        report('rate', { rate });
    }

    setState(state) {
        if (this.state === state) return;
        this.state = state;
        report('state', { state, currentTime: this.currentTime() });
        this.onState();
    }

    fail(why) {
        report('load-failed', { why });
        this.stop();
        this.idleReason = 'ERROR';
        this.setState('IDLE');
    }

    finish(reason) {
        this.stop();
        this.idleReason = reason;
        this.setState('IDLE');
    }

    stop() {
        clearInterval(this.timer);
        this.timer = null;
        if (this.request) this.request.destroy();
        this.request = null;
        this.response = null;
    }
}

// --- audio out ------------------------------------------------------------

const monotonicSeconds = () => Number(process.hrtime.bigint()) / 1e9;  // CLOCK_MONOTONIC

// The loudspeaker counts output frames over the whole run; `heardNow` is the
// one it plays at this moment, from its timing reports.
const output = (() => {
    const out = { written: 0, lineStarts: [], offLine: 0, end() {} };
    const lineStart = () => {
        const sorted = [...out.lineStarts].sort((a, b) => a - b);
        return sorted[Math.floor(sorted.length / 2)];
    };
    // Past what was written only while the loudspeaker runs dry.
    out.heardNow = ({ clamped = true } = {}) => {
        if (out.lineStarts.length === 0) return null;
        const heard = Math.max(0, (monotonicSeconds() - lineStart()) * RATE_HZ);
        return clamped ? Math.min(out.written, heard) : heard;
    };
    out.heardAt = (at, frame) => {
        const start = at - frame / RATE_HZ;
        if (out.lineStarts.length > 0 && Math.abs(start - lineStart()) > HEARD_JUMP_S) {
            if (++out.offLine >= HEARD_JUMP_REPORTS) {
                report('loudspeaker-moved', { ms: Math.round((start - lineStart()) * 1e4) / 10 });
                out.lineStarts = out.lineStarts.slice(-(HEARD_JUMP_REPORTS - 1));
                out.offLine = 0;
            }
        } else {
            out.offLine = 0;
        }
        out.lineStarts.push(start);
        if (out.lineStarts.length > HEARD_REPORTS_KEPT) out.lineStarts.shift();
    };
    if (!opts.audio) {
        // No sound: heard as if played OUTPUT_LEAD_S after it was made.
        out.write = (b) => {
            out.written += b.length / BYTES_PER_FRAME;
            out.lineStarts = [monotonicSeconds() + OUTPUT_LEAD_S - out.written / RATE_HZ];
        };
        return out;
    }
    if (!opts.player) throw new Error('--player (vellatone-tv-sink) is needed to play sound');
    const sink = spawn(opts.player, ['--device', opts.sink, '--rate', String(RATE_HZ),
        '--latency-msec', String(SERVER_BUFFER_MS)], { stdio: ['pipe', 'pipe', 'inherit'] });
    sink.on('exit', (code) => report('player-exit', { code }));
    readline.createInterface({ input: sink.stdout }).on('line', (line) => {
        const [word, at, frame] = line.split(' ');
        if (word === 'heard') out.heardAt(Number(at), Number(frame));
    });
    out.write = (b) => {
        out.written += b.length / BYTES_PER_FRAME;
        sink.stdin.write(b);
    };
    out.end = () => sink.kill();
    return out;
})();

// --- the clock-synced receiver application ---------------------------------

const here = dirname(fileURLToPath(import.meta.url));
// The page and the guest player it is built on, served to Chromium only.
const PAGE_ROOTS = [join(here, 'receiver'), join(here, '../../../web/guest')];
const TYPES = { '.html': 'text/html', '.js': 'text/javascript', '.css': 'text/css' };

class SyncReceiver {
    constructor() {
        this.browser = null;
        this.page = null;
        this.pending = [];
        this.generation = 0;
        this.pages = http.createServer((req, res) => {
            const path = normalize(decodeURIComponent(new URL(req.url, 'http://x').pathname));
            for (const root of PAGE_ROOTS) {
                const file = join(root, path);
                if (!file.startsWith(root + '/')) continue;
                try {
                    const body = readFileSync(file);
                    res.writeHead(200, { 'Content-Type': TYPES[extname(file)] || 'application/octet-stream' });
                    res.end(body);
                    return;
                } catch { /* the next root */ }
            }
            res.writeHead(404);
            res.end();
        });
        this.pagesReady = new Promise((resolve) => this.pages.listen(0, '127.0.0.1', resolve));
    }

    async open(onMessage) {
        const generation = ++this.generation;
        await this.closePage();
        this.pending = [];
        try {
            await this.pagesReady;
            if (!this.browser) {
                const { launchChromium } = await import('../../guests/e2e/chromium.mjs');
                process.env.PULSE_SINK = opts.sink;
                this.browser = await launchChromium(process.env.PULSE_SERVER);
            }
            if (generation !== this.generation) return;
            const page = await (await this.browser.newContext()).newPage();
            page.on('pageerror', (e) => report('receiver-error', { message: e.message }));
            await page.exposeFunction('castSend', (message) => generation === this.generation && onMessage(message));
            await page.goto(`http://127.0.0.1:${this.pages.address().port}/receiver.html`);
            await page.waitForFunction(() => window.receiverReady === true, null, { timeout: 15000 });
            if (generation !== this.generation) {
                await page.context().close();
                return;
            }
            this.page = page;
            report('receiver-ready');
            for (const message of this.pending.splice(0)) this.deliver(message);
        } catch (e) {
            report('receiver-error', { message: e.message });
        }
    }

    deliver(message) {
        if (!this.page) {
            this.pending.push(message);
            return;
        }
        this.page.evaluate((m) => window.castReceive(m), message).catch(() => {});
    }

    async closePage() {
        const page = this.page;
        this.page = null;
        if (page) await page.context().close().catch(() => {});
    }

    close() {
        ++this.generation;
        this.closePage();
    }

    async quit() {
        this.close();
        if (this.browser) await this.browser.close().catch(() => {});
        this.pages.close();
    }
}

const syncReceiver = new SyncReceiver();

function fromSyncReceiver(message) {
    if (!app || app.appId !== opts.syncApp) return;
    for (const key of senders) {
        const [clientId, sourceId] = key.split('|');
        send(clientId, app.transportId, sourceId, NS.sendspin, message);
    }
}

// --- the receiver ---------------------------------------------------------

const dir = mkdtempSync(join(tmpdir(), 'fake-tv-'));
execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
    '-keyout', join(dir, 'key.pem'), '-out', join(dir, 'cert.pem'), '-days', '1', '-subj', '/CN=fake-tv'],
    { stdio: 'ignore' });
const server = new Server({ key: readFileSync(join(dir, 'key.pem')), cert: readFileSync(join(dir, 'cert.pem')) });
rmSync(dir, { recursive: true, force: true });

let app = null;            // { appId, sessionId, transportId }
let mediaSessionCount = 0;
let answering = true;
const senders = new Set(); // `${clientId}|${sourceId}` connected to the app's transport
const player = new Player(() => broadcastMedia());

function send(clientId, source, destination, namespace, payload) {
    if (!answering || !server.clients[clientId]) return;
    server.send(clientId, source, destination, namespace, JSON.stringify(payload));
}

function everyClient(fn) {
    for (const clientId of Object.keys(server.clients)) fn(clientId);
}

function receiverStatus(requestId) {
    return {
        type: 'RECEIVER_STATUS', requestId,
        status: {
            applications: app ? [{ appId: app.appId, displayName: app.displayName, sessionId: app.sessionId,
                transportId: app.transportId, statusText: app.displayName, isIdleScreen: false,
                namespaces: [{ name: app.appId === MEDIA_APP ? NS.media : NS.sendspin }] }] : [],
            isActiveInput: true, isStandBy: false,
            volume: { level: 1, muted: false, controlType: 'attenuation', stepInterval: 0.05 },
        },
    };
}

function mediaStatus(requestId) {
    const status = player.mediaSessionId === 0 ? [] : [{
        mediaSessionId: player.mediaSessionId, playerState: player.state, idleReason: player.idleReason,
        currentTime: player.currentTime(), playbackRate: player.rate, supportedMediaCommands: ALL_BASIC_MEDIA,
        volume: { level: 1, muted: false }, currentItemId: player.mediaSessionId,
        media: { contentId: player.contentId, contentType: 'audio/wav', streamType: 'LIVE', duration: null,
            metadata: player.metadata },
    }];
    return { type: 'MEDIA_STATUS', requestId, status };
}

function broadcastReceiver() {
    everyClient((c) => send(c, 'receiver-0', '*', NS.receiver, receiverStatus(0)));
}

function broadcastMedia() {
    if (!app) return;
    everyClient((c) => send(c, app.transportId, '*', NS.media, mediaStatus(0)));
}

function launch(appId) {
    if (app && app.appId === MEDIA_APP) player.finish('INTERRUPTED');
    if (app && app.appId === opts.syncApp) syncReceiver.close();
    const sessionId = randomUUID();
    app = { appId, sessionId, transportId: sessionId, displayName: appId === MEDIA_APP ? 'Default Media Receiver' : 'Other' };
    if (appId === opts.syncApp) syncReceiver.open(fromSyncReceiver);
    report('launched', { appId, sessionId });
}

function takeover() {
    const old = app;
    player.finish('INTERRUPTED');
    launch('233637DE');
    broadcastReceiver();
    if (old) {
        for (const key of senders) {
            const [clientId, sourceId] = key.split('|');
            send(clientId, old.transportId, sourceId, NS.connection, { type: 'CLOSE' });
        }
    }
    senders.clear();
    report('takeover');
}

function onReceiver(clientId, source, message) {
    const requestId = message.requestId ?? 0;
    switch (message.type) {
    case 'GET_STATUS':
        send(clientId, 'receiver-0', source, NS.receiver, receiverStatus(requestId));
        break;
    case 'LAUNCH':
        if (message.appId !== MEDIA_APP && message.appId !== opts.syncApp) {
            send(clientId, 'receiver-0', source, NS.receiver, { type: 'LAUNCH_ERROR', requestId, reason: 'NOT_FOUND' });
            break;
        }
        launch(message.appId);
        send(clientId, 'receiver-0', source, NS.receiver, receiverStatus(requestId));
        broadcastReceiver();
        break;
    case 'STOP':
        if (app && message.sessionId === app.sessionId) {
            player.finish('CANCELLED');
            if (app.appId === opts.syncApp) syncReceiver.close();
            for (const key of senders) {
                const [c, s] = key.split('|');
                send(c, app.transportId, s, NS.connection, { type: 'CLOSE' });
            }
            senders.clear();
            app = null;
            report('stopped');
        }
        send(clientId, 'receiver-0', source, NS.receiver, receiverStatus(requestId));
        broadcastReceiver();
        break;
    default:
        send(clientId, 'receiver-0', source, NS.receiver, { type: 'INVALID_REQUEST', requestId, reason: 'INVALID_COMMAND' });
    }
}

function onMedia(clientId, source, message) {
    const requestId = message.requestId ?? 0;
    const reply = (payload) => send(clientId, app.transportId, source, NS.media, payload);
    const sessionOk = () => {
        if (message.mediaSessionId === player.mediaSessionId && player.mediaSessionId !== 0) return true;
        reply({ type: 'INVALID_REQUEST', requestId, reason: 'INVALID_MEDIA_SESSION_ID' });
        return false;
    };
    switch (message.type) {
    case 'GET_STATUS': {
        // The position is read when the answer goes out, and answers go out a
        // little late now and then: never early.
        const delay = Math.random() * 2 * opts.jitter * 1000;
        setTimeout(() => app && reply(mediaStatus(requestId)), delay);
        break;
    }
    case 'LOAD': {
        const url = message.media && (message.media.contentUrl || message.media.contentId);
        if (!url) {
            reply({ type: 'LOAD_FAILED', requestId });
            break;
        }
        player.load(url, ++mediaSessionCount);
        player.metadata = message.media.metadata;
        report('loaded', { url, title: message.media.metadata && message.media.metadata.title });
        fetchArtwork(player.metadata);
        reply(mediaStatus(requestId));
        if (opts.mode === 'close') setTimeout(() => everyClient((c) => server.clients[c].socket.destroy()), 3000);
        if (opts.mode === 'silent') setTimeout(() => { answering = false; report('silent'); }, 3000);
        break;
    }
    case 'SET_PLAYBACK_RATE':
        if (!sessionOk()) break;
        if (opts.refuseRate2 && message.playbackRate >= 2) {
            report('rate-refused', { rate: message.playbackRate });
            reply({ type: 'INVALID_REQUEST', requestId, reason: 'INVALID_PARAMS' });
            break;
        }
        player.setRate(Number(message.playbackRate) || 1);
        reply(mediaStatus(requestId));
        break;
    case 'QUEUE_UPDATE': {
        if (!sessionOk()) break;
        // The one item we hold: new words and picture, the stream untouched.
        const item = Array.isArray(message.items) ? message.items.find((i) => i.itemId === player.mediaSessionId) : null;
        if (item && item.media && item.media.metadata) {
            player.metadata = item.media.metadata;
            report('metadata', { title: player.metadata.title });
            fetchArtwork(player.metadata);
        }
        reply(mediaStatus(requestId));
        break;
    }
    case 'PLAY': case 'PAUSE':
        if (!sessionOk()) break;
        reply(mediaStatus(requestId));
        break;
    case 'STOP':
        if (!sessionOk()) break;
        player.finish('CANCELLED');
        reply(mediaStatus(requestId));
        break;
    default:
        reply({ type: 'INVALID_REQUEST', requestId, reason: 'INVALID_COMMAND' });
    }
}

server.on('message', (clientId, source, destination, namespace, data) => {
    if (typeof data !== 'string') return;
    let message;
    try { message = JSON.parse(data); } catch { return; }
    if (namespace === NS.heartbeat) {
        if (message.type === 'PING') send(clientId, destination, source, NS.heartbeat, { type: 'PONG' });
        return;
    }
    if (namespace === NS.connection) {
        if (app && destination === app.transportId) {
            if (message.type === 'CONNECT') senders.add(`${clientId}|${source}`);
            if (message.type === 'CLOSE') senders.delete(`${clientId}|${source}`);
        }
        return;
    }
    if (!answering) return;
    report('message', { namespace: namespace.split('.').pop(), type: message.type });
    if (namespace === NS.receiver && destination === 'receiver-0') onReceiver(clientId, source, message);
    else if (namespace === NS.media && app && destination === app.transportId) onMedia(clientId, source, message);
    else if (namespace === NS.sendspin && app && app.appId === opts.syncApp && destination === app.transportId) {
        syncReceiver.deliver(message);
    }
});

// Broadcast the media status now and then, as TVs do.
setInterval(broadcastMedia, 1000);
// How long what was handed to the loudspeaker takes to be heard, for whoever reads the log.
setInterval(() => {
    const heard = output.heardNow();
    if (heard !== null && player.state === 'PLAYING') {
        report('loudspeaker', { behindMs: Math.round((output.written - heard) / RATE_HZ * 1e4) / 10 });
    }
}, 5000);

let publisher = null;
// castv2 loads its protocol definitions asynchronously.
setTimeout(() => {
    server.listen(opts.port, opts.host, () => {
        const port = server.server.address().port;
        if (opts.publish) {
            publisher = spawn('avahi-publish', ['-s', opts.publish, '_googlecast._tcp', String(port),
                `id=${opts.id}`, `fn=${opts.publish}`, 'md=Fake TV', 've=05', 'ca=4', 'st=0', 'rs='],
                { stdio: 'ignore' });
        }
        report('listening', { port });
    });
}, 200);

readline.createInterface({ input: process.stdin }).on('line', (line) => {
    const [command, arg] = line.trim().split(/\s+/);
    if (command === 'takeover') takeover();
    else if (command === 'stall') player.stall(Number(arg) || 3);
    else if (command === 'close') everyClient((c) => server.clients[c].socket.destroy());
    else if (command === 'status') report('status', { state: player.state, currentTime: player.currentTime(), rate: player.rate, buffered: player.buffered / 176400 });
});

async function quit() {
    player.stop();
    output.end();
    if (publisher) publisher.kill();
    await syncReceiver.quit();
    process.exit(0);
}
process.on('SIGTERM', quit);
process.on('SIGINT', quit);
process.stdin.on('end', quit);
