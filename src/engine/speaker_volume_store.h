// Where the engine keeps a speaker's own volume while a row's volume stands
// in for it, so that it is given back exactly: after a stop, after the sound
// server came back, and at the launch after a crash.
#pragma once

#include <string>

namespace vt::engine {

class SpeakerVolumeStore {
  public:
    virtual ~SpeakerVolumeStore() = default;
    // The volume to give `sink` back when we let go of it. The first call for
    // a sink notes `current`; later calls, until givenBack, return what was
    // noted then (a server that restarted meanwhile may show our own volume).
    virtual double keep(const std::string& sink, double current) = 0;
    // The sink has its own volume again.
    virtual void givenBack(const std::string& sink) = 0;
};

}  // namespace vt::engine
