// A scripted bus for tests: reports are handed to the listener at once, on the
// test's thread, and calls are kept for the test to read.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "nowplaying/media_player_bus.h"

namespace vt::nowplaying {

class FakeMediaPlayerBus final : public MediaPlayerBus {
  public:
    void start(Listener listener) override { listener_ = std::move(listener); }
    void stop() override { listener_ = {}; }
    void call(const std::string& busName, const PlayerCall& call) override {
        calls.emplace_back(busName, call);
    }

    void report(PlayerReport r) {
        if (listener_.report) listener_.report(std::move(r));
    }
    void gone(const std::string& busName) {
        if (listener_.gone) listener_.gone(busName);
    }
    bool started() const { return static_cast<bool>(listener_.report); }

    std::vector<std::pair<std::string, PlayerCall>> calls;

  private:
    Listener listener_;
};

}  // namespace vt::nowplaying
