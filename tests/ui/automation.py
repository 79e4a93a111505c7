"""A client for the window's automation hook: one JSON line each way."""
import json
import socket
import time


class Window:
    def __init__(self, path, timeout=20.0):
        deadline = time.monotonic() + timeout
        while True:
            try:
                self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                self.sock.connect(path)
                break
            except OSError:
                self.sock.close()
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.2)
        self.sock.settimeout(30)
        self.buffer = b""

    def send(self, **command):
        self.sock.sendall((json.dumps(command) + "\n").encode())
        while b"\n" not in self.buffer:
            chunk = self.sock.recv(65536)
            if not chunk:
                raise RuntimeError("the application closed the automation socket")
            self.buffer += chunk
        line, self.buffer = self.buffer.split(b"\n", 1)
        return json.loads(line)

    def raw(self, data):
        """Sends bytes as they are and returns the reply line (or None)."""
        self.sock.sendall(data)
        while b"\n" not in self.buffer:
            chunk = self.sock.recv(65536)
            if not chunk:
                return None
            self.buffer += chunk
        line, self.buffer = self.buffer.split(b"\n", 1)
        return json.loads(line)

    def find(self, name):
        return self.send(cmd="find", name=name)

    def click(self, name):
        reply = self.send(cmd="click", name=name)
        if not reply.get("ok"):
            raise RuntimeError(f"click {name}: {reply}")
        return reply

    def wait_for(self, what, check, timeout=15.0, step=0.1):
        deadline = time.monotonic() + timeout
        last = None
        while time.monotonic() < deadline:
            last = check()
            if last:
                return last
            time.sleep(step)
        raise AssertionError(f"timed out waiting for {what} (last: {last})")

    def visible(self, name):
        r = self.find(name)
        return r.get("found") and r.get("visible")

    def rows(self):
        return self.send(cmd="rows")
