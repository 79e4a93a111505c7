// The clock-synced receiver application as the fake TV runs it: told by the
// sender where its Sendspin server is, it joins as a player, keeps its clock
// in step with the host's and plays each chunk at its stamp, with the guest
// page's own player. It reports back as the application does: "status" with
// state, synced and syncInfo. The fake TV carries messages both ways:
// window.castReceive(message) in, window.castSend(message) out.
import { ClockSync } from './clock.js';
import { Player } from './player.js';

// The TV's output path, beyond the headroom a phone keeps: what the sender
// counts on for this application.
const OUTPUT_US = 330000;
const AUDIO_CHUNK = 4;
const REPORT_MS = 1000;

const player = new Player();
let clock = new ClockSync();
let socket = null;
let config = null;
let timeTimer = null;
let state = 'idle';
let heardBefore = 0;
let resyncs = 0;
let wasSynced = false;

const nowUs = () => Math.round(performance.now() * 1000);

function send(message) {
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
}

function connect() {
  if (socket) socket.close(1000);
  const ws = new WebSocket(config.serverUrl);
  ws.binaryType = 'arraybuffer';
  socket = ws;
  clock = new ClockSync();
  state = 'connecting';
  ws.onopen = () => {
    send({ type: 'client/time', payload: { client_transmitted: nowUs() } });
    send({
      type: 'client/hello',
      payload: {
        client_id: config.playerId || 'cast-receiver',
        name: config.playerName || 'TV',
        version: 1,
        supported_roles: ['player@v1', 'metadata@v1'],
        'player@v1_support': {
          supported_formats: [{ codec: 'pcm', channels: 2, sample_rate: 48000, bit_depth: 16 }],
          buffer_capacity: 1048576,
          supported_commands: [],
        },
      },
    });
    let burst = 0;
    clearInterval(timeTimer);
    timeTimer = setInterval(() => {
      if (ws !== socket) return;
      send({ type: 'client/time', payload: { client_transmitted: nowUs() } });
      if (++burst === 12) {
        clearInterval(timeTimer);
        timeTimer = setInterval(() => ws === socket && send({ type: 'client/time', payload: { client_transmitted: nowUs() } }), 500);
      }
    }, 50);
  };
  ws.onmessage = (event) => {
    if (ws !== socket) return;
    if (typeof event.data !== 'string') {
      const view = new DataView(event.data);
      if (event.data.byteLength < 9 || view.getUint8(0) !== AUDIO_CHUNK) return;
      player.push(Number(view.getBigInt64(1, false)) + OUTPUT_US, event.data.slice(9));
      return;
    }
    let message;
    try { message = JSON.parse(event.data); } catch { return; }
    const p = message && message.payload && typeof message.payload === 'object' ? message.payload : {};
    if (message.type === 'server/time') {
      const t4 = nowUs();
      clock.add(p.client_transmitted, p.server_received, p.server_transmitted, t4);
      const offset = clock.offsetUs();
      if (offset !== null) player.setHostOffset(offset);
    } else if (message.type === 'stream/start') {
      player.clear();
      state = 'buffering';
    } else if (message.type === 'stream/end') {
      player.clear();
      state = 'idle';
    }
  };
  ws.onclose = () => {
    if (ws !== socket) return;
    socket = null;
    clearInterval(timeTimer);
    player.clear();
    state = 'idle';
    setTimeout(() => config && !socket && connect(), 1000);
  };
}

function report() {
  const heard = player.describe().heardFrames;
  if (state === 'buffering' && heard > heardBefore) state = 'playing';
  else if (state === 'playing' && heard === heardBefore) state = 'buffering';
  heardBefore = heard;
  const offset = clock.offsetUs();
  const synced = state === 'playing' && offset !== null && player.hostAtZeroUs !== null;
  if (wasSynced && !synced) ++resyncs;
  wasSynced = synced;
  const rtt = clock.bestRttUs();
  window.castSend({
    type: 'status',
    status: {
      state,
      synced,
      syncInfo: {
        offset: offset === null ? null : offset / 1000,
        error: rtt === null ? null : rtt / 2000,
        syncErrorMs: rtt === null ? 0 : rtt / 2000,
        clockDriftPercent: 0,
        resyncCount: resyncs,
      },
    },
  });
}

window.castReceive = (message) => {
  if (!message || message.type !== 'config' || typeof message.serverUrl !== 'string') return;
  if (config && config.serverUrl === message.serverUrl && socket) return;
  config = message;
  connect();
};

player.unlock();
await player.start();
setInterval(report, REPORT_MS);
window.receiverReady = true;
