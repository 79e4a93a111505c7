// Records several sources of one sound server from one process, and works out
// for each recording the monotonic time at which its first frame played.
//
// Every ~20 ms each stream's raw timing is fetched from the server. For a
// monitor source the stream position playing at the snapshot's timestamp is
// write_index (as time) + source latency - sink latency. A line fitted
// through all of them says when each recorded frame played, riding out the
// odd snapshot taken while a block was in transit, and the sink's own drift.
#pragma once

#include <string>
#include <vector>

namespace vt::syncmeter {

struct Recording {
    std::string name;    // what the report calls it
    std::string source;  // server source name
    double rate = 0;
    std::vector<float> left;         // one channel is enough to compare
    std::vector<float> right;        // kept for the dropout check
    double firstFramePlayedSec = 0;  // CLOCK_MONOTONIC
    double secondsPerFrame = 0;      // as the sink really played them
    double clockPpm = 0;             // how fast the sink ran against the host clock
    size_t snapshots = 0;
    size_t holeFrames = 0;     // frames the server skipped on the way to us
    double startSpreadMs = 0;  // interquartile range of the snapshots around the fitted line
};

struct RecordRequest {
    std::string name;
    std::string source;
};

// Records every source for `seconds`; throws std::runtime_error on failure.
std::vector<Recording> recordSources(const std::vector<RecordRequest>& requests, double seconds);

}  // namespace vt::syncmeter
