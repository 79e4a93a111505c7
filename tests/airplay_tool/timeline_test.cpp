// What sync packets say and when frames go out: the receiver must hear frame
// F at start + F / 44100 s, which it works out from the sync packets alone;
// and the app's audio keeps its lead through stalls, with silence between.
#include <gtest/gtest.h>

#include "airplay_tool/send_plan.h"
#include "airplay_tool/slot_assembler.h"
#include "airplay_tool/stream_timeline.h"

using namespace vt::airplay_tool;

namespace {

constexpr int64_t kNs = 1'000'000'000;

// What the receiver does with a sync packet: frame F is heard at
// ntp + (F - rtp) / rate + (rtp - rtpLessLatency + 11025) / rate.
int64_t heardAtAsTheReceiverSees(const SyncFields& s, uint32_t rtpOfFrame) {
    const int64_t latency = static_cast<int64_t>(s.rtp - s.rtpLessLatency) + kFixedLatencyFrames;
    const int64_t offset = static_cast<int32_t>(rtpOfFrame - s.rtp);
    return unixNsFromNtp(s.ntp) + (offset + latency) * kNs / kRaopSampleRate;
}

TEST(StreamTimeline, EverySyncPlacesEveryFrameAtItsTime) {
    const int64_t start = int64_t{1'800'000'000} * kNs + 123'456'789;
    for (uint32_t latency : {kFixedLatencyFrames, uint32_t{66150}}) {
        StreamTimeline t(start, 0xFFFF0000u, latency);  // the RTP time wraps on the way
        for (int64_t now : {start - 2 * kNs, start, start + 7 * kNs + 1}) {
            const SyncFields s = t.syncAt(now);
            EXPECT_EQ(s.rtp - s.rtpLessLatency + kFixedLatencyFrames, latency);
            // The NTP time is "now", give or take a frame.
            EXPECT_LE(std::llabs(unixNsFromNtp(s.ntp) - now), kNs / kRaopSampleRate + 1);
            for (int64_t frame : {int64_t{0}, int64_t{352}, int64_t{44100 * 9 + 17}}) {
                EXPECT_NEAR(static_cast<double>(heardAtAsTheReceiverSees(s, t.rtpOf(frame))),
                            static_cast<double>(t.playUnixNs(frame)), 2000.0)
                    << "latency " << latency << " frame " << frame;
            }
        }
        // A frame goes out one latency ahead of being heard.
        EXPECT_EQ(t.playUnixNs(352) - t.sendNotBeforeUnixNs(352),
                  static_cast<int64_t>(latency) * kNs / kRaopSampleRate);
    }
}

TEST(StreamTimeline, NtpTimesRoundTripAndLatencyStaysInTheReceiversRange) {
    for (int64_t unix : {int64_t{0}, int64_t{1'795'568'177'557'000'123}}) {
        const NtpTime ntp = ntpFromUnixNs(unix);
        EXPECT_LE(std::llabs(unixNsFromNtp(ntp) - unix), 1);
    }
    EXPECT_EQ(ntpFromUnixNs(0) >> 32, 2'208'988'800u);  // seconds since 1900
    EXPECT_EQ(ntpFromUnixNs(kNs / 2) & 0xffffffffu, 0x80000000u);

    EXPECT_EQ(latencyFramesForLead(0), kFixedLatencyFrames);
    EXPECT_EQ(latencyFramesForLead(-kNs), kFixedLatencyFrames);
    EXPECT_EQ(latencyFramesForLead(kNs), 44100u);
    EXPECT_LT(latencyFramesForLead(3600 * kNs), 259'311u);  // the most a receiver accepts
    EXPECT_EQ(StreamTimeline(0, 0, 0).latencyFrames(), kFixedLatencyFrames);
}

// Runs the sender's side of a plan on virtual time until `until`, with input
// arriving as `arrivals` gives (each a packet's worth, put on slots as the
// streamer does); returns the slots that went out.
struct Sent {
    int64_t frame;       // the slot's
    int input;           // the input packet that begins in it; -1: none
    int64_t inputFrame;  // where that input begins
    int64_t atNs;
};
// Paused from `pause.first` to `pause.second`, input is placed and dropped, as
// the streamer does.
std::vector<Sent> runPlan(SendPlan& plan, const std::vector<int64_t>& arrivals, int64_t until,
                          std::pair<int64_t, int64_t> pause = {0, 0}) {
    std::vector<Sent> out;
    std::vector<std::pair<int64_t, std::vector<int16_t>>> queue;  // slot frame, samples
    SlotAssembler assembler;
    const SlotAssembler::Emit enqueue = [&](int64_t slot, std::span<const int16_t> samples) {
        queue.push_back({slot, {samples.begin(), samples.end()}});
    };
    size_t next = 0;
    bool wasPaused = false;
    int16_t lastHeard = 0;
    for (int64_t now = arrivals.front(); now < until; now += kNs / 1000) {
        const bool paused = now >= pause.first && now < pause.second;
        if (wasPaused && !paused) plan.restartInput();
        wasPaused = paused;
        while (next < arrivals.size() && arrivals[next] <= now) {
            // Every sample of input packet i says i + 1.
            const std::vector<int16_t> samples(2 * 352, static_cast<int16_t>(next + 1));
            if (auto f = plan.place(arrivals[next]); f && !paused)
                assembler.add(*f, samples, enqueue);
            else
                assembler.clear();
            ++next;
        }
        for (;;) {
            auto queued = queue.empty() ? std::nullopt : std::optional<int64_t>(queue[0].first);
            const SendPlan::Step step = plan.next(now, queued, paused);
            using Kind = SendPlan::Step::Kind;
            if (step.kind == Kind::wait) break;
            if (step.kind == Kind::drop) {
                queue.erase(queue.begin());
                continue;
            }
            Sent sent{plan.slotFrame(), -1, -1, now};
            int16_t before = 0;  // the sample heard just before this slot's first
            if (step.kind == Kind::send) {
                const std::vector<int16_t>& samples = queue[0].second;
                before = lastHeard;
                for (size_t j = 0; j < samples.size(); j += 2) {
                    if (samples[j] != 0 && samples[j] != before) {
                        sent.input = samples[j] - 1;
                        sent.inputFrame = plan.slotFrame() + static_cast<int64_t>(j / 2);
                        break;
                    }
                    before = samples[j];
                }
                lastHeard = samples.back();
                queue.erase(queue.begin());
            } else {
                lastHeard = 0;
            }
            out.push_back(sent);
            plan.sent();
        }
    }
    return out;
}

TEST(SendPlan, AudioKeepsItsLeadThroughStallsAndSilenceFillsTheGaps) {
    const int64_t t0 = int64_t{1'800'000'000} * kNs;
    const int64_t lead = kNs / 2;
    const int64_t packetNs = 352 * kNs / kRaopSampleRate;
    const double kOneFrameNs = double(kNs) / kRaopSampleRate;
    auto plan = [&] {
        return SendPlan(StreamTimeline(t0 + lead, 1000, latencyFramesForLead(lead)), lead);
    };
    auto heardLead = [&](const SendPlan& p, const Sent& s, const std::vector<int64_t>& in) {
        return p.timeline().playUnixNs(s.inputFrame) - in[s.input];
    };

    // Steady input: every packet out once, in order, heard its lead after it came.
    std::vector<int64_t> steady;
    for (int i = 0; i < 100; ++i) steady.push_back(t0 + i * packetNs);
    SendPlan a = plan();
    auto sent = runPlan(a, steady, t0 + 100 * packetNs);
    ASSERT_GE(sent.size(), 90u);
    for (size_t i = 0; i < sent.size(); ++i) {
        ASSERT_EQ(sent[i].input, int(i));
        EXPECT_NEAR(double(heardLead(a, sent[i], steady)), double(lead), 1e6);
        EXPECT_GE(sent[i].atNs, a.timeline().sendNotBeforeUnixNs(sent[i].frame));
    }

    // A 0.45 s stall after packet 50, then a burst that catches up, as the
    // app's pump does: the slots that came due go out silent just before
    // they are heard, their audio is dropped, and the rest keeps its place.
    std::vector<int64_t> caughtUp = steady;
    const int64_t resumed = caughtUp[50] + 450 * kNs / 1000;
    for (int i = 50; i < 100; ++i) caughtUp[i] = std::max(caughtUp[i], resumed);
    SendPlan b = plan();
    sent = runPlan(b, caughtUp, t0 + 120 * packetNs);
    int silent = 0;
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].frame, int64_t(i) * 352);  // every slot, once, in order
        if (sent[i].input < 0) {
            ++silent;
            EXPECT_GE(sent[i].atNs,
                      b.timeline().playUnixNs(sent[i].frame) - SendPlan::kPadMarginNs);
        } else {
            EXPECT_EQ(sent[i].input, int(i));  // audio on its own slot, never shifted
        }
    }
    EXPECT_GT(silent, 0);
    EXPECT_LT(silent, 10);

    // A 2 s stall: the app starts afresh, and what it writes then is heard
    // its lead later to the frame, not straight after the audio before the
    // stall, nor on the slot boundary after its time.
    std::vector<int64_t> stalled = steady;
    for (int i = 50; i < 100; ++i) stalled[i] += 2 * kNs;
    SendPlan c = plan();
    sent = runPlan(c, stalled, stalled.back() + 2 * lead);
    bool after = false;
    for (const Sent& s : sent) {
        if (s.input < 50) continue;
        after = true;
        EXPECT_NEAR(double(heardLead(c, s, stalled)), double(lead), kOneFrameNs)
            << "input " << s.input;
    }
    EXPECT_TRUE(after);
    for (size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i].frame, sent[i - 1].frame + 352);

    // A pause: every slot still goes out, silent, and after it the audio of an
    // app that wrote on keeps its place, while one that stopped writing for
    // less than a stall is heard its lead after it starts again, none dropped.
    const std::pair<int64_t, int64_t> pause = {steady[30], steady[30] + kNs};
    for (const int64_t gap : {int64_t{0}, 300 * kNs / 1000}) {
        SCOPED_TRACE(gap);
        std::vector<int64_t> arrivals;
        for (int i = 0; i < 400; ++i) {
            const int64_t at = t0 + i * packetNs;
            if (at < pause.second - gap || at >= pause.second) arrivals.push_back(at);
        }
        SendPlan d = plan();
        sent = runPlan(d, arrivals, arrivals.back() + 2 * lead, pause);
        int resumedFrom = -1;
        for (size_t i = 0; i < sent.size(); ++i) {
            EXPECT_EQ(sent[i].frame, int64_t(i) * 352);
            if (sent[i].atNs >= pause.first && sent[i].atNs < pause.second) {
                EXPECT_EQ(sent[i].input, -1);
            }
            if (sent[i].input < 0 || arrivals[sent[i].input] < pause.second) continue;
            if (resumedFrom < 0) resumedFrom = sent[i].input;
            EXPECT_NEAR(double(heardLead(d, sent[i], arrivals)), double(lead),
                        gap == 0 ? 1e6 : kOneFrameNs);
        }
        ASSERT_GE(resumedFrom, 0);
        EXPECT_EQ(arrivals[resumedFrom],
                  *std::lower_bound(arrivals.begin(), arrivals.end(), pause.second));
    }
}

}  // namespace

namespace {

TEST(SlotAssembler, InputOffASlotBoundaryStartsWithSilenceAndAJumpEndsThePacketUnderWay) {
    SlotAssembler assembler;
    std::vector<std::pair<int64_t, std::vector<int16_t>>> out;
    const SlotAssembler::Emit emit = [&](int64_t slot, std::span<const int16_t> samples) {
        out.push_back({slot, {samples.begin(), samples.end()}});
    };
    const std::vector<int16_t> ones(2 * 352, 1), twos(2 * 400, 2);
    assembler.add(352 + 100, ones, emit);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].first, 352);
    EXPECT_EQ(out[0].second[2 * 99], 0);
    EXPECT_EQ(out[0].second[2 * 100], 1);
    EXPECT_EQ(assembler.framesWanted(), 252u);
    // Not where the held input ends: the held packet goes out, its rest silent.
    assembler.add(5 * 352 + 10, twos, emit);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1].first, 704);
    EXPECT_EQ(out[1].second[2 * 99], 1);
    EXPECT_EQ(out[1].second[2 * 100], 0);
    EXPECT_EQ(out[2].first, 5 * 352);
    EXPECT_EQ(out[2].second[2 * 9], 0);
    EXPECT_EQ(out[2].second[2 * 10], 2);
    assembler.finish(emit);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[3].first, 6 * 352);
    EXPECT_EQ(out[3].second[2 * 57], 2);  // 400 - 342 frames carried over
    EXPECT_EQ(out[3].second[2 * 58], 0);
}

}  // namespace
