// vellatone-syncmeter: records several monitor sources of a sound server at
// once and reports how well they play the same sound in time.
//
//   vellatone-syncmeter [--seconds N] [--windows K] [--limit-ms L]
//       [--expect A-B=MS]... [--latency A->B]... [--arrival A->B]... NAME=SOURCE...
//   vellatone-syncmeter --raw FILE [--rate R] [--channels C] [--skip S] [...] NAME=PORT...
//
// With --raw nothing is recorded: FILE holds one capture of C interleaved
// 32-bit float channels (as many as NAMEs by default) at R Hz (48000 by
// default), channel k being the k-th NAME (on PipeWire, a pw-record node
// linked to each monitor port), of which the first S seconds are left out.
//
// For --expect, the error of B's offset against A (B later is positive) from
// MS is measured at K points along the run. --latency prints the median offset
// of B against A. --arrival prints when B first hears A's sound, by the
// earliest path that carries at least 30 % of the strongest one's sound (a
// microphone hears a speaker directly and then, maybe louder, off the walls):
// with a different noise in each speaker, each speaker's delay to the
// microphone, measured rather than taken from anything's settings. Every recording is checked for
// runs of digital silence longer than 1 ms inside the sound, and for sound in at least half of it.
// With --capture NAME, that recording is what the others play from: a gap
// at another is judged against the capture's gaps around it and fails only
// when longer than they were by over --gap-slack-ms (5 by default); the
// capture's own gaps are the player's or the machine's and only printed.
// With --limit-ms the exit status is 1 when an error exceeds L or a recording
// fails either check.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "analysis.h"
#include "raw_recording.h"
#include "recorder.h"

namespace {

using vt::syncmeter::Recording;

// How far from a speaker's gap a capture gap may lie and still be its cause:
// the speakers play the capture well under this later, and a stall of the
// whole machine silences both at the same moment.
constexpr double kGapNearSec = 0.5;
// A speaker's sound reaches the microphone within this long.
constexpr double kArrivalMaxLagSec = 0.5;
// A path carrying this share of the strongest one's correlation is an arrival.
constexpr double kArrivalFraction = 0.3;

struct Pair {
    std::string a, b;
    double expectedMs = 0;
};

[[noreturn]] void usage() {
    std::fprintf(stderr,
                 "usage: vellatone-syncmeter [--seconds N] [--windows K] [--limit-ms L]\n"
                 "       [--raw FILE [--rate R] [--channels C] [--skip S]]\n"
                 "       [--capture NAME [--gap-slack-ms MS]]\n"
                 "       [--expect A-B=MS]... [--latency A->B]... [--arrival A->B]...\n"
                 "       NAME=SOURCE...\n");
    std::exit(2);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = 60;
    int windows = 12;
    double limitMs = -1;
    std::string rawPath;
    double rawRate = 48000;
    double rawSkip = 0;
    int rawChannels = 0;
    std::string captureName;
    double gapSlackMs = 5.0;
    std::vector<Pair> expects, latencies, arrivals;
    std::vector<vt::syncmeter::RecordRequest> requests;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) usage();
            return argv[++i];
        };
        if (arg == "--raw") {
            rawPath = next();
        } else if (arg == "--rate") {
            rawRate = std::atof(next().c_str());
        } else if (arg == "--channels") {
            rawChannels = std::atoi(next().c_str());
        } else if (arg == "--skip") {
            rawSkip = std::atof(next().c_str());
        } else if (arg == "--capture") {
            captureName = next();
        } else if (arg == "--gap-slack-ms") {
            gapSlackMs = std::atof(next().c_str());
        } else if (arg == "--seconds") {
            seconds = std::atof(next().c_str());
        } else if (arg == "--windows") {
            windows = std::atoi(next().c_str());
        } else if (arg == "--limit-ms") {
            limitMs = std::atof(next().c_str());
        } else if (arg == "--expect") {
            std::string v = next();
            size_t dash = v.find('-'), eq = v.find('=');
            if (dash == std::string::npos || eq == std::string::npos || eq < dash) usage();
            expects.push_back({v.substr(0, dash), v.substr(dash + 1, eq - dash - 1),
                               std::atof(v.substr(eq + 1).c_str())});
        } else if (arg == "--latency") {
            std::string v = next();
            size_t arrow = v.find("->");
            if (arrow == std::string::npos) usage();
            latencies.push_back({v.substr(0, arrow), v.substr(arrow + 2), 0});
        } else if (arg == "--arrival") {
            std::string v = next();
            size_t arrow = v.find("->");
            if (arrow == std::string::npos) usage();
            arrivals.push_back({v.substr(0, arrow), v.substr(arrow + 2), 0});
        } else if (arg.find('=') != std::string::npos && arg[0] != '-') {
            size_t eq = arg.find('=');
            requests.push_back({arg.substr(0, eq), arg.substr(eq + 1)});
        } else {
            usage();
        }
    }
    if (requests.empty() || !(seconds > 0) || windows < 1) usage();

    std::vector<Recording> recs;
    try {
        recs = rawPath.empty()
                   ? vt::syncmeter::recordSources(requests, seconds)
                   : vt::syncmeter::readRawRecording(
                         rawPath, rawRate,
                         rawChannels > 0 ? static_cast<size_t>(rawChannels) : requests.size(),
                         requests, rawSkip);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vellatone-syncmeter: %s\n", e.what());
        return 2;
    }
    std::map<std::string, const Recording*> byName;
    for (const auto& r : recs) {
        byName[r.name] = &r;
        if (!rawPath.empty()) {
            std::fprintf(stderr,
                         "recorded %s: %zu frames at %.0f Hz in one capture, %zu unreadable\n",
                         r.name.c_str(), r.left.size(), r.rate, r.holeFrames);
            continue;
        }
        std::fprintf(stderr,
                     "recorded %s: %.0f Hz running %+.1f ppm against the host clock, %zu frames, "
                     "%zu timing snapshots within %.3f ms, %zu frames lost on the way\n",
                     r.name.c_str(), r.rate, r.clockPpm, r.left.size(), r.snapshots,
                     r.startSpreadMs, r.holeFrames);
    }
    auto track = [&](const std::string& name) {
        auto it = byName.find(name);
        if (it == byName.end()) {
            std::fprintf(stderr, "vellatone-syncmeter: nothing recorded as %s\n", name.c_str());
            std::exit(2);
        }
        return vt::syncmeter::Track{&it->second->left, it->second->rate,
                                    it->second->firstFramePlayedSec, it->second->secondsPerFrame};
    };

    bool ok = true;
    for (const auto& p : expects) {
        auto points = vt::syncmeter::measureOffsets(track(p.a), track(p.b), windows, 0.25);
        if (points.empty()) {
            std::printf("alignment %s-%s: no common sound found\n", p.a.c_str(), p.b.c_str());
            ok = false;
            continue;
        }
        std::vector<double> errors;
        double worst = 0;
        for (const auto& pt : points) {
            double err = pt.offsetMs - p.expectedMs;
            errors.push_back(err);
            if (std::fabs(err) > std::fabs(worst)) worst = err;
            std::fprintf(stderr, "  %s-%s at %6.1f s: offset %9.4f ms, error %+.4f ms\n",
                         p.a.c_str(), p.b.c_str(), pt.atSec, pt.offsetMs, err);
        }
        std::printf("alignment %s-%s: median error %.3f ms, max error %.3f ms\n", p.a.c_str(),
                    p.b.c_str(), median(errors), worst);
        if (limitMs >= 0 && std::fabs(worst) > limitMs) ok = false;
    }
    for (const auto& p : latencies) {
        auto points = vt::syncmeter::measureOffsets(track(p.a), track(p.b), windows, 0.25);
        if (points.empty()) {
            std::printf("latency %s->%s: no common sound found\n", p.a.c_str(), p.b.c_str());
            ok = false;
            continue;
        }
        std::vector<double> offsets;
        for (const auto& pt : points) offsets.push_back(pt.offsetMs);
        std::printf("latency %s->%s: %.3f ms\n", p.a.c_str(), p.b.c_str(), median(offsets));
    }
    for (const auto& p : arrivals) {
        auto arrival = vt::syncmeter::firstArrival(track(p.a), track(p.b), kArrivalMaxLagSec,
                                                   kArrivalFraction);
        if (!arrival) {
            std::printf("arrival %s->%s: no common sound found\n", p.a.c_str(), p.b.c_str());
            ok = false;
            continue;
        }
        std::printf("arrival %s->%s: %.3f ms (strongest at %.3f ms, %.0f times the median)\n",
                    p.a.c_str(), p.b.c_str(), arrival->firstMs, arrival->strongestMs,
                    arrival->strength);
    }
    // Gaps on the host time line, so that a speaker's can be set against the
    // capture's.
    auto gapsOf = [](const Recording& r) {
        auto d = vt::syncmeter::findDropouts(r.left, r.right, r.rate, 1.0);
        const double period =
            vt::syncmeter::periodOf({&r.left, r.rate, r.firstFramePlayedSec, r.secondsPerFrame});
        for (auto& gap : d.list) gap.atSec = r.firstFramePlayedSec + gap.atSec * r.rate * period;
        return d;
    };
    std::vector<vt::syncmeter::Dropout> captureGaps;
    if (!captureName.empty()) {
        auto it = byName.find(captureName);
        if (it == byName.end()) {
            std::fprintf(stderr, "vellatone-syncmeter: nothing recorded as %s\n",
                         captureName.c_str());
            return 2;
        }
        auto d = gapsOf(*it->second);
        captureGaps = d.list;
        if (d.runs > 0) {
            std::printf(
                "dropouts %s (the capture): %zu runs of silence over 1 ms, longest %.1f ms\n",
                captureName.c_str(), d.runs, d.longestMs);
        }
    }
    bool clean = true;
    for (const auto& r : recs) {
        size_t sounding = 0;
        for (size_t i = 0; i < r.left.size(); ++i) {
            if (r.left[i] != 0.0f || r.right[i] != 0.0f) ++sounding;
        }
        double share = r.left.empty() ? 0.0 : static_cast<double>(sounding) / r.left.size();
        if (share < 0.5) {
            clean = false;
            std::printf("silence %s: sound in only %.0f%% of the recording\n", r.name.c_str(),
                        share * 100.0);
        }
        if (r.name == captureName) continue;
        auto d = gapsOf(r);
        if (d.runs == 0) continue;
        if (captureName.empty()) {
            clean = false;
            std::printf("dropouts %s: %zu runs of silence over 1 ms, longest %.1f ms\n",
                        r.name.c_str(), d.runs, d.longestMs);
            for (const auto& gap : d.list)
                std::fprintf(stderr, "  gap %s at %.3f s: %.1f ms\n", r.name.c_str(), gap.atSec,
                             gap.ms);
            continue;
        }
        auto verdicts = vt::syncmeter::judgeGaps(d.list, captureGaps, kGapNearSec, gapSlackMs);
        size_t excessive = 0;
        double worstCaptureMs = 0, worstMs = 0;
        for (const auto& v : verdicts) {
            if (v.excessive) ++excessive;
            if (v.gap.ms > worstMs) worstMs = v.gap.ms, worstCaptureMs = v.captureMs;
            std::fprintf(stderr, "  gap %s at %.3f s: %.1f ms, the capture's near it %.1f ms%s\n",
                         r.name.c_str(), v.gap.atSec, v.gap.ms, v.captureMs,
                         v.excessive ? " (too long)" : "");
        }
        std::printf(
            "dropouts %s: %zu runs of silence over 1 ms, longest %.1f ms against the "
            "capture's %.1f ms there; %zu longer than the capture's plus %.0f ms\n",
            r.name.c_str(), d.runs, worstMs, worstCaptureMs, excessive, gapSlackMs);
        if (excessive > 0) clean = false;
    }
    if (clean) {
        std::printf(captureName.empty()
                        ? "dropouts: none (no run of zeros over 1 ms on any recording)\n"
                        : "dropouts: none beyond the capture's own\n");
    }
    if (limitMs >= 0 && !clean) ok = false;
    return ok ? 0 : 1;
}
