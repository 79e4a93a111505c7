// What the virtual room's microphone hears of each speaker: a list of paths,
// each a delay after the sound was played into the speaker's sink and a gain.
// The first path is the direct sound; later ones are reflections, which may
// be louder than it.
//
//   kitchen=95,98.5@1.6    direct at 95 ms, a reflection 3.5 ms later at 1.6 times
//   den=130@0.8            direct only, at 0.8
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vt::room {

struct Path {
    size_t speaker = 0;  // index into the room's speakers
    double delaySec = 0;
    float gain = 1.0f;
};

// The paths of one or more words "NAME=MS[@GAIN][,MS[@GAIN]]...", separated
// by spaces, for speakers among `speakers`; nothing when a word does not
// parse, names another speaker, or a delay is outside 0..2000 ms or a gain
// outside 0..10.
std::optional<std::vector<Path>> parsePaths(const std::string& words,
                                            const std::vector<std::string>& speakers,
                                            std::string& error);

}  // namespace vt::room
