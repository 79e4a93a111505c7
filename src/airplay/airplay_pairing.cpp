#include "airplay/airplay_pairing.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "airplay/airplay_sender.h"
#include "airplay/pairing_lines.h"

namespace vt::airplay {

namespace {

constexpr size_t readChunkBytes = 4096;
constexpr size_t maxLineBytes = 4096;
constexpr int readerPollMs = 200;

bool debugging() {
    return std::getenv("VELLATONE_AIRPLAY_DEBUG") != nullptr;
}

std::string freshFifoPath() {
    const char* tmp = std::getenv("TMPDIR");
    std::random_device random;
    char id[40];
    std::snprintf(id, sizeof id, "%08x-%08x-%08x", random(), random(), random());
    return std::string(tmp && *tmp ? tmp : "/tmp") + "/vellatone-pair-" + id + ".fifo";
}

}  // namespace

AirPlayPairing::AirPlayPairing(std::filesystem::path binary, discovery::AirPlayReceiver receiver,
                               std::string dacp, dispatch::MainQueue& main)
    : binary_(std::move(binary)),
      receiver_(std::move(receiver)),
      dacp_(std::move(dacp)),
      main_(main) {}

AirPlayPairing::~AirPlayPairing() {
    cancel();
    self_.reset();
    if (reader_.joinable()) reader_.join();
    if (child_) {
        ::close(child_->stdinFd);
        ::close(child_->stdoutFd);
        ::close(child_->stderrFd);
    }
    cleanup();
}

std::vector<std::string> AirPlayPairing::arguments(const std::string& cmdPipe) const {
    return {binary_.string(),
            "--pair-setup",
            "--name",
            AirPlaySender::senderName(),
            "--port",
            std::to_string(receiver_.port),
            "--dacp",
            dacp_,
            "--cmdpipe",
            cmdPipe,
            receiver_.host.value_or("")};
}

void AirPlayPairing::start() {
    if (child_ || finished_) return;
    if (!receiver_.host) {
        tell({Event::Kind::failed, {}, "unresolved host"});
        return;
    }
    const std::string fifo = freshFifoPath();
    if (::mkfifo(fifo.c_str(), 0600) == 0) cmdPipePath_ = fifo;
    const auto env = environmentWith({{"CLIAIRPLAY_SETUP_TIMEOUT_MS", setupTimeoutMs},
                                      {"CLIAIRPLAY_PAIR_TIMEOUT_MS", pairTimeoutMs}},
                                     {});
    std::string error;
    child_ = spawnChild(arguments(cmdPipePath_.value_or("")), env, error);
    if (!child_) {
        tell({Event::Kind::failed, {}, "cannot launch pairing: " + error});
        cleanup();
        return;
    }
    // Told before the reader starts, so that it comes before any prompt.
    tell({Event::Kind::connecting, {}, {}});
    reader_ = std::thread([this] { readOutputs(); });
}

void AirPlayPairing::submitPIN(const std::string& typed) {
    const std::string digits = pinDigits(typed);
    if (digits.empty() || !child_ || finished_) return;
    const std::string line = digits + "\n";
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t n = ::write(child_->stdinFd, line.data() + done, line.size() - done);
        if (n <= 0) return;  // the tool is gone; its end says why
        done += size_t(n);
    }
}

void AirPlayPairing::cancel() {
    finished_ = true;
    if (child_ && !exited_) ::kill(child_->pid, SIGTERM);
}

// Both outputs line by line until the tool closes them, then its end.
void AirPlayPairing::readOutputs() {
    pollfd fds[2] = {{child_->stdoutFd, POLLIN, 0}, {child_->stderrFd, POLLIN, 0}};
    std::string partial[2];
    char buffer[readChunkBytes];
    int open = 2;
    while (open > 0) {
        const int ready = ::poll(fds, 2, readerPollMs);
        if (ready < 0 && errno != EINTR) break;
        for (int i = 0; ready > 0 && i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n <= 0) {
                if (!partial[i].empty()) handleLine(i == 0, partial[i]);
                fds[i].fd = -1;
                --open;
                continue;
            }
            partial[i].append(buffer, size_t(n));
            size_t end;
            while ((end = partial[i].find('\n')) != std::string::npos) {
                handleLine(i == 0, std::string_view(partial[i]).substr(0, end));
                partial[i].erase(0, end + 1);
            }
            if (partial[i].size() > maxLineBytes) partial[i].clear();
        }
    }
    int status = 0;
    ::waitpid(child_->pid, &status, 0);
    exited_ = true;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    std::string text =
        lastError_.empty() ? "pairing ended (" + std::to_string(code) + ")" : lastError_;
    std::weak_ptr<AirPlayPairing*> self = weakSelf_;
    main_.post([self, text = std::move(text)] {
        auto alive = self.lock();
        if (!alive) return;
        (*alive)->deliver({Event::Kind::failed, {}, text});
        (*alive)->cleanup();
    });
}

void AirPlayPairing::handleLine(bool fromStdout, std::string_view line) {
    if (debugging())
        std::fprintf(stderr, "%s%.*s\n", fromStdout ? "[pair-out] " : "[pair-err] ",
                     int(line.size()), line.data());
    if (!fromStdout) {
        if (auto words = readPairingErrLine(line, receiver_.name)) lastError_ = *words;
        return;
    }
    const PairingOutLine read = readPairingOutLine(line);
    if (read.kind == PairingOutLine::Kind::credentials)
        tell({Event::Kind::paired, {dacp_, read.credentials}, {}});
    else if (read.kind == PairingOutLine::Kind::prompt)
        tell({Event::Kind::awaitingPIN, {}, {}});
}

void AirPlayPairing::tell(Event event) {
    std::weak_ptr<AirPlayPairing*> self = weakSelf_;
    main_.post([self, event = std::move(event)] {
        if (auto alive = self.lock()) (*alive)->deliver(event);
    });
}

void AirPlayPairing::deliver(const Event& event) {
    if (event.kind == Event::Kind::failed) {
        if (finished_) return;
        finished_ = true;
    }
    if (event.kind == Event::Kind::paired) finished_ = true;
    if (onEvent) onEvent(event);
}

void AirPlayPairing::cleanup() {
    if (cmdPipePath_) ::unlink(cmdPipePath_->c_str());
    cmdPipePath_.reset();
}

}  // namespace vt::airplay
