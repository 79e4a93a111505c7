#include "sendspin/stream.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "sendspin/protocol.h"

namespace vt::sendspin {
namespace {

namespace P = SendspinProtocol;
using namespace std::chrono_literals;

// Time moves only when the pump sleeps; one chosen sleep can overrun, as a
// descheduled thread's would.
class VirtualClock : public PumpClock {
  public:
    double nowSeconds() override { return static_cast<double>(nanos_.load()) * 1e-9; }
    int64_t nowUs() override { return nanos_.load() / 1000; }
    void sleepFor(double seconds) override {
        int64_t extra = 0;
        if (++sleeps_ == stallAtSleep_) extra = stallNanos_;
        nanos_ += static_cast<int64_t>(std::llround(seconds * 1e9)) + extra;
    }
    void stallOnce(int atSleep, double seconds) {
        stallAtSleep_ = atSleep;
        stallNanos_ = static_cast<int64_t>(seconds * 1e9);
    }

  private:
    std::atomic<int64_t> nanos_{1'000'000'000'000};
    std::atomic<int> sleeps_{0};
    std::atomic<int> stallAtSleep_{-1};
    std::atomic<int64_t> stallNanos_{0};
};

struct Sent {
    int64_t to;
    int64_t playAtUs;  // for audio
    int64_t sentUs;    // virtual time it left
    std::string text;  // for text
};

class RecordingTransport : public net::SendspinTransport {
  public:
    explicit RecordingTransport(PumpClock& clock) : clock_(clock) {}
    void sendText(std::string text, int64_t to) override {
        std::lock_guard guard(lock_);
        texts_.push_back({to, 0, clock_.nowUs(), std::move(text)});
    }
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override {
        sendText(building(), to);
    }
    void sendBinary(std::string data, int64_t to) override {
        const auto chunk = P::parseAudioChunk(data);
        ASSERT_TRUE(chunk);
        ASSERT_EQ(chunk->second.size(), 1920u);
        std::lock_guard guard(lock_);
        audio_.push_back({to, chunk->first, clock_.nowUs(), {}});
        changed_.notify_all();
    }
    std::vector<Sent> waitForAudio(size_t count) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, 60s, [&] { return audio_.size() >= count; });
        return audio_;
    }
    // Everything up to and including `more` frames after the first one sent to `to`.
    std::vector<Sent> waitForFramesTo(int64_t to, size_t more) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, 60s, [&] {
            for (size_t i = 0; i < audio_.size(); ++i) {
                if (audio_[i].to == to) return audio_.size() >= i + more;
            }
            return false;
        });
        return audio_;
    }
    std::vector<Sent> texts() {
        std::lock_guard guard(lock_);
        return texts_;
    }

  private:
    PumpClock& clock_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<Sent> audio_;
    std::vector<Sent> texts_;
};

void silence(float* into, size_t frames) {
    std::fill(into, into + 2 * frames, 0.0f);
}

TEST(SendspinStream, StampsStayExactOverTenVirtualMinutes) {
    auto clock = std::make_shared<VirtualClock>();
    RecordingTransport transport(*clock);
    SendspinStream stream(transport, 500.0, "TestPump", silence, clock);
    const int64_t startUs = clock->nowUs();
    stream.begin(3);
    const size_t frames = 60'000;  // ten minutes of 10 ms frames
    const auto audio = transport.waitForAudio(frames);
    stream.stopPump();
    ASSERT_GE(audio.size(), frames);
    EXPECT_EQ(audio[0].playAtUs, startUs + 500'000);
    for (size_t i = 1; i < frames; ++i) {
        ASSERT_EQ(audio[i].playAtUs - audio[i - 1].playAtUs, 10'000) << i;
        ASSERT_EQ(audio[i].to, 3);
    }
    const auto texts = transport.texts();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].text, P::streamStart(48000, 2, 16, startUs));
}

// `frames` frames from a pump whose 50th sleep overruns by `stall` seconds.
std::vector<Sent> framesAroundAStall(double stall, size_t frames) {
    auto clock = std::make_shared<VirtualClock>();
    clock->stallOnce(50, stall);
    RecordingTransport transport(*clock);
    SendspinStream stream(transport, 500.0, "TestPump", silence, clock);
    stream.begin(1);
    auto audio = transport.waitForAudio(frames);
    stream.stopPump();
    return audio;
}

TEST(SendspinStream, RestartsItsTimelineAfterALongStallWithoutABurst) {
    const auto audio = framesAroundAStall(0.6, 100);
    // The stall is seen at the end of the round that woke late (frame 50); the
    // frame after it is stamped from its own time, not from the old line.
    for (size_t i = 1; i <= 50; ++i) ASSERT_EQ(audio[i].playAtUs - audio[i - 1].playAtUs, 10'000);
    EXPECT_EQ(audio[51].playAtUs, audio[51].sentUs + 500'000);
    EXPECT_GT(audio[51].playAtUs - audio[50].playAtUs, 590'000);
    for (size_t i = 52; i < 100; ++i) {
        ASSERT_EQ(audio[i].playAtUs - audio[i - 1].playAtUs, 10'000);
        ASSERT_GE(audio[i].sentUs - audio[i - 1].sentUs, 9'000);  // paced, not bunched
    }
}

TEST(SendspinStream, CatchesUpAfterAShortStallWithStampsContinuing) {
    const auto audio = framesAroundAStall(0.4, 150);
    size_t backToBack = 0;
    for (size_t i = 1; i < 150; ++i) {
        ASSERT_EQ(audio[i].playAtUs - audio[i - 1].playAtUs, 10'000) << i;
        if (audio[i].sentUs == audio[i - 1].sentUs) ++backToBack;
    }
    EXPECT_GE(backToBack, 35u);
}

TEST(SendspinStream, ASecondBeginRestartsTheTimelineOnTheNewConnection) {
    auto clock = std::make_shared<VirtualClock>();
    RecordingTransport transport(*clock);
    std::atomic<int> rendered{0};
    SendspinStream stream(
        transport, 100.0, "TestPump",
        [&](float* into, size_t frames) {
            ++rendered;
            silence(into, frames);
        },
        clock);
    stream.begin(1);
    transport.waitForAudio(10);
    stream.begin(2);
    const auto audio = transport.waitForFramesTo(2, 30);
    stream.stopPump();
    const auto texts = transport.texts();
    ASSERT_EQ(texts.size(), 2u);
    size_t firstOfTwo = 0;
    while (firstOfTwo < audio.size() && audio[firstOfTwo].to == 1) ++firstOfTwo;
    ASSERT_LT(firstOfTwo, audio.size());
    EXPECT_EQ(audio[firstOfTwo].playAtUs, audio[firstOfTwo].sentUs + 100'000);
    for (size_t i = firstOfTwo; i < audio.size(); ++i) ASSERT_EQ(audio[i].to, 2);
    EXPECT_GE(rendered.load(), 30);
}

TEST(SendspinStream, SendsMetadataWithCachedArtwork) {
    auto clock = std::make_shared<VirtualClock>();
    RecordingTransport transport(*clock);
    SendspinStream stream(transport, 500.0, "TestPump", silence, clock);
    stream.sendMetadata(4);
    int encodes = 0;
    stream.setArtworkEncoder([&](const std::string& path) -> std::optional<std::string> {
        ++encodes;
        if (path == "/bad") return std::nullopt;
        return "data:image/jpeg;base64,AA==";
    });
    stream.setMetadata(TrackInfo{"Song", "Band", "Record", "/art.png"});
    stream.sendMetadata(4);
    stream.sendMetadata(4);
    EXPECT_EQ(encodes, 1);
    EXPECT_EQ(stream.artworkDataURL("/bad"), std::nullopt);
    EXPECT_EQ(stream.artworkDataURL("/bad"), std::nullopt);
    EXPECT_EQ(encodes, 2);
    const auto texts = transport.texts();
    ASSERT_EQ(texts.size(), 3u);
    const int64_t at = clock->nowUs();
    EXPECT_EQ(texts[0].text, P::serverState("Vellatone", "", "", std::nullopt, at));
    EXPECT_EQ(texts[1].text, P::serverState("Song", "Band", "Record",
                                            std::string("data:image/jpeg;base64,AA=="), at));
}

TEST(SendspinStream, AnswersClockRequestsWithTheExactIntegerAndIgnoresOtherText) {
    auto clock = std::make_shared<VirtualClock>();
    RecordingTransport transport(*clock);
    EXPECT_TRUE(
        SendspinStream::answerClock(P::clientTime(9'007'199'254'740'993), 5, 1234, transport));
    EXPECT_FALSE(SendspinStream::answerClock(P::clientHello("a", "b"), 5, 1234, transport));
    EXPECT_FALSE(SendspinStream::answerClock("junk", 5, 1234, transport));
    const auto texts = transport.texts();
    ASSERT_EQ(texts.size(), 1u);
    const auto reply = P::parseServer(texts[0].text);
    ASSERT_TRUE(reply && std::holds_alternative<P::ServerTime>(*reply));
    const auto& time = std::get<P::ServerTime>(*reply);
    EXPECT_EQ(time.clientTransmitted, 9'007'199'254'740'993);
    EXPECT_EQ(time.serverReceived, 1234);
    EXPECT_GE(time.serverTransmitted, 1234);
}

}  // namespace
}  // namespace vt::sendspin
