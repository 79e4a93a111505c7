// Test sounds on a playback stream into the capture sink. Sounds wait in a
// ring of slots: the main thread fills a slot and hands it over, the
// stream's thread plays it at the first place the stream has free and hands
// it back with the host times its first and last samples go into the sink,
// and a timer on the main queue calls the completion once the last has.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "calibration/pulse/open_off_main.h"
#include "calibration/tone_player.h"
#include "dispatch/main_queue.h"
#include "platform/audio_backend.h"

namespace vt::platform::pulse {
class PulseLoop;
}

namespace vt::calibration {

class PulseTonePlayer final : public TonePlayer {
  public:
    PulseTonePlayer(dispatch::MainQueue& main, std::shared_ptr<platform::pulse::PulseLoop> loop,
                    double rate);
    ~PulseTonePlayer() override;
    bool open(const std::string& sinkName, std::string& error);

    double sampleRate() const override { return rate_; }
    void play(std::vector<float> samples, float gain,
              std::function<void(PlayedSound)> completion) override;
    void stop() override;

  private:
    enum SlotState : int { freeSlot, queued, played };
    struct Slot {
        std::vector<float> samples;
        std::function<void(PlayedSound)> completion;
        std::atomic<int> state{freeSlot};
        double startHostSec = 0;  // written by the stream's thread before `played`
        double endHostSec = 0;
        bool whole = true;
    };
    static constexpr size_t kSlots = 16;
    // How often the main queue looks for sounds that have been played.
    static constexpr double kPollSec = 0.01;

    static bool onBlock(void* self, float* frames, uint32_t count, double presentSec,
                        double streamFrame);
    void fill(float* frames, uint32_t count, double presentSec, double streamFrame);
    void poll();
    void completeLater(std::function<void(PlayedSound)> completion, PlayedSound sound);

    dispatch::MainQueue& main_;
    std::shared_ptr<platform::pulse::PulseLoop> loop_;
    const double rate_;
    std::array<Slot, kSlots> slots_;
    size_t nextFree_ = 0;      // main thread: the slot the next sound takes
    size_t nextDone_ = 0;      // main thread: the slot whose completion is due next
    size_t playing_ = 0;       // stream thread: the slot being played
    size_t playedFrames_ = 0;  // stream thread: how much of it
    double nextFrame_ = -1;    // stream thread: where the stream goes on without a gap
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::unique_ptr<dispatch::TimerHandle> poll_;
    std::unique_ptr<platform::Stream> stream_;
};

// Opens players on the capture sink, each on a connection of its own.
class PulseToneOutput final : public ToneOutput {
  public:
    PulseToneOutput(dispatch::MainQueue& main, std::string captureSinkName)
        : main_(main), sinkName_(std::move(captureSinkName)), opener_(main) {}
    void open(double sampleRate, std::function<void(TonePlayerOpenResult)> done) override;

  private:
    dispatch::MainQueue& main_;
    std::string sinkName_;
    OpenOffMain opener_;
};

}  // namespace vt::calibration
