"""What every window test script does around its own steps: a scratch folder,
a private PulseAudio with the speakers it asks for, the application launched
under Xvfb with private folders and sockets, its log shown on failure, and
everything stopped again at the end."""
import os
import shutil
import signal
import subprocess
import sys
import tempfile

from automation import Window

APP_LOG = "app.log"


class WindowRun:
    def __init__(self, bin_dir, repo_dir, prefix):
        self.bin = bin_dir
        self.repo = repo_dir
        self.work = tempfile.mkdtemp(prefix=prefix)
        self.app = None
        self.children = []  # other processes the script started, killed at cleanup
        self.env = None

    def path(self, *parts):
        return os.path.join(self.work, *parts)

    @staticmethod
    def step(what):
        print("==", what, flush=True)

    def fail(self, why):
        print("FAIL:", why, file=sys.stderr)
        log = self.path(APP_LOG)
        if os.path.exists(log):
            print("--- " + APP_LOG, file=sys.stderr)
            print(open(log).read(), file=sys.stderr)
        raise SystemExit(1)

    def check(self, cond, why):
        if not cond:
            self.fail(why)

    @staticmethod
    def pulse(*args):
        return subprocess.run(["pactl", *args], check=True, capture_output=True, text=True).stdout.strip()

    def start_sound_server(self, *sinks):
        """sinks as private-pulse.sh takes them: NAME:RATE:DESCRIPTION."""
        for k in ("PULSE_SINK", "PULSE_SOURCE", "PULSE_SERVER"):
            os.environ.pop(k, None)
        out = subprocess.run([os.path.join(self.repo, "scripts/private-pulse.sh"), "start", self.path("pulse"),
                              *sinks], check=True, capture_output=True, text=True).stdout
        for line in out.splitlines():
            name, value = line.removeprefix("export ").split("=", 1)
            os.environ[name] = value
        self.env = dict(os.environ)
        self.env.update(VELLATONE_CONFIG_DIR=self.path("config"),
                        VELLATONE_CONTROL_SOCKET=self.path("control", "control.sock"),
                        VELLATONE_AUTOMATION_SOCKET=self.path("automation.sock"),
                        VELLATONE_GUEST_BIND="127.0.0.1", VELLATONE_GUEST_PORT="0",
                        HOME=self.path("home"), XDG_CONFIG_HOME=self.path("xdg"))
        os.makedirs(self.env["HOME"], exist_ok=True)

    def launch(self, append_log=False):
        """Starts the window and returns its automation client once it answers."""
        log = open(self.path(APP_LOG), "a" if append_log else "w")
        self.app = subprocess.Popen([os.path.join(self.bin, "vellatone")], env=self.env,
                                    stdout=subprocess.DEVNULL, stderr=log)
        try:
            return Window(self.env["VELLATONE_AUTOMATION_SOCKET"], timeout=30)
        except OSError:
            self.fail("the automation socket did not open")

    def log_text(self):
        return open(self.path(APP_LOG)).read()

    def grab_failure(self, shots):
        """A picture of what the window showed when it went wrong, if it still answers."""
        try:
            Window(self.path("automation.sock"), timeout=1).send(
                cmd="grab", path=os.path.join(shots, "failure.png"))
        except Exception:
            pass

    def cleanup(self):
        for child in self.children:
            if child.poll() is None:
                child.kill()
        if self.app and self.app.poll() is None:
            self.app.send_signal(signal.SIGTERM)
            try:
                self.app.wait(15)
            except subprocess.TimeoutExpired:
                self.app.kill()
        subprocess.run([os.path.join(self.repo, "scripts/private-pulse.sh"), "stop", self.path("pulse")],
                       capture_output=True)
        if not os.environ.get("KEEP_WORK"):
            shutil.rmtree(self.work, ignore_errors=True)
