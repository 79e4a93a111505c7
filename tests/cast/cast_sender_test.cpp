// The sender against a scripted TV on the virtual clock: the TV's answers
// are worked out from a lag that the commanded rates really change.
#include "cast/cast_sender.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "dispatch/virtual_main_queue.h"
#include "fake_cast_connection.h"

namespace vt::cast {
namespace {

using testing::FakeCastConnection;

class FakeStream final : public CastStream {
  public:
    void start() override { started = true; }
    void stop() override { stopped = true; }
    uint16_t advertisedPort() const override { return 45678; }
    void write(const uint8_t*, size_t, double) override {}
    std::optional<double> clientStart() const override { return timeline; }
    int clientsServed() const override { return served; }
    void setArtwork(std::optional<std::string> path) override { artwork = std::move(path); }
    void setOnStreamClient(std::function<void()> callback) override {
        onClient = std::move(callback);
    }

    // The TV fetches: a new client whose time line starts at `at`.
    void fetch(double at) {
        ++served;
        timeline = at;
        if (onClient) onClient();
    }

    bool started = false, stopped = false;
    std::optional<double> timeline;
    int served = 0;
    std::optional<std::string> artwork;
    std::function<void()> onClient;
};

class CastSenderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        shared_ = std::make_shared<FakeCastConnection::Shared>();
        stream_ = std::make_shared<FakeStream>();
        CastSender::Parts parts;
        parts.connect = [this](const std::string& host, uint16_t port) {
            connectedTo_ = host + ":" + std::to_string(port);
            return std::make_unique<FakeCastConnection>(shared_);
        };
        parts.stream = stream_;
        parts.localAddress = [](const std::string&) {
            return std::optional<std::string>("10.0.0.2");
        };
        parts.pump = false;
        sender_ = CastSender::make({"tv1", std::string("10.0.0.9"), 8009}, nullptr, queue_, queue_,
                                   parts);
        sender_->onStatus = [this](const CastStatus& s) {
            statuses_.push_back(s.kind == CastStatus::Kind::failed ? "failed: " + s.reason
                                                                   : rawValue(s.kind));
        };
        sender_->onLatency = [this](double ms) { latencies_.push_back(ms); };
    }

    void fromTV(const std::string& source, std::string_view nameSpace,
                const nlohmann::json& payload) {
        shared_->events.received(
            CastMessage{source, "sender-0", std::string(nameSpace), payload.dump()}.framed());
    }

    // Plays the TV for every message the sender wrote since the last call.
    void answer() {
        while (handled_ < shared_->written.size()) {
            const CastMessage m = shared_->written[handled_++];
            const auto json = m.json();
            const std::string type = m.type();
            const auto id = json.value("requestId", 0);
            if (type == "LAUNCH" && !refuseLaunch_) {
                fromTV("receiver-0", kReceiverNamespace,
                       receiverStatus(id, "CC1AD845", "s1", "t1"));
            } else if (type == "LAUNCH") {
                fromTV("receiver-0", kReceiverNamespace,
                       {{"type", "LAUNCH_ERROR"}, {"requestId", id}, {"reason", "NOT_FOUND"}});
            } else if (type == "LOAD") {
                loadURL_ = json["media"]["contentId"];
                if (fetches_) {
                    stream_->fetch(queue_.now());
                    playingSince_ = queue_.now() + lag_;  // fills its buffer first
                }
                fromTV("t1", kMediaNamespace, mediaStatus(id, "BUFFERING"));
            } else if (type == "SET_PLAYBACK_RATE") {
                const double r = json["playbackRate"];
                rates_.push_back(r);
                if (r >= 2 && refuseTwo_) {
                    fromTV("t1", kMediaNamespace,
                           {{"type", "INVALID_REQUEST"},
                            {"requestId", id},
                            {"reason", "INVALID_PARAMS"}});
                } else {
                    settle();
                    rate_ = r;
                    fromTV("t1", kMediaNamespace, mediaStatus(id, state()));
                }
            } else if (type == "GET_STATUS" && m.nameSpace == kMediaNamespace) {
                settle();
                fromTV("t1", kMediaNamespace, mediaStatus(id, state()));
            } else if (type == "STOP") {
                stopsSent_++;
            }
        }
    }

    // Carries the TV's play position to now at its current rate.
    void settle() {
        const double now = queue_.now();
        if (playingSince_ && now > *playingSince_ && !stalled_) {
            const double from = std::max(*playingSince_, settledAt_);
            media_ += (now - from) * rate_;
        }
        settledAt_ = now;
    }
    std::string state() const {
        if (stalled_) return "BUFFERING";
        return playingSince_ && queue_.now() >= *playingSince_ ? "PLAYING" : "BUFFERING";
    }
    nlohmann::json mediaStatus(int64_t id, const std::string& playerState) const {
        nlohmann::json status = {{"mediaSessionId", 1},
                                 {"playerState", playerState},
                                 {"currentTime", media_},
                                 {"currentItemId", 1},
                                 {"playbackRate", rate_}};
        nlohmann::json out = {{"type", "MEDIA_STATUS"}, {"requestId", id}};
        out["status"] = nlohmann::json::array({status});
        return out;
    }
    static nlohmann::json receiverStatus(int64_t id, const std::string& appId,
                                         const std::string& session, const std::string& transport) {
        nlohmann::json app = {{"appId", appId}, {"sessionId", session}, {"transportId", transport}};
        nlohmann::json out = {{"type", "RECEIVER_STATUS"}, {"requestId", id}};
        out["status"]["applications"] = nlohmann::json::array({app});
        return out;
    }
    // The lag the TV really has: stream time written less media played.
    double trueLag() const { return (queue_.now() - *stream_->timeline) - media_; }

    void run(double seconds) {
        const double end = queue_.now() + seconds;
        while (queue_.now() < end) {
            queue_.advance(0.01);
            answer();
            queue_.drain();
        }
    }
    void startAndConnect() {
        sender_->start();
        queue_.drain();
        shared_->events.ready();
        for (int round = 0; round < 3; ++round) {
            queue_.drain();
            answer();
        }
        queue_.drain();
    }

    dispatch::VirtualMainQueue queue_;
    std::shared_ptr<FakeCastConnection::Shared> shared_;
    std::shared_ptr<FakeStream> stream_;
    std::shared_ptr<CastSender> sender_;
    std::vector<std::string> statuses_;
    std::vector<double> latencies_;
    std::string connectedTo_, loadURL_;
    size_t handled_ = 0;
    bool fetches_ = true, refuseTwo_ = false, refuseLaunch_ = false, stalled_ = false;
    double lag_ = 1.4;
    std::optional<double> playingSince_;
    double media_ = 0, rate_ = 1.0, settledAt_ = 0;
    std::vector<double> rates_;
    int stopsSent_ = 0;
};

TEST_F(CastSenderTest, LaunchesLoadsAndLocksSilentlyBeforeItIsHeard) {
    startAndConnect();
    EXPECT_EQ(connectedTo_, "10.0.0.9:8009");
    EXPECT_TRUE(stream_->started);
    ASSERT_GE(shared_->written.size(), 4u);
    EXPECT_EQ(shared_->written[0].type(), "CONNECT");
    EXPECT_EQ(shared_->written[1].type(), "LAUNCH");
    EXPECT_EQ(shared_->written[2].type(), "CONNECT");
    EXPECT_EQ(shared_->written[2].destination, "t1");
    const auto load = shared_->written[3].json();
    EXPECT_EQ(load["type"], "LOAD");
    EXPECT_EQ(load["autoplay"], true);
    EXPECT_EQ(load["media"]["streamType"], "LIVE");
    EXPECT_EQ(load["media"]["metadata"]["title"], "Vellatone");
    EXPECT_EQ(loadURL_, "http://10.0.0.2:45678/stream.wav");
    EXPECT_EQ(statuses_, (std::vector<std::string>{"connecting", "buffering"}));
    EXPECT_FALSE(sender_->audible());

    run(45);
    ASSERT_EQ(statuses_.back(), "streaming");
    EXPECT_TRUE(sender_->audible());
    ASSERT_FALSE(latencies_.empty());
    EXPECT_NEAR(latencies_.back(), 1000.0, 120.0)
        << "the target's lag is what the delay plan is told";
    EXPECT_NEAR(trueLag(), 1.0, 0.11);
    EXPECT_EQ(rates_.front(), 1.1) << "0.4 s late: caught up gently";
    EXPECT_EQ(rates_.back(), 1.0);

    sender_->stop();
    queue_.drain();
    EXPECT_EQ(stopsSent_, 0);
    answer();
    EXPECT_EQ(stopsSent_, 1) << "our own player on the TV is stopped";
    EXPECT_TRUE(stream_->stopped);
    EXPECT_EQ(statuses_.back(), "stopped");
    queue_.advance(1.0);
    EXPECT_TRUE(shared_->cancelled);
}

TEST_F(CastSenderTest, ATVThatRefusesRateTwoCatchesUpAtOneAndAHalf) {
    lag_ = 3.3;
    refuseTwo_ = true;
    startAndConnect();
    run(44);
    ASSERT_GE(rates_.size(), 2u);
    EXPECT_EQ(rates_[0], 2.0);
    EXPECT_EQ(rates_[1], 1.5);
    EXPECT_EQ(statuses_.back(), "streaming");
    EXPECT_NEAR(trueLag(), 1.0, 0.11);
}

TEST_F(CastSenderTest, ATVThatNeverFetchesIsUnreachableAfterTwelveSeconds) {
    fetches_ = false;
    startAndConnect();
    run(11.9);
    EXPECT_EQ(statuses_.back(), "buffering");
    run(0.2);
    EXPECT_EQ(statuses_.back(), "unreachable");
    answer();
    EXPECT_EQ(stopsSent_, 1);
    run(60);
    EXPECT_EQ(statuses_.back(), "unreachable") << "nothing more is reported";
}

TEST_F(CastSenderTest, AnotherSenderTakingTheTVIsReplacedWithoutStoppingIt) {
    startAndConnect();
    run(5);
    fromTV("receiver-0", kReceiverNamespace, receiverStatus(0, "233637DE", "other", "other"));
    queue_.drain();
    EXPECT_EQ(statuses_.back(), "replaced");
    answer();
    EXPECT_EQ(stopsSent_, 0) << "the TV now belongs to someone else";
    EXPECT_TRUE(shared_->cancelled);

    SetUp();
    statuses_.clear();
    handled_ = 0;
    startAndConnect();
    fromTV("t1", kConnectionNamespace, {{"type", "CLOSE"}});
    queue_.drain();
    EXPECT_EQ(statuses_.back(), "replaced");
}

TEST_F(CastSenderTest, FailuresCarryTheirWords) {
    refuseLaunch_ = true;
    startAndConnect();
    EXPECT_EQ(statuses_.back(), "failed: the TV would not start its player (NOT_FOUND)");

    SetUp();
    statuses_.clear();
    handled_ = 0;
    refuseLaunch_ = false;
    startAndConnect();
    shared_->events.closed();
    queue_.drain();
    EXPECT_EQ(statuses_.back(), "failed: the TV closed the connection");

    SetUp();
    statuses_.clear();
    handled_ = 0;
    sender_ = CastSender::make({"tv1", std::nullopt, 8009}, nullptr, queue_, queue_, {});
    sender_->onStatus = [this](const CastStatus& s) { statuses_.push_back("failed: " + s.reason); };
    sender_->start();
    queue_.drain();
    EXPECT_EQ(statuses_, std::vector<std::string>{"failed: unresolved host"});
}

TEST_F(CastSenderTest, NeverCaughtUpAfterFortyFiveSeconds) {
    lag_ = 6.0;
    refuseTwo_ = true;
    startAndConnect();
    // Refuses every rate from here on: the lag cannot be brought down.
    refuseTwo_ = false;
    run(3);
    shared_->written.clear();
    handled_ = 0;
    for (int i = 0; i < 4500 && statuses_.back() != "failed: the TV never caught up"; ++i) {
        queue_.advance(0.01);
        while (handled_ < shared_->written.size()) {
            const auto m = shared_->written[handled_++];
            const auto id = m.json().value("requestId", 0);
            if (m.type() == "SET_PLAYBACK_RATE")
                fromTV("t1", kMediaNamespace, {{"type", "INVALID_REQUEST"}, {"requestId", id}});
            else if (m.type() == "GET_STATUS") {
                settle();
                fromTV("t1", kMediaNamespace, mediaStatus(id, state()));
            }
        }
        queue_.drain();
    }
    EXPECT_EQ(statuses_.back(), "failed: the TV never caught up");
    EXPECT_NEAR(queue_.now() - 1000.0, 45.0, 1.0);
}

TEST_F(CastSenderTest, AFetchAfterTheLockStartsOverInSilence) {
    startAndConnect();
    run(45);
    ASSERT_EQ(statuses_.back(), "streaming");
    ASSERT_TRUE(sender_->audible());
    stream_->fetch(queue_.now());
    queue_.drain();
    EXPECT_FALSE(sender_->audible());
    EXPECT_EQ(statuses_.back(), "buffering");
    EXPECT_EQ(latencies_.back(), 1000.0);
}

TEST_F(CastSenderTest, AStallRaisesTheTargetAndTooLongAStallFails) {
    startAndConnect();
    run(45);
    ASSERT_EQ(statuses_.back(), "streaming");
    settle();
    stalled_ = true;
    run(1);
    EXPECT_EQ(latencies_.back(), 1500.0) << "the plan moves to the raised target at once";
    run(10);
    EXPECT_EQ(statuses_.back(), "failed: the TV stopped receiving the stream");
    answer();
    EXPECT_EQ(stopsSent_, 1);
}

TEST_F(CastSenderTest, ANewTrackReachesTheTVWithoutALoadThatWouldLoseTheLock) {
    sender_->send(sendspin::TrackInfo{"Song", "Band", "Album", std::string("/tmp/cover.jpg")});
    startAndConnect();
    EXPECT_EQ(shared_->written[3].json()["media"]["metadata"]["title"], "Song");
    run(2);
    sender_->send(sendspin::TrackInfo{"Next", "", "", std::nullopt});
    queue_.drain();
    const CastMessage& update = shared_->written.back();
    ASSERT_EQ(update.type(), "QUEUE_UPDATE");
    const auto json = update.json();
    EXPECT_EQ(json["mediaSessionId"], 1);
    EXPECT_EQ(json["items"][0]["itemId"], 1);
    EXPECT_EQ(json["items"][0]["media"]["metadata"]["title"], "Next");
    EXPECT_FALSE(json["items"][0]["media"]["metadata"].contains("artist"));
    EXPECT_EQ(json["items"][0]["media"]["contentId"], loadURL_);
    EXPECT_EQ(stream_->artwork, std::nullopt);
    int loads = 0;
    for (const auto& m : shared_->written) loads += m.type() == "LOAD";
    EXPECT_EQ(loads, 1);
}

}  // namespace
}  // namespace vt::cast
