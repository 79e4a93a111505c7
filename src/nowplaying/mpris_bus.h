// MPRIS 2 players on the D-Bus session bus, through sd-bus on a thread of its
// own: it finds the players (ListNames, then NameOwnerChanged), reads each
// one's Player properties and DesktopEntry, follows PropertiesChanged and
// Seeked, and sends the calls. Every call to a player is asynchronous, so a
// player that hangs holds up nothing. With no session bus it stays silent.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "nowplaying/media_player_bus.h"

namespace vt::nowplaying {

class MprisBus final : public MediaPlayerBus {
  public:
    MprisBus() = default;
    ~MprisBus() override;
    MprisBus(const MprisBus&) = delete;
    MprisBus& operator=(const MprisBus&) = delete;

    void start(Listener listener) override;
    void stop() override;
    void call(const std::string& busName, const PlayerCall& call) override;

    static constexpr const char* namePrefix = "org.mpris.MediaPlayer2.";
    // More players than this at once are not followed.
    static constexpr size_t maxPlayers = 32;

  private:
    class Session;
    void wake();

    std::thread thread_;
    int wakeFd_ = -1;
    std::mutex lock_;  // guards pending_
    std::vector<std::pair<std::string, PlayerCall>> pending_;
    std::atomic<bool> stopping_{false};
};

}  // namespace vt::nowplaying
