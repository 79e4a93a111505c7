#include "airplay/airplay_sender.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "airplay/receiver_traits.h"
#include "dispatch/clock.h"
#include "engine/pcm16_quantizer.h"

namespace vt::airplay {

namespace {

constexpr int channels = 2;
constexpr int stopPolls = 20;
constexpr auto stopPollInterval = std::chrono::milliseconds(50);
constexpr const char* setupTimeoutMs = "20000";
constexpr uint64_t ditherSeed = 0x9E3779B97F4A7C15ull;
// A pump reports its level this often when debugging (200 blocks: 2 s).
constexpr int levelReportBlocks = 200;
constexpr size_t readChunkBytes = 4096;
constexpr int receiverVolume = 100;  // of 100
// How often the reader looks whether the tool has ended while its pipes stay open.
constexpr int readerPollMs = 100;

bool debugging() {
    return std::getenv("VELLATONE_AIRPLAY_DEBUG") != nullptr;
}

double unixMs() {
    using namespace std::chrono;
    return double(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) /
           1000.0;
}

std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

std::string freshFifoPath() {
    const char* tmp = std::getenv("TMPDIR");
    std::random_device random;
    char id[40];
    std::snprintf(id, sizeof id, "%08x-%08x-%08x", random(), random(), random());
    return std::string(tmp && *tmp ? tmp : "/tmp") + "/vellatone-ap-" + id + ".fifo";
}

void writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n <= 0) return;  // the command pipe's failures are not fatal
        done += size_t(n);
    }
}

}  // namespace

std::string toString(AirPlayStatus::Kind kind) {
    using K = AirPlayStatus::Kind;
    switch (kind) {
        case K::failed:
            return "failed";
        case K::connecting:
            return "connecting";
        case K::streaming:
            return "streaming";
        case K::authRequired:
            return "authRequired";
        case K::forbidden:
            return "forbidden";
        case K::stopped:
            return "stopped";
        case K::clockStalled:
            return "clockStalled";
        case K::needsApproval:
            return "needsApproval";
        case K::clockUnshared:
            return "clockUnshared";
        case K::passwordRequired:
            return "passwordRequired";
    }
    return "failed";
}

AirPlaySender::AirPlaySender(Config config, dispatch::MainQueue& main)
    : config_(std::move(config)), main_(main) {
    state_.timing = config_.timing;
    // A tool that dies while we write to it must cost an error, not the program.
    ::signal(SIGPIPE, SIG_IGN);
}

AirPlaySender::~AirPlaySender() {
    stop();
    *alive_ = false;
}

std::string AirPlaySender::senderName() {
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0) host[0] = 0;
    std::string kept;
    for (const char* p = host; *p; ++p)
        if (*p >= 32 && *p <= 126) kept.push_back(*p);
    const size_t first = kept.find_first_not_of(' ');
    if (first == std::string::npos) return "Vellatone";
    kept = kept.substr(first, kept.find_last_not_of(' ') - first + 1);
    return kept + " (Vellatone)";
}

std::optional<std::string> AirPlaySender::localAddress(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), "7000", &hints, &found) != 0 || !found) return std::nullopt;
    std::optional<std::string> result;
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, found->ai_addr, found->ai_addrlen) == 0) {
        sockaddr_in local{};
        socklen_t length = sizeof local;
        char text[INET_ADDRSTRLEN] = {};
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
            ::inet_ntop(AF_INET, &local.sin_addr, text, sizeof text))
            result = text;
    }
    if (fd >= 0) ::close(fd);
    ::freeaddrinfo(found);
    return result;
}

std::vector<std::string> AirPlaySender::arguments(const std::string& cmdPipe) const {
    const auto& r = config_.receiver;
    std::vector<std::string> a = {config_.binary.string(),
                                  "--protocol",
                                  config_.route,
                                  "--name",
                                  senderName(),
                                  "--port",
                                  std::to_string(r.port),
                                  "--samplerate",
                                  std::to_string(streamSampleRate),
                                  "--bitdepth",
                                  "16",
                                  "--channels",
                                  "2",
                                  "--latency",
                                  std::to_string(requestedLatencyMs),
                                  "--cmdpipe",
                                  cmdPipe,
                                  "--timing",
                                  config_.timing,
                                  "--dacp",
                                  config_.credential ? config_.credential->dacp : config_.deviceID};
    if (config_.timing == ptp && config_.ptpShared) a.push_back("--ptp-shared");
    // Never on the compatible route, which does not pair.
    if (config_.credential && config_.route == nativeRoute) {
        a.push_back("--auth");
        a.push_back(config_.credential->creds);
    }
    if (config_.password && !config_.password->empty()) {
        a.push_back("--password");
        a.push_back(*config_.password);
    }
    if (r.host)
        if (auto local = localAddress(*r.host)) {
            a.insert(a.end(), {"--if", *local, "--publish-ip", *local});
        }
    // An AirPlay 1 receiver's TXT tells the tool how to speak to it
    // (encryption, metadata, its model, whether it has a password).
    if (config_.route == raopRoute)
        for (const char* key : {"et", "md", "am", "pk", "pw", "cn"})
            if (auto it = r.txt.find(key); it != r.txt.end() && !it->second.empty()) {
                a.push_back(std::string("--") + key);
                a.push_back(it->second);
            }
    a.push_back(r.host.value_or(""));
    return a;
}

void AirPlaySender::report(const AirPlayStatus& status) {
    if (debugging())
        std::fprintf(stderr, "[airplay] %s: %s %s\n", config_.receiver.id.c_str(),
                     toString(status.kind).c_str(), status.words.c_str());
    main_.post([this, status, alive = std::weak_ptr<bool>(alive_)] {
        auto live = alive.lock();
        if (live && *live && onStatus) onStatus(status);
    });
}

void AirPlaySender::start() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (state_.running) return;
    }
    if (child_) return;
    if (!config_.receiver.host) {
        report(AirPlayStatus::failed("unresolved host"));
        return;
    }
    const std::string fifo = freshFifoPath();
    if (::mkfifo(fifo.c_str(), 0600) == 0) {
        cmdPipePath_ = fifo;
        // Open for reading too, so that opening never waits for the tool.
        cmdPipe_ = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    }
    std::vector<std::pair<std::string, std::string>> defaults;
    if (followsReceiverClock(config_.receiver)) defaults.push_back({"CLIAIRPLAY_PTP_FOLLOW", "1"});
    const auto env = environmentWith({{"CLIAIRPLAY_SETUP_TIMEOUT_MS", setupTimeoutMs}}, defaults);
    std::string error;
    child_ = spawnChild(arguments(cmdPipePath_.value_or("")), env, error);
    if (!child_) {
        if (cmdPipe_ >= 0) ::close(cmdPipe_);
        cmdPipe_ = -1;
        if (cmdPipePath_) ::unlink(cmdPipePath_->c_str());
        cmdPipePath_.reset();
        report(AirPlayStatus::failed("cannot launch sender: " + error));
        return;
    }
    {
        std::lock_guard<std::mutex> hold(lock_);
        state_.running = true;
    }
    // Said before the reader starts: a refusal it reads at once is posted
    // after this, so it is not overwritten by "connecting".
    report({AirPlayStatus::Kind::connecting, {}});
    reader_ = std::thread([this] { readOutputs(); });
}

// Both output streams, line by line, until the tool has closed them; then its
// end. Lines are joined across reads, so a line split by the pipe is one line.
void AirPlaySender::readOutputs() {
    pollfd fds[2] = {{child_->stdoutFd, POLLIN, 0}, {child_->stderrFd, POLLIN, 0}};
    std::string partial[2];
    std::vector<char> buffer(readChunkBytes);
    int open = 2;
    bool reaped = false;
    int status = 0;
    while (open > 0) {
        const int ready = ::poll(fds, 2, readerPollMs);
        if (ready < 0 && errno != EINTR) break;
        for (int i = 0; ready > 0 && i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = ::read(fds[i].fd, buffer.data(), buffer.size());
            if (n <= 0) {
                if (!partial[i].empty()) handleChunk(partial[i]);
                partial[i].clear();
                fds[i].fd = -1;
                --open;
                continue;
            }
            if (debugging()) std::fwrite(buffer.data(), 1, size_t(n), stderr);
            partial[i].append(buffer.data(), size_t(n));
            const size_t lastLineEnd = partial[i].rfind('\n');
            if (lastLineEnd != std::string::npos) {
                handleChunk(std::string_view(partial[i]).substr(0, lastLineEnd + 1));
                partial[i].erase(0, lastLineEnd + 1);
            }
            // A line without end is cut rather than kept growing.
            if (partial[i].size() > maxStatusLineBytes) {
                handleChunk(partial[i]);
                partial[i].clear();
            }
        }
        if (!reaped && ::waitpid(child_->pid, &status, WNOHANG) == child_->pid) {
            reaped = true;
            exited_ = true;
        }
        // Something the tool left behind may hold its pipes open; once we
        // are stopping, its end is the end.
        if (reaped && stopRequested_) break;
    }
    if (!reaped) ::waitpid(child_->pid, &status, 0);
    exited_ = true;
    bool wasRunning = false;
    {
        std::lock_guard<std::mutex> hold(lock_);
        wasRunning = state_.running;
        state_.running = false;
    }
    exited(status, wasRunning);
}

void AirPlaySender::exited(int status, bool wasRunning) {
    pumping_ = false;
    // A refusal or stop() that cleared the flag has already spoken.
    if (!wasRunning) return;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (code == 0)
        report({AirPlayStatus::Kind::stopped, {}});
    else
        report(AirPlayStatus::failed("sender exited (" + std::to_string(code) + ")"));
}

void AirPlaySender::handleChunk(std::string_view lines) {
    ChunkEffects effects;
    {
        std::lock_guard<std::mutex> hold(lock_);
        effects = interpretChunk(lines, state_);
    }
    for (const AirPlayStatus& s : effects.statuses) report(s);
    if (effects.publishLatency) publishLatency();
    if (effects.tryStart || effects.armDeadline || effects.cancelDeadline)
        main_.post([this, effects, alive = std::weak_ptr<bool>(alive_)] {
            auto live = alive.lock();
            if (!live || !*live) return;
            if (effects.cancelDeadline) deadline_.reset();
            if (effects.tryStart) maybeStart(false);
            bool started = false;
            {
                std::lock_guard<std::mutex> hold(lock_);
                started = state_.started;
            }
            if (effects.armDeadline && !started && !deadline_)
                deadline_ = main_.postAfter(startDeadlineSeconds, [this] { maybeStart(true); });
        });
}

void AirPlaySender::maybeStart(bool force) {
    std::optional<Metadata> meta;
    bool ntpStart = false;
    double startMs = 0;
    {
        std::lock_guard<std::mutex> hold(lock_);
        if (!state_.connected || !state_.running) return;
        ntpStart = state_.effectiveTiming == ntp;
        if (!ntpStart && !state_.clockReady && !force) return;
        if (state_.started) return;
        state_.started = true;
        if (!ntpStart) {
            startMs = unixMs() + requestedLatencyMs;
            state_.startUnixMs = startMs;
        }
        meta = lastMeta_;
    }
    deadline_.reset();
    const std::string title = meta ? oneLine(meta->title) : "Vellatone";
    char start[32];
    std::snprintf(start, sizeof start, "%lld", static_cast<long long>(ntpStart ? 0 : startMs));
    // The row's volume is the engine's gain: the receiver plays at full.
    writeCommand("TITLE=" + title + "\nSTART_UNIX_MS=" + start +
                 "\nVOLUME=" + std::to_string(receiverVolume) + "\nACTION=START\n");
    if (meta) send(*meta);
    pumping_ = true;
    pumpThread_ = std::thread([this] { pump(); });
}

void AirPlaySender::writeCommand(const std::string& text) {
    if (cmdPipe_ >= 0) writeAll(cmdPipe_, text);
}

void AirPlaySender::send(const Metadata& meta) {
    bool deliver = false;
    {
        std::lock_guard<std::mutex> hold(lock_);
        lastMeta_ = meta;
        deliver = state_.running && state_.started;
    }
    if (!deliver) return;
    std::string message = "TITLE=" + oneLine(meta.title) + "\nARTIST=" + oneLine(meta.artist) +
                          "\nALBUM=" + oneLine(meta.album) + "\n";
    if (!meta.itemID.empty()) message += "ITEMID=" + oneLine(meta.itemID) + "\n";
    message += "ARTWORKFILE=" + meta.artworkFile.value_or("") + "\nACTION=SENDMETA\n";
    writeCommand(message);
}

void AirPlaySender::publishLatency() {
    std::optional<double> value;
    {
        std::lock_guard<std::mutex> hold(lock_);
        value = latencyToPublish(state_);
    }
    if (!value) return;
    main_.post([this, ms = *value, alive = std::weak_ptr<bool>(alive_)] {
        auto live = alive.lock();
        if (live && *live && onLatency) onLatency(ms);
    });
}

// The pace is the system clock's and the tool's pipe's, never an audio
// callback's: every 10 ms one block of 441 frames, whatever the slot holds.
void AirPlaySender::pump() {
    std::vector<float> samples(size_t(framesPerBlock) * channels);
    std::vector<int16_t> pcm(samples.size());
    engine::PCM16Quantizer quantizer(ditherSeed);
    const bool debug = debugging();
    double levelSum = 0;
    int levelBlocks = 0;
    bool firstWrite = true;
    double deadline = dispatch::monotonicSeconds();
    while (pumping_) {
        config_.render(samples.data(), framesPerBlock);
        for (float& s : samples) s = std::clamp(s, -1.0f, 1.0f);
        quantizer.convert(samples.data(), pcm.data(), pcm.size());
        if (firstWrite) {
            firstWrite = false;
            {
                std::lock_guard<std::mutex> hold(lock_);
                state_.firstWriteUnixMs = unixMs();
            }
            publishLatency();
        }
        const char* bytes = reinterpret_cast<const char*>(pcm.data());
        size_t left = pcm.size() * sizeof(int16_t), done = 0;
        while (left > 0) {
            const ssize_t n = ::write(child_->stdinFd, bytes + done, left);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += size_t(n);
            left -= size_t(n);
        }
        if (left > 0) {
            bool wasRunning = false;
            {
                std::lock_guard<std::mutex> hold(lock_);
                wasRunning = state_.running;
                state_.running = false;
            }
            if (wasRunning) report(AirPlayStatus::failed("stream write failed"));
            break;
        }
        if (debug) {
            double square = 0;
            for (float s : samples) square += double(s) * s;
            levelSum += square / double(samples.size());
            if (++levelBlocks == levelReportBlocks) {
                std::fprintf(stderr, "[pump] rms=%.4f\n", std::sqrt(levelSum / levelBlocks));
                levelSum = 0;
                levelBlocks = 0;
            }
        }
        deadline += blockSeconds;
        const double now = dispatch::monotonicSeconds();
        if (deadline > now)
            std::this_thread::sleep_for(std::chrono::duration<double>(deadline - now));
        else if (now - deadline > pumpResyncSeconds)
            deadline = now;
    }
}

void AirPlaySender::stop() {
    bool wasRunning = false;
    {
        std::lock_guard<std::mutex> hold(lock_);
        wasRunning = state_.running;
        state_.running = false;
    }
    if (!wasRunning && !child_ && !cmdPipePath_) return;
    stopRequested_ = true;
    deadline_.reset();
    pumping_ = false;
    if (pumpThread_.joinable() && !child_) pumpThread_.join();
    if (child_) {
        // The tool sees the end of its input once the pump has let go of it.
        if (!pumpThread_.joinable()) {
            ::close(child_->stdinFd);
            child_->stdinFd = -1;
        }
        writeCommand("ACTION=STOP\n");
        for (int i = 0; i < stopPolls && !exited_; ++i)
            std::this_thread::sleep_for(stopPollInterval);
        if (!exited_) ::kill(child_->pid, SIGTERM);
        for (int i = 0; i < stopPolls && !exited_; ++i)
            std::this_thread::sleep_for(stopPollInterval);
        if (!exited_) ::kill(child_->pid, SIGKILL);
        if (pumpThread_.joinable()) pumpThread_.join();
        if (reader_.joinable()) reader_.join();
        for (int fd : {child_->stdinFd, child_->stdoutFd, child_->stderrFd})
            if (fd >= 0) ::close(fd);
        child_.reset();
    }
    if (cmdPipe_ >= 0) ::close(cmdPipe_);
    cmdPipe_ = -1;
    if (cmdPipePath_) ::unlink(cmdPipePath_->c_str());
    cmdPipePath_.reset();
    report({AirPlayStatus::Kind::stopped, {}});
}

}  // namespace vt::airplay
