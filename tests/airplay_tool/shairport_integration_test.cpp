// vellatone-airplay against a real AirPlay 1 receiver: Debian's shairport-sync
// playing into a null sink of a private sound server, whose monitor is
// recorded with the server's timing so the moment each sound was heard is
// known on this machine's clock. Runs inside with_receiver_namespace.sh.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

#include "airplay_tool/base64.h"
#include "airplay_tool/child_process.h"
#include "airplay_tool/shairport_receiver.h"
#include "recorder.h"
#include "support/private_pulse.h"

using namespace vt::airplay_tool::testing;
using namespace std::chrono_literals;

namespace {

constexpr int kRate = 44100;
constexpr int kBlockFrames = 441;  // what the app's pump writes every 10 ms
constexpr double kToneHz = 1000;
constexpr double kToneAmplitude = 0.5;
constexpr float kOnsetThreshold = 0.05f;
// "At the time asked within a few ms", as far as the receiver lets it be seen.
// On PipeWire shairport-sync holds its time to 0.1 ms and the recorder is known
// to place a sink a steady ~5 ms late, so there the bursts are held to their
// spread and to a mean of 10 ms; the spread allows for the ~1.7 ms step it
// takes when it corrects its clock, seen over 60 s runs. On PulseAudio the
// recorder is exact to 10 us, but shairport-sync steers on the interpolated
// stream latency: a receiver's first session starts anywhere from on time to
// 62 ms late (seen here), later ones within 1.5 ms. There the errors are
// printed, and the timing is held on PipeWire.
constexpr double kPipeWireMeanToleranceMs = 10.0;
constexpr double kSpreadToleranceMs = 3.0;
constexpr long long kReadDelayBoundMs = 30;
// The signal: a cosine burst (loudest at its first sample) every 250 ms, so
// each burst's onset can be found and compared with when it was due. Burst k
// lasts 8 + 4 (k mod 20) ms, so a burst names itself even when a receiver
// drops the start of a stream.
constexpr int kBurstPeriodFrames = kRate / 4;
constexpr int kBurstCycle = 20;
constexpr double kBurstBaseMs = 8;
constexpr double kBurstStepMs = 4;
int burstFrames(int64_t k) {
    return static_cast<int>((kBurstBaseMs + kBurstStepMs * (k % kBurstCycle)) * kRate / 1000);
}

double clockSeconds(clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return ts.tv_sec + ts.tv_nsec * 1e-9;
}
int64_t unixMs() {
    return static_cast<int64_t>(clockSeconds(CLOCK_REALTIME) * 1000);
}

class ToolRun {
  public:
    ToolRun(const std::string& dir, std::vector<std::string> extra) {
        fifo_ = dir + "/cmd.fifo";
        unlink(fifo_.c_str());
        mkfifo(fifo_.c_str(), 0600);
        cmd_ = open(fifo_.c_str(), O_RDWR | O_CLOEXEC);
        std::vector<std::string> argv = {VELLATONE_AIRPLAY_TOOL,
                                         "--protocol",
                                         "raop",
                                         "--port",
                                         std::to_string(kReceiverPort),
                                         "--volume",
                                         "100",
                                         "--cmdpipe",
                                         fifo_};
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back("127.0.0.1");
        process = std::make_unique<ChildProcess>(argv, true);
    }
    ~ToolRun() {
        // A tool that stopped reading would hold the feeder in its write.
        stopFeed_ = true;
        process->kill(SIGKILL);
        stopFeeding();
        process.reset();
        if (cmd_ >= 0) close(cmd_);
        unlink(fifo_.c_str());
    }
    void command(const std::string& text) {
        ASSERT_EQ(::write(cmd_, text.data(), text.size()), (ssize_t)text.size());
    }

    // Writes the burst signal in 10 ms blocks at the pace of the clock, as
    // the app's pump does; returns when it begins. With a stall, writing
    // stops for that long after `stallAt` seconds and then goes on with the
    // signal as it is by then, as the app's pump starts afresh after one.
    void feedTone(double seconds, double stallAt = 0, double stall = 0) {
        feeder_ = std::thread([this, seconds, stallAt, stall] {
            std::vector<int16_t> block(kBlockFrames * 2);
            const int blocks = static_cast<int>(seconds * kRate / kBlockFrames);
            auto due = std::chrono::steady_clock::now();
            int64_t frame = 0;
            const int stallBlock = stall > 0 ? static_cast<int>(stallAt * 100) : -1;
            for (int b = 0; b < blocks && !stopFeed_; ++b) {
                if (b == 0) firstWriteUnixMs = unixMs();
                if (b == stallBlock) {
                    const int skipped = static_cast<int>(stall * 100);
                    std::this_thread::sleep_for(std::chrono::duration<double>(stall));
                    b += skipped;
                    frame += int64_t{skipped} * kBlockFrames;
                    due = std::chrono::steady_clock::now();
                }
                for (int i = 0; i < kBlockFrames; ++i, ++frame) {
                    const int64_t inBurst = frame % kBurstPeriodFrames;
                    // The last 100 ms stay quiet: a packet's worth may wait for input that never
                    // comes.
                    const bool loud = inBurst < burstFrames(frame / kBurstPeriodFrames) &&
                                      frame < (blocks - 10) * kBlockFrames;
                    const double v =
                        loud ? kToneAmplitude * std::cos(2 * M_PI * kToneHz * inBurst / kRate)
                             : 0.0;
                    block[2 * i] = block[2 * i + 1] = static_cast<int16_t>(std::lround(v * 32767));
                }
                if (!process->write(block.data(), block.size() * 2)) break;
                due += 10ms;
                std::this_thread::sleep_until(due);
            }
        });
    }
    void stopFeeding() {
        stopFeed_ = true;
        if (feeder_.joinable()) feeder_.join();
    }

    std::unique_ptr<ChildProcess> process;
    std::atomic<int64_t> firstWriteUnixMs{0};

  private:
    std::string fifo_;
    int cmd_ = -1;
    std::thread feeder_;
    std::atomic<bool> stopFeed_{false};
};

constexpr double kBurstPeriodMs = 1000.0 * kBurstPeriodFrames / kRate;
// A new time line after a stall or pause starts one lead after the first
// block the tool reads, which trails its write by the reader's wake-up.
constexpr double kAfterStallToleranceMs = 15;
// How near the edges of a stall or pause sound may still be heard: a packet
// is 8 ms, and the burst under way then may be cut anywhere.
constexpr double kQuietMarginMs = 100;

struct HeardBurst {
    int64_t index = 0;   // which burst, from its length and rough time
    double errorMs = 0;  // heard minus due
};

// Every burst the recorded sink carried, against when it was due: burst k at
// startUnixMs + k * 250 ms.
std::vector<HeardBurst> heardBursts(const vt::syncmeter::Recording& r, double startUnixMs) {
    const double unixMinusMono = clockSeconds(CLOCK_REALTIME) - clockSeconds(CLOCK_MONOTONIC);
    auto unixMsAt = [&](size_t i) {
        return (r.firstFramePlayedSec + i * r.secondsPerFrame + unixMinusMono) * 1000;
    };
    std::vector<HeardBurst> bursts;
    const size_t gap = kBurstPeriodFrames / 2;
    size_t i = 0;
    while (i < r.left.size()) {
        if (std::fabs(r.left[i]) <= kOnsetThreshold) {
            ++i;
            continue;
        }
        const size_t onset = i;
        size_t last = i;
        for (size_t j = i; j < r.left.size() && j < last + gap; ++j)
            if (std::fabs(r.left[j]) > kOnsetThreshold) last = j;
        i = last + gap;
        if (i >= r.left.size()) break;  // cut off by the end of the recording
        const double lengthMs = (last - onset + 1) * r.secondsPerFrame * 1000;
        const int64_t cycle = std::llround((lengthMs - kBurstBaseMs) / kBurstStepMs);
        const double onsetMs = unixMsAt(onset);
        const double rough = (onsetMs - startUnixMs) / kBurstPeriodMs;
        // The index with this length that lies nearest the rough time.
        const int64_t base = static_cast<int64_t>(std::floor(rough / kBurstCycle)) * kBurstCycle;
        int64_t best = base + cycle;
        for (int64_t k : {base + cycle - kBurstCycle, base + cycle + kBurstCycle})
            if (std::fabs(k - rough) < std::fabs(best - rough)) best = k;
        bursts.push_back({best, onsetMs - startUnixMs - best * kBurstPeriodMs});
    }
    return bursts;
}

void expectOnTime(const std::vector<HeardBurst>& bursts, bool pipewire) {
    double lo = 1e9, hi = -1e9, sum = 0;
    for (const auto& b : bursts) {
        lo = std::min(lo, b.errorMs);
        hi = std::max(hi, b.errorMs);
        sum += b.errorMs;
    }
    if (pipewire && !bursts.empty()) {
        EXPECT_LT(hi - lo, kSpreadToleranceMs);
        EXPECT_LT(std::fabs(sum / bursts.size()), kPipeWireMeanToleranceMs);
    }
}

void printBursts(const char* what, const std::vector<HeardBurst>& bursts) {
    std::printf("%s: burst:error_ms", what);
    for (const auto& b : bursts)
        std::printf(" %lld:%.1f", static_cast<long long>(b.index), b.errorMs);
    std::printf("\n");
}

class ShairportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(pulse.running()) << pulse.error();
        char tmpl[] = "/tmp/vt-raop-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        // An idle null sink renders seconds ahead in big blocks, which hides
        // when anything was heard; a quiet stream keeps it in small ones.
        keepSinkBusy = std::make_unique<ChildProcess>(
            std::vector<std::string>{
                "/bin/sh", "-c",
                "exec pacat --playback --device=airport --raw --latency-msec=20 "
                "--format=s16le --rate=44100 --channels=2 < /dev/zero"},
            false);
        std::this_thread::sleep_for(500ms);
    }
    void TearDown() override {
        receiver.reset();
        keepSinkBusy.reset();
        std::filesystem::remove_all(dir);
    }
    void startReceiver(const std::string& password = "") {
        ReceiverConfig config;
        config.pulseServer = pulse.server();
        config.password = password;
        receiver = std::make_unique<ShairportReceiver>(dir, config);
        ASSERT_TRUE(receiver->waitUntilListening()) << receiver->log();
    }
    // Records the receiver's sink while `during` runs.
    vt::syncmeter::Recording record(double seconds, const std::function<void()>& during) {
        std::vector<vt::syncmeter::Recording> result;
        std::thread recorder([&] {
            result = vt::syncmeter::recordSources({{"airport", "airport.monitor"}}, seconds);
        });
        std::this_thread::sleep_for(300ms);
        during();
        recorder.join();
        return result.at(0);
    }

    support::PrivatePulse pulse{{"airport:44100:AirPort"}};
    std::string dir;
    std::unique_ptr<ShairportReceiver> receiver;
    std::unique_ptr<ChildProcess> keepSinkBusy;
};

TEST_F(ShairportTest, FirstSampleIsHeardAtTheRequestedTimeAndStopTearsDown) {
    for (const char* mode : {"--raw", "--encrypt"}) {
        SCOPED_TRACE(mode);
        // A receiver of its own for each: shairport-sync 3.3.8's PulseAudio
        // backend now and then dies on a libpulse assertion as a session
        // ends on pipewire-pulse, seen here under load.
        receiver.reset();
        startReceiver();
        // Encrypted, as to an AirPort: OPTIONS carries an Apple-Challenge too.
        std::vector<std::string> extra = {mode};
        if (std::string(mode) == "--encrypt") extra.insert(extra.end(), {"--am", "AirPort10,115"});
        ToolRun tool(dir, extra);
        ASSERT_TRUE(tool.process->waitForLine("[STATUS] connected", 10s))
            << tool.process->transcript() << receiver->log();
        ASSERT_TRUE(tool.process->waitForLine("[STATUS] route protocol=raop", 1s));
        int64_t requested = 0;
        auto recording = record(6.0, [&] {
            requested = unixMs() + 1500;
            tool.command("START_UNIX_MS=" + std::to_string(requested) + "\nACTION=START\n");
            tool.feedTone(5.0);
        });
        auto started = tool.process->waitForLine("[STATUS] started", 1s);
        ASSERT_TRUE(started) << tool.process->transcript();
        EXPECT_NE(started->find("requested_unix_ms=" + std::to_string(requested)),
                  std::string::npos);
        EXPECT_NE(started->find("at_unix_ms=" + std::to_string(requested)), std::string::npos)
            << *started;
        auto bursts = heardBursts(recording, requested);
        printBursts(mode, bursts);
        ASSERT_GE(bursts.size(), 8u) << "too little sound reached the receiver's sink\n"
                                     << receiver->log();
        expectOnTime(bursts, pulse.pipewire());

        // The app ends a stream by closing standard input and then sending
        // STOP; a signal ends it the same way.
        tool.stopFeeding();
        tool.process->closeStdin();
        EXPECT_TRUE(tool.process->waitForLine("[STATUS] eof", 5s)) << tool.process->transcript();
        if (std::string(mode) == "--raw")
            tool.command("ACTION=STOP\n");
        else
            tool.process->kill(SIGTERM);
        ASSERT_TRUE(tool.process->waitForLine("[STATUS] stopped", 5s))
            << tool.process->transcript();
        EXPECT_EQ(tool.process->wait(5s), 0);
        EXPECT_FALSE(tool.process->waitForLine("[STATUS] error", 0ms));
        if (HasFailure()) std::printf("--- the receiver\n%s\n", receiver->log().c_str());
    }
}

// Also: writes that stall longer than the lead, and a pause, leave what comes
// after them in its place, silence between.
TEST_F(ShairportTest, StartAtZeroPlaysAfterTheReportedLeadAndKeepsItThroughStalls) {
    startReceiver();
    ToolRun tool(dir, {});
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] connected", 10s)) << tool.process->transcript();
    auto latency = tool.process->waitForLine("[STATUS] latency lead_ms=", 1s);
    ASSERT_TRUE(latency);
    const int leadMs = std::atoi(latency->c_str() + latency->find("lead_ms=") + 8);
    const double stallAt = 1.0, stall = leadMs / 1000.0 + 0.5;
    int64_t pausedMs = 0, playedMs = 0;
    auto recording = record(stall + 7.5, [&] {
        tool.command("START_UNIX_MS=0\nACTION=START\n");
        tool.feedTone(stall + 6.5, stallAt, stall);
        std::this_thread::sleep_for(std::chrono::duration<double>(stallAt + stall + 3.0));
        pausedMs = unixMs();
        tool.command("ACTION=PAUSE\n");
        std::this_thread::sleep_for(700ms);
        playedMs = unixMs();
        tool.command("ACTION=PLAY\n");
    });
    EXPECT_TRUE(tool.process->waitForLine("[STATUS] paused elapsed_ms=", 1s))
        << tool.process->transcript();
    EXPECT_TRUE(tool.process->waitForLine("[STATUS] playing elapsed_ms=", 1s));
    EXPECT_FALSE(tool.process->waitForLine("[STATUS] error", 0ms)) << tool.process->transcript();
    auto started = tool.process->waitForLine("[STATUS] started", 1s);
    ASSERT_TRUE(started);
    const long long atMs = std::atoll(started->c_str() + started->find("at_unix_ms=") + 11);
    // The tool places the start lead_ms after it read the first block. That
    // read trails the write by however long the machine keeps the reader
    // waiting (under 1 ms when quiet, 7 ms at a load of 9 on two cores).
    const long long readDelayMs =
        atMs - leadMs - static_cast<long long>(tool.firstWriteUnixMs.load());
    std::printf(
        "lead: reported %d ms; the tool read the first block %lld ms after it was written\n",
        leadMs, readDelayMs);
    EXPECT_GE(readDelayMs, -1);
    EXPECT_LT(readDelayMs, kReadDelayBoundMs);
    // Burst k is due at the placed start + k * 250 ms, after the stall too.
    // Bursts cut by the stall or the pause may pass for others; the quiet
    // stretches are told by when sound was heard, whatever burst it was.
    auto bursts = heardBursts(recording, static_cast<double>(atMs));
    printBursts("heard after the placed start", bursts);
    ASSERT_GE(bursts.size(), 8u) << receiver->log();
    std::vector<double> errors;
    for (const auto& b : bursts) errors.push_back(b.errorMs);
    std::nth_element(errors.begin(), errors.begin() + errors.size() / 2, errors.end());
    const double median = errors[errors.size() / 2];
    const double stallFrom = stallAt * 1000, stallTo = (stallAt + stall) * 1000;
    const double pauseFrom = double(pausedMs - atMs), pauseTo = double(playedMs + leadMs - atMs);
    int onTimeAfterStall = 0;
    for (const auto& b : bursts) {
        const double heardMs = b.index * kBurstPeriodMs + b.errorMs;
        EXPECT_FALSE(heardMs > stallFrom + kQuietMarginMs && heardMs < stallTo - kQuietMarginMs)
            << "burst " << b.index << " heard in the stall";
        EXPECT_FALSE(heardMs > pauseFrom + kQuietMarginMs && heardMs < pauseTo - kQuietMarginMs)
            << "burst " << b.index << " heard in the pause";
        if (heardMs > stallTo && std::fabs(b.errorMs - median) < kAfterStallToleranceMs)
            ++onTimeAfterStall;
    }
    // shairport-sync on PulseAudio moves its own timing by tens of ms about
    // a gap (see expectOnTime): there only the quiet stretches are held.
    std::printf("after the stall %d bursts within %.0f ms of the median\n", onTimeAfterStall,
                kAfterStallToleranceMs);
    if (pulse.pipewire()) {
        EXPECT_GE(onTimeAfterStall, 8);
    }
    if (HasFailure())
        std::printf("paused at %lld, played at %lld\n--- the tool\n%s\n--- the receiver\n%s\n",
                    static_cast<long long>(pausedMs), static_cast<long long>(playedMs),
                    tool.process->transcript().c_str(), receiver->log().c_str());
}

}  // namespace

namespace {

// One item of shairport-sync's metadata pipe: type and code as 8 hex digits,
// the data base64-encoded.
struct MetadataItem {
    std::string type, code, data;
};

std::string hexCode(const std::string& code) {
    char out[9];
    std::snprintf(out, sizeof out, "%02x%02x%02x%02x", code[0], code[1], code[2], code[3]);
    return out;
}

std::vector<MetadataItem> metadataItems(const std::string& text) {
    static const std::regex item(
        R"(<item><type>([0-9a-f]{8})</type><code>([0-9a-f]{8})</code><length>\d+</length>(?:\s*<data encoding="base64">\s*([A-Za-z0-9+/=\s]*)</data>)?</item>)");
    std::vector<MetadataItem> items;
    for (std::sregex_iterator it(text.begin(), text.end(), item), end; it != end; ++it) {
        std::string b64 = (*it)[3];
        b64.erase(std::remove_if(b64.begin(), b64.end(), ::isspace), b64.end());
        auto bytes = vt::airplay_tool::base64Decode(b64);
        items.push_back(
            {(*it)[1], (*it)[2], bytes ? std::string(bytes->begin(), bytes->end()) : ""});
    }
    return items;
}

std::optional<std::string> lastItem(const std::string& text, const std::string& code) {
    std::optional<std::string> found;
    for (const auto& i : metadataItems(text))
        if (i.code == hexCode(code)) found = i.data;
    return found;
}

TEST_F(ShairportTest, PasswordRightOnePlaysWrongOneAndNoneAreRefused) {
    startReceiver("sesame");
    {
        ToolRun tool(dir, {});
        auto error = tool.process->waitForLine("[STATUS] error", 10s);
        ASSERT_TRUE(error) << tool.process->transcript();
        EXPECT_NE(error->find("code=auth_required http=401"), std::string::npos) << *error;
        EXPECT_TRUE(tool.process->waitForLine("[ERROR]", 1s));
        EXPECT_EQ(tool.process->wait(5s), 1);
        EXPECT_FALSE(tool.process->waitForLine("[STATUS] connected", 0ms));
    }
    {
        ToolRun tool(dir, {"--password", "open sesame"});
        auto error = tool.process->waitForLine("[STATUS] error", 10s);
        ASSERT_TRUE(error) << tool.process->transcript();
        EXPECT_NE(error->find("code=auth_failed http=401"), std::string::npos) << *error;
        EXPECT_TRUE(tool.process->waitForLine("[ERROR]", 1s));
        EXPECT_EQ(tool.process->wait(5s), 1);
    }
    ToolRun tool(dir, {"--password", "sesame"});
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] connected", 10s)) << tool.process->transcript();
    int64_t requested = 0;
    auto recording = record(3.5, [&] {
        requested = unixMs() + 1500;
        tool.command("START_UNIX_MS=" + std::to_string(requested) + "\nACTION=START\n");
        tool.feedTone(2.0);
    });
    auto bursts = heardBursts(recording, requested);
    printBursts("with the password", bursts);
    EXPECT_GE(bursts.size(), 3u) << receiver->log();
    tool.command("ACTION=STOP\n");
    EXPECT_EQ(tool.process->wait(5s), 0);
}

TEST_F(ShairportTest, MetadataArtworkAndVolumeReachTheReceiver) {
    startReceiver();
    const std::string artPath = dir + "/cover.png";
    const std::string art = std::string("\x89PNG\r\n\x1a\n", 8) + std::string(3000, '\x5a');
    std::ofstream(artPath, std::ios::binary) << art;

    ToolRun tool(dir, {});
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] connected", 10s)) << tool.process->transcript();
    tool.command("START_UNIX_MS=0\nACTION=START\n");
    tool.feedTone(4.0);
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] started", 2s));
    tool.command(
        "TITLE=Blue in Green\nARTIST=Miles Davis\nALBUM=Kind of Blue\nITEMID=42\nARTWORKFILE=" +
        artPath + "\nACTION=SENDMETA\n");
    tool.command("VOLUME=50\nACTION=VOLUME\n");

    std::string text;
    for (int i = 0; i < 50; ++i) {
        text = receiver->metadata();
        if (lastItem(text, "PICT") && lastItem(text, "pvol") &&
            lastItem(text, "pvol")->rfind("-15.00", 0) == 0)
            break;
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_EQ(lastItem(text, "minm"), "Blue in Green") << text.substr(0, 4000);
    EXPECT_EQ(lastItem(text, "asar"), "Miles Davis");
    EXPECT_EQ(lastItem(text, "asal"), "Kind of Blue");
    EXPECT_EQ(lastItem(text, "PICT"), art);
    // The receiver reports the AirPlay volume first: 50 % is -15 dB of its -30..0.
    auto volume = lastItem(text, "pvol");
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->rfind("-15.00,", 0), 0u) << *volume;

    tool.stopFeeding();
    tool.command("ACTION=STOP\n");
    EXPECT_TRUE(tool.process->waitForLine("[STATUS] stopped", 5s));
    EXPECT_EQ(tool.process->wait(5s), 0);
}

TEST_F(ShairportTest, ASecondSenderIsToldTheReceiverIsBusy) {
    startReceiver();
    ToolRun first(dir, {});
    ASSERT_TRUE(first.process->waitForLine("[STATUS] connected", 10s));
    ToolRun second(dir, {});
    auto error = second.process->waitForLine("[STATUS] error", 10s);
    ASSERT_TRUE(error) << second.process->transcript();
    EXPECT_NE(error->find("code=connect_failed http=453"), std::string::npos) << *error;
    EXPECT_EQ(second.process->wait(5s), 1);
    // The first keeps its session.
    EXPECT_FALSE(first.process->wait(0ms));
    first.command("ACTION=STOP\n");
    EXPECT_EQ(first.process->wait(5s), 0);
}

TEST_F(ShairportTest, AReceiverThatDiesEndsTheToolWithAnError) {
    startReceiver();
    ToolRun tool(dir, {});
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] connected", 10s)) << tool.process->transcript();
    tool.command("START_UNIX_MS=0\nACTION=START\n");
    tool.feedTone(6.0);
    ASSERT_TRUE(tool.process->waitForLine("[STATUS] started", 2s));
    std::this_thread::sleep_for(1s);
    receiver->kill();
    auto error = tool.process->waitForLine("[STATUS] error", 5s);
    ASSERT_TRUE(error) << tool.process->transcript();
    EXPECT_NE(error->find("code=disconnected"), std::string::npos) << *error;
    EXPECT_TRUE(tool.process->waitForLine("[ERROR]", 1s));
    EXPECT_EQ(tool.process->wait(5s), 1);
}

}  // namespace
