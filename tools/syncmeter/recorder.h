// Records several sources of one sound server from one process, and works out
// for each recording the monotonic time at which its first frame played.
//
// Every ~20 ms each stream's raw timing is fetched from the server. For a
// monitor source the stream position playing at the snapshot's timestamp is
// write_index (as time) + source latency - sink latency; the first frame's
// play time follows from it. The median over the run is kept, which rides out
// the odd snapshot taken while a block was in transit.
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
    size_t snapshots = 0;
    double startSpreadMs = 0;  // interquartile range of the per-snapshot estimates
};

struct RecordRequest {
    std::string name;
    std::string source;
};

// Records every source for `seconds`; throws std::runtime_error on failure.
std::vector<Recording> recordSources(const std::vector<RecordRequest>& requests, double seconds);

}  // namespace vt::syncmeter
