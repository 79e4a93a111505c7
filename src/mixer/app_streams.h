// Other programs' playback streams (sink inputs) as the mixer sees them, and
// the seam through which it reads and sets their volumes. The sound server's
// implementation lives in platform/pulse (PulseSinkInputs); tests script a
// fake.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vt::mixer {

// The server's volume steps: 0x10000 is full, 0 silent.
using RawVolume = uint32_t;
inline constexpr RawVolume kFullVolume = 0x10000;
// The property under which both servers keep a stream's volume.
inline constexpr const char* kRestoreKeyProperty = "module-stream-restore.id";

struct AppStream {
    uint32_t index = UINT32_MAX;
    // application.name, application.id, application.process.id,
    // application.process.binary, media.role, ...
    std::map<std::string, std::string> properties;
    std::vector<RawVolume> volume;  // one per channel
    bool corked = false;            // paused: present but not playing
    bool ours = false;              // one of our own streams
    bool operator==(const AppStream&) const = default;
};

class AppStreams {
  public:
    virtual ~AppStreams() = default;
    // Any non-real-time thread: the streams as last reported, in index order.
    virtual std::vector<AppStream> streams() = 0;
    // Sends the volume without waiting for the answer; a stream that has gone
    // meanwhile is no error. Never blocks on the server.
    virtual void setVolume(uint32_t index, const std::vector<RawVolume>& volume) = 0;
    // What the server keeps for streams of one kind (the key a stream
    // carries as module-stream-restore.id): the volume a new stream under
    // that key starts at. Sent without waiting; the stored device and mute
    // stay as they are. False when no server was there to send it to.
    virtual bool rememberVolume(const std::string& restoreKey,
                                const std::vector<RawVolume>& volume) = 0;
    // Waits until the server has dealt with every write sent so far (at
    // quit, before the connection goes).
    virtual void settle() = 0;
    // After the server went away: one quick try to reach it again (the
    // connection only; it fails at once while no server listens).
    virtual void reconnectIfLost() {}
    // Called on the server's thread after the streams changed (or the server
    // came and went); receivers hop to their own queue.
    virtual void setChangeHandler(std::function<void()> handler) = 0;
    // The server's volume law: a step value as a linear gain and back.
    virtual double toLinear(RawVolume v) const = 0;
    virtual RawVolume fromLinear(double linear) const = 0;
};

}  // namespace vt::mixer
