// Takes the system's default sink for the capture while the program runs,
// and gives it back. Other programs' streams go with the default sink both
// ways; ours never move.
//
// The sink to give back is also kept in the settings ("pendingRestoreUID")
// for exactly as long as it has not been given back, so that a run that dies
// holding the output can be repaired at the next launch (recoverAfterCrash)
// or by the guard (handBackIfStranded).
//
// Main thread only.
#pragma once

#include <optional>
#include <string>

#include "guard/stream_moves.h"
#include "platform/audio_backend.h"
#include "settings/settings.h"

namespace vt::guard {

class OutputRestorer {
  public:
    OutputRestorer(platform::AudioBackend& backend, settings::Settings& settings);
    OutputRestorer(const OutputRestorer&) = delete;
    OutputRestorer& operator=(const OutputRestorer&) = delete;

    // Makes the capture sink if it is not there, notes the present default
    // sink (repairing a default left on the capture sink by an earlier run),
    // copies its volume to the capture sink, makes the capture sink the
    // default and moves other programs' streams onto it. Throws
    // engine::EngineError (captureSinkMissing) when there is no capture sink
    // and none can be made.
    void switchToCaptureSink();
    // The same in two halves, for a caller that starts recording the capture
    // sink's monitor in between: on PulseAudio the recording brings what
    // keeps a null sink's lead short (platform/pulse/sink_lead.h), and that
    // works only while no other program plays into the sink yet. It also
    // loses nothing played between the move and the recording.
    // prepareCaptureSink does everything but the last two steps, takeOutput
    // those (it makes the capture sink again if it went in between).
    void prepareCaptureSink();
    void takeOutput();
    // Gives the noted sink back with the capture sink's volume, and the
    // streams with it. If that sink has gone, "pendingRestoreUID" stays and
    // the guard finds another later.
    void restore();
    // When the default sink is left on the capture sink, gives it (and the
    // streams on it) to the pending sink or else the first real output;
    // returns the shown name of the sink given back.
    std::optional<std::string> handBackIfStranded();

    // The server went away while we held its output: forgets what died with
    // it, keeps what is owed. switchToCaptureSink takes it again when it is back.
    void serverLost();

    // Called on every telemetry tick while running: notes the capture
    // sink's volume, the system volume, so that a capture sink made again
    // after the server restarted starts at it: the speaker it was copied
    // from may not be back yet.
    void noteSystemVolume();

    // The default sink is the capture sink.
    bool defaultIsCapture();
    bool captureExists();

    const std::optional<std::string>& savedDefaultUID() const { return savedDefaultUID_; }
    const MovedStreams& movedStreams() const { return moved_; }

  private:
    platform::SinkInfo ensureCaptureSink();
    void dropCaptureSinkWeMade();

    platform::AudioBackend& backend_;
    settings::Settings& settings_;
    // There is one default sink on this platform: it is the default and the
    // system output at once.
    std::optional<std::string> savedDefaultUID_;
    MovedStreams moved_;
    // The module of a capture sink this object loaded, unloaded once the
    // default sink is safely elsewhere.
    std::optional<uint32_t> madeModule_;
    std::optional<double> systemVolume_;  // the capture sink's, at the last tick
};

}  // namespace vt::guard
