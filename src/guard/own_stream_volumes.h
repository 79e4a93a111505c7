// Our playback streams play at full volume: the engine's gain and the
// speaker's volume are the only ones. A server may give a new stream of ours
// a volume it kept from an earlier one (WirePlumber 0.4.13 keeps a volume
// per application id and ignores the opt-out property), a moment after it
// appears; that volume is put back to full, once per stream, within
// `kHoldSeconds` of the stream first being seen. A later change is the
// user's, for as long as that stream lives.
//
// Main thread only: the model calls check() on its telemetry tick.
#pragma once

#include <cstdint>
#include <map>

#include "platform/audio_backend.h"

namespace vt::guard {

class OwnStreamVolumes {
  public:
    static constexpr double kHoldSeconds = 3.0;

    explicit OwnStreamVolumes(platform::AudioBackend& backend) : backend_(backend) {}
    void check(double now);

  private:
    struct Seen {
        double since = 0;
        bool settled = false;  // put back, or held long enough
    };
    platform::AudioBackend& backend_;
    std::map<uint32_t, Seen> seen_;  // by sink input index
};

}  // namespace vt::guard
