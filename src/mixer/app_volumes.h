// Per-app volume on the sound server's own stream volumes: an app at gain g
// plays with each of its streams at its original volume times g (in the
// server's linear terms, channel by channel, so a balance stays as it was).
//
// What makes it safe to stop at any moment:
// - The original of each stream we touch is written to the settings
//   ("pendingRestoreAppVolumes") before its first change; it is given back
//   when the app's gain returns to 1, on quit, and by the next launch when
//   this run died (restorePending).
// - Both servers keep the last volume of each kind of stream (PulseAudio's
//   module-stream-restore, WirePlumber's restore-stream through
//   pipewire-pulse) and give it to the next stream of that app; whenever a
//   stream is given back or ends while turned down, that stored volume is
//   set to the original too. A write of that kind the server could not take
//   (it was away) is noted too ("pendingAppVolumeKeeps") and sent by the next
//   launch if this run ends first.
// - A volume someone else sets while we run (a desktop's volume panel)
//   becomes the stream's new original, divided by our gain, so it is kept
//   rather than fought. In a stream's first kSettleSeconds a change is the
//   server restoring what it kept; that becomes the original as it is.
// - A gain change ramps in a few steps over kRampSeconds, so a dragged slider
//   moves the sound without clicks; the servers have no ramp of their own
//   for a client's volume.
//
// Main thread only. Writes go out without waiting for the server.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dispatch/main_queue.h"
#include "mixer/app_streams.h"
#include "settings/settings.h"

namespace vt::mixer {

// The wish for one app: its streams and the gain they should play at.
struct AppGain {
    std::vector<uint32_t> streams;
    double gain = 1.0;
    bool operator==(const AppGain&) const = default;
};
using GainTable = std::map<std::string, AppGain>;

class AppVolumes {
  public:
    static constexpr const char* settingsKey = "pendingRestoreAppVolumes";
    // Restore key to volume: what the server should keep, not yet sent.
    static constexpr const char* keepsKey = "pendingAppVolumeKeeps";
    static constexpr double kRampSeconds = 0.03;
    static constexpr int kRampSteps = 3;
    // The server's echoes of our last few writes are not someone else's
    // change (a ramp's steps come back after it ended).
    static constexpr size_t kEchoes = kRampSteps + 2;
    // A stream this young that changes was given a kept volume by the
    // server (WirePlumber does so a moment after a stream appears): that is
    // its original, and our gain goes on top of it again.
    static constexpr double kSettleSeconds = 3.0;
    // Linear difference below which an observed volume is the one we set
    // (the servers round to their own steps).
    static constexpr double kSameWithin = 2e-3;

    AppVolumes(AppStreams& streams, dispatch::MainQueue& main, settings::Settings& settings);
    ~AppVolumes();
    AppVolumes(const AppVolumes&) = delete;
    AppVolumes& operator=(const AppVolumes&) = delete;

    // What a run that died left turned down goes back to its original, for
    // every stream that is still there; the note is then cleared. What the
    // server keeps is put right for every app in the notes (sent once the
    // server answers, if it does not yet).
    // Until the server's echo arrives, the streams given back keep their
    // originals here, so a gain applied at once starts from them.
    void restorePending();

    // The whole wish: apps missing from it play at their own level.
    void apply(const GainTable& gains);
    // The streams changed: new streams of a held app get its gain, changes
    // made elsewhere become originals, gone streams are forgotten.
    void streamsChanged();
    // Every stream back to its original, now, and the note cleared; what the
    // server could not be told stays noted for the next launch.
    void restoreAll();

    // For tests and the strips: the original we keep for a stream.
    const std::vector<RawVolume>* originalOf(uint32_t stream) const;

  private:
    struct Held {
        std::string app;
        std::string restoreKey;  // what the server keeps its volume under
        std::vector<RawVolume> original;
        std::vector<RawVolume> sent;  // the last volume we wrote
        double gain = 1.0;            // what `sent` stands for
        double rampFrom = 1.0;
        double rampTo = 1.0;
        double rampStart = 0;
        bool ramping = false;
        std::vector<std::vector<RawVolume>> echoes;  // recent writes, newest last
        double firstSeen = 0;
    };

    std::vector<RawVolume> scaled(const std::vector<RawVolume>& original, double gain) const;
    bool same(const std::vector<RawVolume>& a, const std::vector<RawVolume>& b) const;
    void startRamp(uint32_t index, Held& held, double to);
    void step();
    void send(uint32_t index, Held& held, double gain);
    void persist();
    // The server keeps the last volume a stream of this kind had: make that
    // the original again, so nothing of ours outlives the stream.
    void release(const Held& held);
    // What the server should keep, for streams that ended turned down while
    // it was away (its restart ends them all): written once it is back.
    void sendUnsentKeeps();
    void rememberOrKeep(const std::string& restoreKey, const std::vector<RawVolume>& volume);
    void persistKeeps();
    // The stream starts at the volume an ended stream of its app had from us.
    bool leftSilent(const AppStream& stream) const;

    AppStreams& streams_;
    dispatch::MainQueue& main_;
    settings::Settings& settings_;
    GainTable wanted_;
    std::map<uint32_t, Held> held_;
    // Streams seen before: a stream new to us takes its gain at once (it
    // starts where it belongs), a playing one ramps.
    std::map<uint32_t, double> seenAt_;
    // Streams that ended turned down, by restore key: the server may give
    // our volume (`sent`) to the app's next stream before it has taken the
    // original back, and then `original` is that stream's own.
    struct Ended {
        std::vector<RawVolume> sent;
        std::vector<RawVolume> original;
    };
    std::map<std::string, Ended> ended_;
    std::map<std::string, std::vector<RawVolume>> unsentKeeps_;  // by restore key
    struct GivenBack {
        std::vector<RawVolume> original;
        std::vector<RawVolume> left;  // what the dead run left on it
    };
    std::map<uint32_t, GivenBack> givenBack_;  // by stream, at launch
    std::vector<RawVolume> ownVolume(
        const std::string& restoreKey,
        const std::vector<RawVolume>& seen) const;  // when each stream was first seen
    std::unique_ptr<dispatch::TimerHandle> rampTimer_;
};

}  // namespace vt::mixer
