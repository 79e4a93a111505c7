// The tool's status lines against the sender's table, one chunk at a time.
#include "airplay/status_table.h"

#include <gtest/gtest.h>

namespace vt::airplay {
namespace {

using Kind = AirPlayStatus::Kind;

SenderState running(const char* timing) {
    SenderState s;
    s.timing = timing;
    s.running = true;
    return s;
}

std::vector<Kind> kinds(const ChunkEffects& e) {
    std::vector<Kind> out;
    for (const auto& s : e.statuses) out.push_back(s.kind);
    return out;
}

TEST(StatusTable, ARefusalIsNotOverwrittenByTheErrorLinesThatFollowIt) {
    SenderState s = running("ntp");
    auto e = interpretChunk(
        "[STATUS] error code=auth_failed http=401 detail=\"\"\n[ERROR] authentication failed\n", s);
    EXPECT_EQ(kinds(e), std::vector<Kind>{Kind::passwordRequired});
    EXPECT_FALSE(s.running);
    EXPECT_TRUE(interpretChunk("[ERROR] connection closed\n", s).statuses.empty());

    // 403 before the auth codes, and 400 only on a connect failure.
    SenderState t = running("ptp");
    EXPECT_EQ(kinds(interpretChunk("[STATUS] error code=auth_required http=403\n", t)),
              std::vector<Kind>{Kind::forbidden});
    SenderState u = running("ptp");
    EXPECT_EQ(kinds(interpretChunk("[STATUS] error code=connect_failed http=400\n", u)),
              std::vector<Kind>{Kind::needsApproval});
    SenderState v = running("ptp");
    auto other = interpretChunk("[STATUS] error code=connect_failed http=500\n", v);
    ASSERT_EQ(kinds(other), std::vector<Kind>{Kind::failed});
    EXPECT_EQ(other.statuses[0].words, "[STATUS] error code=connect_failed http=500");
}

TEST(StatusTable, NtpWhereTheSenderAskedForPtpEndsTheChunkAsClockUnshared) {
    SenderState s = running("ptp");
    auto e = interpretChunk(
        "[STATUS] clock_ready mode=ntp state=ready\n[STATUS] connected\n[ERROR] x\n", s);
    EXPECT_EQ(kinds(e), std::vector<Kind>{Kind::clockUnshared});
    EXPECT_FALSE(e.tryStart);
    EXPECT_FALSE(s.connected);
}

TEST(StatusTable, ConnectingArmsTheDeadlineAndAStallCountsOnlyBeforeTheStart) {
    SenderState s = running("ptp");
    auto e = interpretChunk("[STATUS] route protocol=airplay2 timing=ptp\n[STATUS] connected\n", s);
    EXPECT_TRUE(e.tryStart);
    EXPECT_TRUE(e.armDeadline);
    EXPECT_EQ(s.effectiveTiming, "ptp");
    auto stall = interpretChunk("[STATUS] clock_ready mode=ptp state=stalled\n", s);
    EXPECT_EQ(kinds(stall), std::vector<Kind>{Kind::clockStalled});
    EXPECT_TRUE(stall.cancelDeadline);
    s.started = true;
    EXPECT_TRUE(
        interpretChunk("[STATUS] clock_ready mode=ptp state=stalled\n", s).statuses.empty());
    // On NTP a stall means nothing.
    SenderState n = running("ntp");
    EXPECT_TRUE(
        interpretChunk("[STATUS] clock_ready mode=ntp state=stalled\n", n).statuses.empty());
}

TEST(StatusTable, NtpLatencyIsTheToolsLeadPlusItsShifts) {
    SenderState s = running("ntp");
    interpretChunk(
        "[STATUS] route timing=ntp\n[STATUS] latency lead_ms=2210.5 device_min_frames=1\n", s);
    EXPECT_EQ(latencyToPublish(s), 2210.5);
    interpretChunk(
        "[STATUS] REANCHOR shifted_frames=441 total_shifted_frames=882 sample_rate=44100\n", s);
    EXPECT_EQ(latencyToPublish(s), 2230.5);
    // A shift that cannot be computed leaves the last one standing.
    interpretChunk("[STATUS] REANCHOR total_shifted_frames=x sample_rate=44100\n", s);
    interpretChunk("[STATUS] REANCHOR total_shifted_frames=100 sample_rate=0\n", s);
    EXPECT_DOUBLE_EQ(s.reanchorShiftMs, 20.0);
    // "started" resets the shift.
    auto started = interpretChunk("[STATUS] started requested_unix_ms=0 at_unix_ms=5\n", s);
    EXPECT_EQ(kinds(started), std::vector<Kind>{Kind::streaming});
    EXPECT_EQ(s.reanchorShiftMs, 0);
}

TEST(StatusTable, PtpLatencyIsStartLessFirstWriteNeverBelowZeroAndSmallChangesWait) {
    SenderState s = running("ptp");
    s.effectiveTiming = "ptp";
    EXPECT_FALSE(latencyToPublish(s));  // nothing written yet
    s.startUnixMs = 1000;
    s.firstWriteUnixMs = 1500;
    EXPECT_EQ(latencyToPublish(s), 0.0);
    s.firstWriteUnixMs = 650;
    EXPECT_EQ(latencyToPublish(s), 350.0);
    s.reanchorShiftMs = 0.9;
    EXPECT_FALSE(latencyToPublish(s));
    s.reanchorShiftMs = 1.8;  // 1.8 ms against the value published, not the last seen
    EXPECT_EQ(latencyToPublish(s), 351.8);
}

TEST(StatusTable, FieldsAreWholeTokensAndOverlongLinesAreCut) {
    EXPECT_EQ(statusField("[STATUS] latency lead_ms=12 lead=3", "lead"), "3");
    EXPECT_FALSE(statusField("[STATUS] latency lead_ms=", "lead"));
    SenderState s = running("ntp");
    std::string huge = "[STATUS] latency lead_ms=1" + std::string(10000, '0') + "\n";
    interpretChunk(huge, s);
    EXPECT_FALSE(s.leadMs);  // the number was cut with the line
}

}  // namespace
}  // namespace vt::airplay
