// The guest page: pick a name, tap Join, and this phone plays along with the
// computer's speakers, in time, until its user taps Leave.
import { ClockSync } from './clock.js';
import { Player } from './player.js';
import { SpeakerState, IDLE_AFTER_S, SILENCE_LIMIT_S } from './speaker-state.js';

const ID_KEY = 'vellatone.guest.id';
const NAME_KEY = 'vellatone.guest.name';
const LEAVING = 'user_request';
const AUDIO_CHUNK = 4;

const $ = (id) => document.getElementById(id);
const nowS = () => performance.now() / 1000;
const nowUs = () => Math.round(performance.now() * 1000);

function clientId() {
  let id = localStorage.getItem(ID_KEY);
  if (!id || !/^[A-Za-z0-9-]{8,64}$/.test(id)) {
    const bytes = new Uint8Array(16);
    crypto.getRandomValues(bytes);
    id = 'web-' + Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
    localStorage.setItem(ID_KEY, id);
  }
  return id;
}

const id = clientId();
const state = new SpeakerState();
const player = new Player();
let clock = new ClockSync();
let socket = null;
let hostName = null;
let track = null;
let lastFrameAt = 0;
let joinedAt = 0;
let timeTimer = null;
let retryTimer = null;
let endedText = '';

async function fetchJSON(path) {
  const controller = new AbortController();
  const timer = setTimeout(() => controller.abort(), 3000);
  try {
    const response = await fetch(path, { cache: 'no-store', signal: controller.signal });
    if (!response.ok) return null;
    return await response.json();
  } catch (e) {
    return null;
  } finally {
    clearTimeout(timer);
  }
}

async function status() {
  const answer = await fetchJSON(`/guest/${id}/status`);
  if (answer && typeof answer.name === 'string' && answer.name) hostName = answer.name;
  return answer && typeof answer.state === 'string' ? answer.state : null;
}

// ---------------------------------------------------------------- the link

function send(message) {
  if (socket && socket.readyState === WebSocket.OPEN) socket.send(JSON.stringify(message));
}

function sendTime() {
  send({ type: 'client/time', payload: { client_transmitted: nowUs() } });
}

function hello() {
  send({
    type: 'client/hello',
    payload: {
      client_id: id,
      name: currentName(),
      version: 1,
      supported_roles: ['player@v1', 'metadata@v1'],
      'player@v1_support': {
        supported_formats: [{ codec: 'pcm', channels: 2, sample_rate: 48000, bit_depth: 16 }],
        buffer_capacity: 1048576,
        supported_commands: [],
      },
    },
  });
}

function connect() {
  clearTimeout(retryTimer);
  const ws = new WebSocket(`ws://${location.host}/guest/${id}/sendspin`);
  ws.binaryType = 'arraybuffer';
  socket = ws;
  clock = new ClockSync();
  ws.onopen = () => {
    // A burst of quick exchanges gives an offset at once; then a steady trickle.
    let burst = 0;
    sendTime();
    hello();
    clearInterval(timeTimer);
    timeTimer = setInterval(() => {
      if (ws !== socket) return;
      sendTime();
      if (++burst === 12) {
        clearInterval(timeTimer);
        timeTimer = setInterval(() => ws === socket && sendTime(), 500);
      }
    }, 50);
    joinedAt = nowS();
  };
  ws.onmessage = (event) => {
    if (ws !== socket) return;
    if (typeof event.data === 'string') onText(event.data);
    else onAudio(event.data);
  };
  ws.onclose = (event) => {
    if (ws !== socket) return;
    socket = null;
    clearInterval(timeTimer);
    lost(event.code);
  };
}

async function lost(code) {
  player.clear();
  if (!state.isIn) return;
  const known = code === 4001 || code === 4002 ? null : await status();
  if (state.lost(code, known, nowS())) {
    retryTimer = setTimeout(connect, 1000);
  } else if (state.phase === 'join') {
    endedText = 'Lost the computer, so this phone stopped playing.';
  }
  render();
}

function onText(text) {
  let message;
  try {
    message = JSON.parse(text);
  } catch (e) {
    return;
  }
  const payload = message && typeof message.payload === 'object' && message.payload ? message.payload : {};
  switch (message.type) {
    case 'server/time': {
      const t4 = nowUs();
      const { client_transmitted: t1, server_received: t2, server_transmitted: t3 } = payload;
      if ([t1, t2, t3].every(Number.isFinite)) {
        clock.add(t1, t2, t3, t4);
        const offset = clock.offsetUs();
        if (offset !== null) player.setHostOffset(offset);
      }
      break;
    }
    case 'server/hello':
      if (typeof payload.name === 'string' && payload.name) hostName = payload.name;
      state.hello();
      setTimeout(() => {
        if (state.phase === 'joining' && nowS() - joinedAt >= IDLE_AFTER_S - 0.05) {
          state.idle();
          render();
        }
      }, IDLE_AFTER_S * 1000);
      break;
    case 'server/state':
      track = payload.metadata || null;
      break;
    case 'stream/start': {
      const p = payload.player || {};
      player.clear();
      lastFrameAt = nowS();
      if (!state.streamStarted(p.sample_rate ?? 48000, p.channels ?? 2, p.bit_depth ?? 16)) {
        if (socket) socket.close(1000);
      }
      break;
    }
    case 'stream/end':
      state.streamEnded();
      player.clear();
      break;
    default:
      return;
  }
  render();
}

function onAudio(data) {
  if (data.byteLength < 9) return;
  const view = new DataView(data);
  if (view.getUint8(0) !== AUDIO_CHUNK) return;
  const playAtUs = Number(view.getBigInt64(1, false));
  lastFrameAt = nowS();
  player.push(playAtUs, data.slice(9));
}

// A stream that goes quiet for good is a link that is gone, whatever the socket says.
setInterval(() => {
  if (state.phase === 'playing' && socket && nowS() - lastFrameAt > SILENCE_LIMIT_S) {
    const ws = socket;
    socket = null;
    ws.close(1000);
    lost(1006);
  }
}, 500);

function goodbye() {
  send({ type: 'client/goodbye', payload: { reason: LEAVING } });
}

// ---------------------------------------------------------------- the page

function currentName() {
  return $('name').value.trim().slice(0, 40) || 'Guest';
}

const WORDS = {
  join: '',
  joining: 'Joining…',
  playing: 'Playing along',
  paused: 'Paused. The computer is not playing right now.',
  reconnecting: 'Reconnecting…',
  removed: 'The computer removed this phone as a speaker.',
  full: 'The computer has 12 phones playing already.',
  unsupported: 'The computer sent audio this phone can’t play.',
};

function render() {
  const phase = state.phase;
  document.body.dataset.phase = phase;
  $('host').textContent = hostName || 'this computer';
  $('join-panel').hidden = state.isIn || phase === 'removed' || phase === 'full';
  $('in-panel').hidden = !state.isIn;
  $('status').textContent = WORDS[phase] || '';
  $('ended').textContent = phase === 'join' ? endedText : '';
  $('refusal').textContent = phase === 'removed' || phase === 'full' ? WORDS[phase] : '';
  $('refusal').hidden = !(phase === 'removed' || phase === 'full');
  const title = track && track.title ? track.title : '';
  const artist = track && track.artist ? track.artist : '';
  $('track').textContent = title ? (artist ? `${title} · ${artist}` : title) : '';
  // Only an image the computer sent inline; never a link to fetch elsewhere.
  const art = track && typeof track.artwork_url === 'string' &&
    track.artwork_url.startsWith('data:image/jpeg;base64,') ? track.artwork_url : '';
  if ($('artwork').getAttribute('src') !== art) {
    if (art) $('artwork').src = art; else $('artwork').removeAttribute('src');
  }
  $('artwork').hidden = !art;
  // Read by the tests; the player's figures change between renders, so
  // they are read when asked for.
  window.guestState = { phase, clientId: id };
  const live = {
    hostOffsetUs: () => clock.offsetUs(),
    bestRttUs: () => clock.bestRttUs(),
  };
  for (const key of Object.keys(player.describe())) live[key] = () => player.describe()[key];
  for (const [key, get] of Object.entries(live)) {
    Object.defineProperty(window.guestState, key, { get, enumerable: true });
  }
}

async function showParty() {
  const party = await fetchJSON(`/guest/${id}/party`);
  const list = $('party');
  list.textContent = '';
  const guests = party && Array.isArray(party.guests) ? party.guests : [];
  for (const g of guests) {
    const item = document.createElement('li');
    item.textContent = g.you ? `${g.name} (you)` : String(g.name);
    list.appendChild(item);
  }
  $('party-empty').hidden = guests.length > 0;
}

async function onJoin() {
  player.unlock(); // first, inside the tap
  localStorage.setItem(NAME_KEY, currentName());
  endedText = '';
  const known = await status();
  if (known === 'removed' || known === 'full') {
    state.join();
    state.lost(null, known, nowS());
    render();
    return;
  }
  await player.start();
  state.join();
  render();
  connect();
}

function onLeave() {
  goodbye();
  state.leave();
  const ws = socket;
  socket = null;
  clearInterval(timeTimer);
  clearTimeout(retryTimer);
  if (ws) ws.close(1000);
  player.clear();
  render();
  showParty();
}

async function boot() {
  $('name').value = localStorage.getItem(NAME_KEY) || '';
  $('join').addEventListener('click', onJoin);
  $('leave').addEventListener('click', onLeave);
  window.addEventListener('pagehide', () => {
    if (state.isIn) goodbye();
  });
  const known = await status();
  if (known === 'removed' || known === 'full') {
    state.phase = known;
  }
  render();
  showParty();
  setInterval(() => {
    if (!document.hidden) showParty();
    render();
  }, 3000);
}

boot();
