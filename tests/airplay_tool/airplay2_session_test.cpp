// The AirPlay 2 route end to end against our own test receiver on loopback,
// in a network namespace of the test's own (the session's PTP clock takes
// UDP 319 and 320): pairing, the session's requests in their order, a known
// signal sealed, sent, asked for again once, decoded and placed in time by
// the sync packets, a stall of the input that moves the time line forward,
// the track, the teardown, and the event connection's question answered; a
// session keyed by pair-verify with kept credentials, paused and played on;
// and one that keeps time by NTP, as it does without PTP.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "airplay_tool/hap/credentials.h"
#include "ap2_receiver/ap2_test_receiver.h"
#include "child_process.h"

using namespace std::chrono_literals;
using vt::airplay_test::Ap2TestReceiver;
using vt::airplay_tool::testing::ChildProcess;

namespace {

constexpr int kRate = 44100;
constexpr size_t kPacketFrames = 352;
constexpr size_t kBeforeStallFrames = 25 * kPacketFrames;  // 0.2 s
constexpr size_t kAfterStallFrames = 62 * kPacketFrames;   // 0.49 s
constexpr auto kStall = 1000ms;
constexpr int64_t kStartLeadMs = 800;

// Never 0, so that the sender's silence stands out; right is left negated.
int16_t signalAt(size_t frame) {
    return static_cast<int16_t>(1 + (frame * 37) % 20000);
}

std::vector<int16_t> signal(size_t from, size_t frames) {
    std::vector<int16_t> out;
    for (size_t f = from; f < from + frames; ++f) {
        out.push_back(signalAt(f));
        out.push_back(static_cast<int16_t>(-signalAt(f)));
    }
    return out;
}

int64_t unixMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int64_t field(const std::string& line, const std::string& name) {
    const size_t at = line.find(" " + name + "=");
    return at == std::string::npos ? -1 : std::atoll(line.c_str() + at + name.size() + 2);
}

constexpr const char* kDacpID = "0123456789ABCDEF";

// The sender may be done before the receiver has read all it sent: until
// it has this many frames, or a while has passed.
bool waitForFrames(const Ap2TestReceiver& receiver, size_t frames) {
    for (int i = 0; i < 300 && receiver.framesReceived() < frames; ++i)
        std::this_thread::sleep_for(10ms);
    return receiver.framesReceived() >= frames;
}

// The tool towards the receiver, with its command pipe.
class ToolRun {
  public:
    ToolRun(const Ap2TestReceiver& receiver, std::vector<std::string> extra) {
        fifo_ = std::string(mkdtemp(dir_)) + "/cmd.fifo";
        mkfifo(fifo_.c_str(), 0600);
        commands_ = open(fifo_.c_str(), O_RDWR | O_CLOEXEC);
        std::vector<std::string> argv = {VELLATONE_AIRPLAY_TOOL,
                                         "--protocol",
                                         "airplay2",
                                         "--port",
                                         std::to_string(receiver.port()),
                                         "--latency",
                                         "350",
                                         "--volume",
                                         "50",
                                         "--dacp",
                                         kDacpID,
                                         "--cmdpipe",
                                         fifo_};
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back("127.0.0.1");
        process = std::make_unique<ChildProcess>(argv, true);
    }
    ~ToolRun() {
        process.reset();
        close(commands_);
        unlink(fifo_.c_str());
        rmdir(dir_);
    }
    void command(const std::string& text) {
        ASSERT_EQ(write(commands_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::unique_ptr<ChildProcess> process;

  private:
    char dir_[32] = "/tmp/vt-ap2-session-XXXXXX";
    std::string fifo_;
    int commands_ = -1;
};

}  // namespace

TEST(AirPlay2Session, PlaysAKnownSignalInTimeThroughAStall) {
    Ap2TestReceiver receiver;
    ToolRun run(receiver, {});
    ChildProcess& tool = *run.process;
    const auto command = [&](const std::string& text) { run.command(text); };

    ASSERT_TRUE(tool.waitForLine("[STATUS] connected", 10s)) << tool.transcript();
    EXPECT_TRUE(tool.waitForLine("[STATUS] route protocol=airplay2 flow=realtime timing=ptp", 1s))
        << tool.transcript();
    // The receiver speaks PTP to the session's clock within its first 125 ms.
    ASSERT_TRUE(tool.waitForLine("state=ready", 2s)) << tool.transcript();

    const int64_t startMs = unixMs() + kStartLeadMs;
    command("START_UNIX_MS=" + std::to_string(startMs) + "\nACTION=START\n");
    command("TITLE=Kitchen Song\nARTIST=The Receivers\nALBUM=Pipe Dreams\nACTION=SENDMETA\n");
    const auto before = signal(0, kBeforeStallFrames);
    ASSERT_TRUE(tool.write(before.data(), before.size() * sizeof(int16_t)));
    std::this_thread::sleep_for(kStall);
    const auto after = signal(kBeforeStallFrames, kAfterStallFrames);
    ASSERT_TRUE(tool.write(after.data(), after.size() * sizeof(int16_t)));
    tool.closeStdin();
    ASSERT_TRUE(tool.waitForLine("[STATUS] eof", 5s)) << tool.transcript();
    command("ACTION=STOP\n");
    EXPECT_EQ(tool.wait(5s), 0) << tool.transcript();

    const auto started = tool.waitForLine("[STATUS] started", 0ms);
    const auto reanchor = tool.waitForLine("[STATUS] REANCHOR", 0ms);
    ASSERT_TRUE(started && reanchor) << tool.transcript();
    EXPECT_EQ(field(*started, "requested_unix_ms"), startMs);
    EXPECT_EQ(field(*started, "at_unix_ms"), startMs);
    EXPECT_EQ(field(*reanchor, "sample_rate"), kRate);
    const int64_t shifted = field(*reanchor, "total_shifted_frames");
    // The input came the stall's length late, less the 0.2 s it was ahead;
    // how much exactly is the host's scheduling, which the silence below
    // must match to the frame.
    EXPECT_NEAR(shifted, kRate * 0.8, kRate * 0.15);

    EXPECT_TRUE(waitForFrames(receiver, kBeforeStallFrames + shifted + kAfterStallFrames));

    EXPECT_EQ(receiver.violations(), std::vector<std::string>{});
    // In this order (the volume, then the track); POST /feedback may come between.
    std::vector<std::string> requests = receiver.requests();
    std::erase(requests, "POST /feedback");
    ASSERT_EQ(requests.size(), 10u) << ::testing::PrintToString(requests);
    const std::string url = requests[3].substr(requests[3].find(' ') + 1);
    EXPECT_EQ(requests, (std::vector<std::string>{
                            "GET /info", "POST /pair-setup", "POST /pair-setup", "SETUP " + url,
                            "RECORD " + url, "SETPEERS " + url, "SETUP " + url,
                            "SET_PARAMETER " + url, "SET_PARAMETER " + url, "TEARDOWN " + url}));
    EXPECT_DOUBLE_EQ(receiver.volumeDb().value_or(0), -15.0);
    EXPECT_NE(receiver.trackText().find("Kitchen Song"), std::string::npos);
    EXPECT_TRUE(receiver.tornDown());
    EXPECT_TRUE(receiver.eventAnswered());
    EXPECT_EQ(receiver.resentPackets(), 1);
    EXPECT_GE(receiver.syncPackets(), 2);
    EXPECT_LT(receiver.syncDeviationNs(), 1'000);

    const auto played = receiver.played();
    ASSERT_TRUE(played);
    EXPECT_EQ(played->missingPackets, 0u);
    // Heard where `started` says, within a millisecond.
    EXPECT_NEAR(played->firstFrameNs, startMs * 1'000'000, 1'000'000);
    // The signal, the silence the stall left (to the frame), the signal on,
    // and the last packet's silent rest.
    const size_t heard = (kBeforeStallFrames + shifted + kAfterStallFrames) * 2;
    ASSERT_GE(played->samples.size(), heard);
    ASSERT_LT(played->samples.size(), heard + kPacketFrames * 2);
    const auto at = played->samples.begin();
    const auto silent = [](int16_t s) { return s == 0; };
    EXPECT_TRUE(std::equal(before.begin(), before.end(), at));
    EXPECT_TRUE(std::all_of(at + before.size(), at + before.size() + shifted * 2, silent));
    EXPECT_TRUE(std::equal(after.begin(), after.end(), at + before.size() + shifted * 2));
    EXPECT_TRUE(std::all_of(at + heard, played->samples.end(), silent));
}

TEST(AirPlay2Session, AKeptPairingIsVerifiedAndKeysTheSessionThroughAPause) {
    Ap2TestReceiver receiver;
    const vt::hap::ControllerIdentity controller = vt::hap::newControllerIdentity(kDacpID);
    const vt::hap::PairingCredentials credentials{controller.seed, controller.publicKey,
                                                  receiver.pairWith(kDacpID, controller.publicKey)};
    ToolRun run(receiver, {"--auth", credentials.toHex()});
    ChildProcess& tool = *run.process;
    ASSERT_TRUE(tool.waitForLine("[STATUS] connected", 10s)) << tool.transcript();
    ASSERT_TRUE(tool.waitForLine("state=ready", 2s)) << tool.transcript();
    run.command("START_UNIX_MS=" + std::to_string(unixMs() + kStartLeadMs) + "\nACTION=START\n");
    const auto sound = signal(0, kBeforeStallFrames);
    ASSERT_TRUE(tool.write(sound.data(), sound.size() * sizeof(int16_t)));
    ASSERT_TRUE(waitForFrames(receiver, kBeforeStallFrames));
    // A pause flushes the receiver from the next packet on; what comes after
    // PLAY is new audio, timed from that point or later.
    run.command("ACTION=PAUSE\n");
    ASSERT_TRUE(tool.waitForLine("[STATUS] paused", 2s)) << tool.transcript();
    run.command("ACTION=PLAY\n");
    ASSERT_TRUE(tool.waitForLine("[STATUS] playing", 2s)) << tool.transcript();
    const auto more = signal(kBeforeStallFrames, kBeforeStallFrames);
    ASSERT_TRUE(tool.write(more.data(), more.size() * sizeof(int16_t)));
    tool.closeStdin();
    ASSERT_TRUE(tool.waitForLine("[STATUS] eof", 5s)) << tool.transcript();
    run.command("ACTION=STOP\n");
    EXPECT_EQ(tool.wait(5s), 0) << tool.transcript();

    EXPECT_EQ(receiver.violations(), std::vector<std::string>{});
    ASSERT_GE(receiver.requests().size(), 3u);
    EXPECT_EQ(receiver.requests()[1], "POST /pair-verify");
    const auto flushedFrom = receiver.flushedFromRtp();
    const auto played = receiver.played();
    ASSERT_TRUE(played && flushedFrom);
    ASSERT_GE(played->samples.size(), sound.size() + more.size());
    const auto resumed = played->samples.end() - static_cast<std::ptrdiff_t>(more.size());
    EXPECT_TRUE(std::equal(sound.begin(), sound.end(), played->samples.begin()));
    EXPECT_TRUE(std::all_of(played->samples.begin() + static_cast<std::ptrdiff_t>(sound.size()),
                            resumed, [](int16_t v) { return v == 0; }));
    EXPECT_TRUE(std::equal(more.begin(), more.end(), resumed));
    const auto resumedFrame = (resumed - played->samples.begin()) / 2;
    EXPECT_GE(resumedFrame, static_cast<int32_t>(*flushedFrom - played->firstRtp));
}

TEST(AirPlay2Session, WithoutPtpTheSessionKeepsTimeByNtp) {
    Ap2TestReceiver receiver;
    ToolRun run(receiver, {"--timing", "ntp"});
    ChildProcess& tool = *run.process;
    ASSERT_TRUE(tool.waitForLine("[STATUS] connected", 10s)) << tool.transcript();
    EXPECT_TRUE(tool.waitForLine("[STATUS] route protocol=airplay2 flow=realtime timing=ntp", 1s));
    EXPECT_TRUE(tool.waitForLine("[STATUS] clock_ready mode=ntp", 1s)) << tool.transcript();
    const int64_t startMs = unixMs() + kStartLeadMs;
    run.command("START_UNIX_MS=" + std::to_string(startMs) + "\nACTION=START\n");
    const auto sound = signal(0, kBeforeStallFrames);
    ASSERT_TRUE(tool.write(sound.data(), sound.size() * sizeof(int16_t)));
    tool.closeStdin();
    ASSERT_TRUE(tool.waitForLine("[STATUS] eof", 5s)) << tool.transcript();
    run.command("ACTION=STOP\n");
    EXPECT_EQ(tool.wait(5s), 0) << tool.transcript();

    EXPECT_TRUE(waitForFrames(receiver, kBeforeStallFrames));
    EXPECT_EQ(receiver.violations(), std::vector<std::string>{});
    // No peers to name: the clock is the sender's own.
    const auto requests = receiver.requests();
    EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                            [](const std::string& r) { return r.rfind("SETPEERS", 0) == 0; }),
              0);
    const auto played = receiver.played();
    ASSERT_TRUE(played);
    EXPECT_EQ(played->samples, sound);
    EXPECT_NEAR(played->firstFrameNs, startMs * 1'000'000, 1'000'000);
}
