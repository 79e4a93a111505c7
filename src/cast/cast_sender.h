// Plays to a Cast TV through its default media receiver: launches it, points
// it at our WAV stream, polls how far it lags behind what was sent, steers
// that lag to a target with the playback rate, keeps the stream silent until
// the lag is on target, and then reports the lag as the row's latency so the
// other outputs are held back by as much.
//
// All protocol state lives on `queue`, a serial queue with timers; the
// channel delivers there. The pump thread ("CastPump") renders the slot
// every 10 ms and writes it, or silence, to the stream server.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cast/cast_channel.h"
#include "cast/cast_lag_controller.h"
#include "cast/cast_lag_estimator.h"
#include "cast/cast_latency_publisher.h"
#include "cast/cast_output_sender.h"
#include "cast/cast_sender_base.h"
#include "cast/cast_stream.h"
#include "dispatch/main_queue.h"

namespace vt::cast {

inline constexpr std::string_view kMediaReceiverAppID = "CC1AD845";

// What a sender is built from; each part has a default for the program.
struct CastSenderParts {
    // The connection to the TV; TLS by default.
    CastConnect connect;
    // The server the TV fetches from; a CastStreamServer by default.
    std::shared_ptr<CastStream> stream;
    // This computer's address towards the TV.
    std::function<std::optional<std::string>(const std::string& host)> localAddress;
    // Tests drive the stream themselves.
    bool pump = true;
};

class CastSender final : public CastSenderBase {
  public:
    // Fills interleaved stereo at 44.1 kHz; runs on the pump thread.
    using Render = std::function<void(float* into, size_t frames)>;

    static constexpr double kLaunchLimitSeconds = 25.0;
    static constexpr double kFetchLimitSeconds = 12.0;
    static constexpr double kCatchUpLimitSeconds = 45.0;
    static constexpr double kPollFirstSeconds = 1.0;
    static constexpr double kPollIntervalSeconds = 0.5;
    static constexpr double kRateSettleSeconds = 1.5;
    static constexpr double kStallLimitSeconds = 10.0;
    static constexpr double kPausedLimitSeconds = 5.0;

    using Parts = CastSenderParts;

    // `queue` and `mainQueue` must outlive the sender.
    static std::shared_ptr<CastSender> make(CastTarget target, Render render,
                                            dispatch::MainQueue& queue,
                                            dispatch::MainQueue& mainQueue, Parts parts = {});
    ~CastSender() override;

    void send(std::optional<sendspin::TrackInfo> meta) override;

    bool audible() const { return pumpState_->audible.load(); }

  private:
    struct PumpState {
        std::atomic<bool> running{false};
        std::atomic<bool> audible{false};
        std::mutex exitLock;
        std::condition_variable exitSignal;
        bool exited = true;
    };

    CastSender(CastTarget target, Render render, dispatch::MainQueue& queue,
               dispatch::MainQueue& mainQueue, Parts parts);
    void begin() override;
    // LOADs the stream.
    void launched() override;
    void handle(const CastMessage& message, const nlohmann::json& json,
                const std::string& type) override;
    void loadFailed();
    void mediaStatus(const nlohmann::json& json);
    void setRate(double rate);
    void streamFetched();
    void startPolling();
    void finish(bool stopTV, std::function<void()> then = {}) override;
    void publish(double seconds);
    nlohmann::json mediaMetadata(const std::string& address) const;
    nlohmann::json media() const;
    void sendMetadata();
    void startPump();
    bool running() const override { return pumpState_->running.load(); }

    Render render_;
    Parts parts_;
    std::shared_ptr<PumpState> pumpState_ = std::make_shared<PumpState>();

    // Everything below only on `queue_`.
    std::optional<int64_t> mediaSessionID_;
    std::optional<int64_t> currentItemID_;  // the loaded stream's place in the TV's queue
    std::optional<int64_t> loadRequestID_;
    bool loadSent_ = false;
    std::string address_;
    CastLagController controller_;
    CastLagEstimator estimator_;
    CastLagReckoning reckoning_;
    CastLatencyPublisher publisher_;
    bool publishedMeasured_ = false;
    std::map<int64_t, double> rateRequests_;
    std::map<int64_t, double> statusSentAt_;
    double tvRate_ = 1.0;
    double settleUntil_ = 0;
    std::optional<double> estimatorStreamStart_;
    std::optional<double> pausedSince_, stalledSince_;
    std::unique_ptr<dispatch::TimerHandle> poll_;
    std::optional<sendspin::TrackInfo> meta_;
};

}  // namespace vt::cast
