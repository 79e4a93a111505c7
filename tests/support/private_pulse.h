// A private sound server for one test binary, speaking the PulseAudio
// protocol: PulseAudio, or PipeWire with WirePlumber and pipewire-pulse when
// VELLATONE_TEST_SERVER=pipewire. Started in a fresh directory under /tmp
// with the null sinks asked for, its socket put into this process's
// environment (so every client, libpulse or pactl, finds it), and stopped and
// removed again on destruction.
//
//   support::PrivatePulse pulse({"living:48000:Living", "kitchen:44100:Kitchen"});
//   ASSERT_TRUE(pulse.running()) << pulse.error();
//   pulse.kill();                       // the server dies as in a crash
//   ASSERT_TRUE(pulse.start({"living:48000:Living"})) << pulse.error();
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <vector>

namespace support {

class PrivatePulse {
  public:
    explicit PrivatePulse(const std::vector<std::string>& sinks = {}) {
        char tmpl[] = "/tmp/vt-pulse-XXXXXX";
        if (!mkdtemp(tmpl)) {
            error_ = "mkdtemp failed";
            return;
        }
        dir_ = tmpl;
        start(sinks);
    }

    // Starts the server (again, after kill(): what it stored on disk is kept)
    // with these sinks; true once it answers.
    bool start(const std::vector<std::string>& sinks) {
        running_ = false;
        server_.clear();
        error_.clear();
        std::string cmd = quote(VELLATONE_PRIVATE_PULSE_SCRIPT) + " start " + quote(dir_);
        for (const auto& s : sinks) cmd += " " + quote(s);
        cmd += " 2>&1";
        std::string out;
        int status = capture(cmd, out);
        if (status != 0) {
            error_ = "private sound server did not start: " + out;
            return false;
        }
        // Lines of "export NAME=value".
        size_t pos = 0;
        while (pos < out.size()) {
            size_t end = out.find('\n', pos);
            if (end == std::string::npos) end = out.size();
            std::string line = out.substr(pos, end - pos);
            pos = end + 1;
            const std::string prefix = "export ";
            if (line.rfind(prefix, 0) != 0) continue;
            line = line.substr(prefix.size());
            size_t eq = line.find('=');
            if (eq == std::string::npos) continue;
            setenv(line.substr(0, eq).c_str(), line.substr(eq + 1).c_str(), 1);
            if (line.substr(0, eq) == "PULSE_SERVER") server_ = line.substr(eq + 1);
        }
        running_ = !server_.empty();
        if (!running_) error_ = "no PULSE_SERVER in: " + out;
        std::string which;
        capture(quote(VELLATONE_PRIVATE_PULSE_SCRIPT) + " which " + quote(dir_), which);
        pipewire_ = which.rfind("pipewire", 0) == 0;
        return running_;
    }

    // Kills every process of the server at once, as a crash would.
    void kill() {
        std::string out;
        capture(quote(VELLATONE_PRIVATE_PULSE_SCRIPT) + " kill " + quote(dir_) + " 2>&1", out);
        running_ = false;
    }

    // KEEP_WORK set keeps the directory, with the servers' logs, for a look
    // after a failure (as the app tests' KEEP_WORK does).
    ~PrivatePulse() {
        if (dir_.empty()) return;
        std::string out;
        capture(quote(VELLATONE_PRIVATE_PULSE_SCRIPT) + " stop " + quote(dir_) + " 2>&1", out);
        if (getenv("KEEP_WORK")) {
            fprintf(stderr, "kept private server dir: %s\n", dir_.c_str());
            return;
        }
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    PrivatePulse(const PrivatePulse&) = delete;
    PrivatePulse& operator=(const PrivatePulse&) = delete;

    bool running() const { return running_; }
    const std::string& error() const { return error_; }
    const std::string& dir() const { return dir_; }
    const std::string& server() const { return server_; }
    // PipeWire through pipewire-pulse rather than PulseAudio itself.
    bool pipewire() const { return pipewire_; }
    const char* serverName() const { return pipewire_ ? "PipeWire" : "PulseAudio"; }

    // Runs a shell command (pactl, paplay...) against this server; its
    // exit status, with standard output and error in `out`.
    int run(const std::string& command, std::string* out = nullptr) const {
        std::string text;
        int status = capture(command + " 2>&1", text);
        if (out) *out = text;
        return status;
    }

    static std::string quote(const std::string& s) {
        std::string q = "'";
        for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return q + "'";
    }

  private:
    static int capture(const std::string& cmd, std::string& out) {
        FILE* p = popen(cmd.c_str(), "r");
        if (!p) return -1;
        char buf[512];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
        int status = pclose(p);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string dir_;
    std::string server_;
    std::string error_;
    bool running_ = false;
    bool pipewire_ = false;
};

}  // namespace support
