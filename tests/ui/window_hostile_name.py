"""A guest's name is text, never markup: the probe that found the window
loading an image named in a guest's name, written as a test. A tiny HTTP
listener on loopback stands where a machine inside the host's network would
be; a guest whose name is an <img> tag pointing at it joins over a real
WebSocket, and the real window under Xvfb shows the guest's row. The listener
must receive nothing, and the strip must show the name letter for letter.

usage: window_hostile_name.py BIN_DIR REPO_DIR SCREENSHOT_DIR
Needs DISPLAY (run it under xvfb-run)."""
import base64
import http.server
import json
import os
import re
import socket
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from window_run import WindowRun  # noqa: E402

BIN, REPO, SHOTS = (os.path.abspath(a) for a in sys.argv[1:4])
os.makedirs(SHOTS, exist_ok=True)
run = WindowRun(BIN, REPO, "vt-hostile.")
step, fail, check = run.step, run.fail, run.check
requests_seen = []


class Witness(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        requests_seen.append(self.path)
        self.send_response(200)
        self.send_header("Content-Type", "image/png")
        self.end_headers()

    def log_message(self, *args):
        pass


class Guest:
    """A phone's side of the guest session, as a browser speaks it: masked
    frames, pongs to the server's pings, clock exchanges."""

    def __init__(self, port, client_id, name):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=5)
        key = base64.b64encode(os.urandom(16)).decode()
        self.sock.sendall((f"GET /guest/{client_id}/sendspin HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\n"
                           f"Origin: http://127.0.0.1:{port}\r\nUpgrade: websocket\r\n"
                           f"Connection: Upgrade\r\nSec-WebSocket-Key: {key}\r\n"
                           "Sec-WebSocket-Version: 13\r\n\r\n").encode())
        head = b""
        while b"\r\n\r\n" not in head:
            chunk = self.sock.recv(4096)
            if not chunk:
                raise RuntimeError("the guest server closed the upgrade")
            head += chunk
        if not head.startswith(b"HTTP/1.1 101"):
            raise RuntimeError(f"no upgrade: {head[:80]!r}")
        self.buffer = head.split(b"\r\n\r\n", 1)[1]
        self.closed = None
        self.running = True
        self.lock = threading.Lock()
        self.send_text(json.dumps({"type": "client/hello", "payload": {
            "client_id": client_id, "name": name, "version": 1,
            "supported_roles": ["player@v1"],
            "player@v1_support": {"supported_formats": [{"codec": "pcm", "channels": 2,
                                                         "sample_rate": 48000, "bit_depth": 16}],
                                  "buffer_capacity": 1048576, "supported_commands": []}}}))
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()

    def send(self, opcode, payload):
        mask = os.urandom(4)
        n = len(payload)
        header = bytes([0x80 | opcode])
        if n < 126:
            header += bytes([0x80 | n])
        elif n < 65536:
            header += bytes([0x80 | 126]) + struct.pack(">H", n)
        else:
            header += bytes([0x80 | 127]) + struct.pack(">Q", n)
        body = bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
        with self.lock:
            self.sock.sendall(header + mask + body)

    def send_text(self, text):
        self.send(1, text.encode())

    def read(self):
        self.sock.settimeout(0.5)
        last_time = 0
        while self.running:
            if time.monotonic() - last_time > 0.5:
                last_time = time.monotonic()
                self.send_text(json.dumps({"type": "client/time",
                                           "payload": {"client_transmitted": int(time.monotonic() * 1e6)}}))
            try:
                chunk = self.sock.recv(65536)
            except socket.timeout:
                continue
            except OSError:
                break
            if not chunk:
                break
            self.buffer += chunk
            while len(self.buffer) >= 2:
                b0, b1 = self.buffer[0], self.buffer[1]
                n, at = b1 & 0x7F, 2
                if n == 126:
                    if len(self.buffer) < 4:
                        break
                    n, at = struct.unpack(">H", self.buffer[2:4])[0], 4
                elif n == 127:
                    if len(self.buffer) < 10:
                        break
                    n, at = struct.unpack(">Q", self.buffer[2:10])[0], 10
                if len(self.buffer) < at + n:
                    break
                payload, self.buffer = self.buffer[at:at + n], self.buffer[at + n:]
                if b0 & 0x0F == 9:
                    self.send(10, payload)
                elif b0 & 0x0F == 8:
                    self.closed = payload
                    self.running = False

    def stop(self):
        self.running = False
        try:
            self.sock.close()
        except OSError:
            pass


def main():
    step("a listener on loopback that must hear nothing")
    witness = http.server.HTTPServer(("127.0.0.1", 0), Witness)
    threading.Thread(target=witness.serve_forever, daemon=True).start()
    witness_port = witness.server_address[1]

    step("a private PulseAudio with one speaker")
    run.start_sound_server("speakers:48000:Speakers")

    step("launch the window and open the invitation, which starts the guest server")
    w = run.launch()
    w.wait_for("the window", lambda: w.visible("startSwitch"))
    w.click("inviteButton")

    def guest_port():
        m = re.search(r"^vellatone: guest server on port (\d+)$", run.log_text(), re.M)
        return int(m.group(1)) if m else None
    port = w.wait_for("the guest server", guest_port)
    w.send(cmd="key", text="Escape")

    name = f'<img src="http://127.0.0.1:{witness_port}/p">'
    step(f"a guest named {name} joins")
    guest = Guest(port, "hostile-guest-1", name)
    try:
        w.wait_for("the guest's row", lambda: any(r["name"].endswith(name) for r in w.rows()["rows"]),
                   timeout=20)
        row = next(r for r in w.rows()["rows"] if r["name"].endswith(name))
        label = w.find(f"row.{row['slot']}.name")
        check(label.get("text") == row["name"], f"the strip shows {label.get('text')!r}")
        check(label.get("textFormat") in (0, "PlainText"), f"the strip's name is not plain text: {label}")
        # Let the window draw the row a few times, as a person would look at it.
        time.sleep(3.0)
        shot = w.send(cmd="grab", path=os.path.join(SHOTS, "window-hostile-name.png"))
        check(shot.get("ok"), f"grab: {shot}")
        time.sleep(1.0)
        check(not requests_seen, f"the window fetched {requests_seen} because of a guest's name")
    finally:
        guest.stop()
        witness.shutdown()
    print("ok: the name was shown as text and nothing was fetched")


try:
    main()
finally:
    run.cleanup()
