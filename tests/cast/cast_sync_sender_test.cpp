// The clock-synced sender against a scripted TV and a scripted Sendspin
// server on the virtual clock, and the session's report rules.
#include "cast/cast_sync_sender.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "dispatch/virtual_main_queue.h"
#include "fake_cast_connection.h"

namespace vt::cast {
namespace {

using Change = CastSyncSession::Change;
using testing::FakeCastConnection;

TEST(CastSyncSession, OnlyTheConnectionStreamedToCanGainTheSync) {
    CastSyncSession session;
    EXPECT_EQ(session.receiverReport(true, true), Change::none) << "nobody connected yet";
    session.client = 2;
    session.streamingTo = 1;  // still playing what the old connection was sent
    EXPECT_EQ(session.receiverReport(true, true), Change::none);
    session.streamingTo = 2;
    EXPECT_EQ(session.receiverReport(true, true), Change::gained);
    EXPECT_EQ(session.receiverReport(true, true), Change::none) << "the same report twice";
    session.client = 3;
    EXPECT_EQ(session.receiverReport(true, true), Change::lost);
    EXPECT_FALSE(session.synced);
    EXPECT_TRUE(session.everSynced);
    session.streamingTo = 3;
    EXPECT_EQ(session.receiverReport(true, true), Change::gained);
    EXPECT_EQ(session.receiverReport(true, false), Change::lost) << "synced but not playing";
    EXPECT_EQ(session.receiverReport(false, true), Change::none);
}

class FakeEndpoint final : public SendspinEndpoint {
  public:
    void setEvents(Events e) override { events = std::move(e); }
    void start() override { started = true; }
    void stop() override { stopped = true; }
    uint16_t advertisedPort() const override { return 45679; }
    void sendText(std::string text, int64_t) override {
        std::lock_guard lock(mutex);
        texts.push_back(std::move(text));
    }
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override {
        sendText(building(), to);
    }
    void sendBinary(std::string, int64_t) override {}

    std::vector<std::string> sentTypes() {
        std::lock_guard lock(mutex);
        std::vector<std::string> types;
        for (const auto& t : texts) types.push_back(nlohmann::json::parse(t).value("type", ""));
        return types;
    }

    Events events;
    bool started = false, stopped = false;
    std::mutex mutex;
    std::vector<std::string> texts;
};

class CastSyncSenderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("VELLATONE_CAST_SYNC_APP");
        unsetenv("VELLATONE_SENDSPIN_LEAD_MS");
        shared_ = std::make_shared<FakeCastConnection::Shared>();
        endpoint_ = std::make_shared<FakeEndpoint>();
    }
    void TearDown() override {
        if (sender_) sender_->stop();
        queue_.drain();
    }

    void make() {
        CastSyncSender::Parts parts;
        parts.connect = [this](const std::string&, uint16_t) {
            return std::make_unique<FakeCastConnection>(shared_);
        };
        parts.endpoint = endpoint_;
        parts.localAddress = [](const std::string&) {
            return std::optional<std::string>("10.0.0.2");
        };
        parts.senderName = "Desk";
        parts.pump = false;
        sender_ = CastSyncSender::make({"tv1", std::string("10.0.0.9"), 8009}, nullptr, queue_,
                                       queue_, parts);
        sender_->onStatus = [this](const CastStatus& s) {
            statuses_.push_back(s.kind == CastStatus::Kind::failed ? "failed: " + s.reason
                                                                   : rawValue(s.kind));
            if (s.streamPort) port_ = *s.streamPort;
        };
        sender_->onLatency = [this](double ms) { latencies_.push_back(ms); };
    }

    void fromTV(const std::string& source, std::string_view nameSpace,
                const nlohmann::json& payload) {
        shared_->events.received(
            CastMessage{source, "sender-0", std::string(nameSpace), payload.dump()}.framed());
        queue_.drain();
    }
    // Every message the sender wrote to the TV of this type.
    std::vector<nlohmann::json> written(const std::string& type) {
        std::vector<nlohmann::json> out;
        for (const auto& m : shared_->written)
            if (m.type() == type) out.push_back(m.json());
        return out;
    }
    // Time passes on a TV that keeps answering heartbeats.
    void pass(double seconds) {
        for (double left = seconds; left > 0; left -= 1.0) {
            queue_.advance(std::min(left, 1.0));
            fromTV("receiver-0", kHeartbeatNamespace, {{"type", "PONG"}});
        }
    }
    void startAndLaunch() {
        make();
        sender_->start();
        queue_.drain();
        shared_->events.ready();
        queue_.drain();
        nlohmann::json app = {{"appId", "FAB7FE2B"}, {"sessionId", "s1"}, {"transportId", "t1"}};
        nlohmann::json status = {{"type", "RECEIVER_STATUS"}, {"requestId", 0}};
        status["status"]["applications"] = nlohmann::json::array({app});
        fromTV("receiver-0", kReceiverNamespace, status);
    }
    void join(int64_t id) {
        endpoint_->events.connected(id);
        const char* hello =
            R"({"type":"client/hello","payload":{"client_id":"tv","name":"TV","version":1,)"
            R"("supported_roles":["player@v1"]}})";
        endpoint_->events.text(id, hello, 0);
        queue_.drain();
    }
    void receiverSays(bool synced, const std::string& state = "playing") {
        fromTV(
            "t1", kSendspinNamespace,
            {{"type", "status"},
             {"status", {{"state", state}, {"synced", synced}, {"syncInfo", {{"offset", 1.5}}}}}});
    }

    dispatch::VirtualMainQueue queue_;
    std::shared_ptr<FakeCastConnection::Shared> shared_;
    std::shared_ptr<FakeEndpoint> endpoint_;
    std::shared_ptr<CastSyncSender> sender_;
    std::vector<std::string> statuses_;
    std::vector<double> latencies_;
    uint16_t port_ = 0;
};

TEST_F(CastSyncSenderTest, LaunchesConfiguresServesAndFollowsTheReceiversSync) {
    startAndLaunch();
    EXPECT_TRUE(endpoint_->started);
    EXPECT_EQ(latencies_, std::vector<double>{1030.0}) << "a constant, at once";
    ASSERT_EQ(written("LAUNCH").size(), 1u);
    EXPECT_EQ(written("LAUNCH")[0]["appId"], "FAB7FE2B");
    auto configs = written("config");
    ASSERT_EQ(configs.size(), 1u);
    EXPECT_EQ(configs[0]["serverUrl"], "ws://10.0.0.2:45679/sendspin");
    EXPECT_EQ(configs[0]["playerId"], "vellatone-tv1");
    EXPECT_EQ(configs[0]["playerName"], "Desk");
    pass(4.1);
    EXPECT_EQ(written("config").size(), 3u) << "said again while the receiver loads";

    join(1);
    pass(4.1);
    EXPECT_EQ(written("config").size(), 3u) << "not once it has joined";
    EXPECT_EQ(endpoint_->sentTypes(),
              (std::vector<std::string>{"server/hello", "stream/start", "server/state"}));
    EXPECT_EQ(statuses_, (std::vector<std::string>{"connecting", "buffering"}));

    receiverSays(true);
    receiverSays(true);
    EXPECT_EQ(statuses_.back(), "streaming");
    EXPECT_EQ(statuses_.size(), 3u) << "two reports alike change the status once";

    // A short loss of sync ends nothing.
    receiverSays(false, "buffering");
    EXPECT_EQ(statuses_.back(), "buffering");
    pass(10);
    receiverSays(true);
    pass(10);
    EXPECT_EQ(statuses_.back(), "streaming");

    // A connection that goes drops the sync; with none back in 15 s the sender gives up.
    endpoint_->events.gone(1);
    queue_.drain();
    EXPECT_EQ(statuses_.back(), "buffering");
    pass(15.1);
    EXPECT_EQ(statuses_.back(), "failed: the TV lost the stream");
    EXPECT_EQ(written("STOP").size(), 1u);
    EXPECT_TRUE(endpoint_->stopped);
}

TEST_F(CastSyncSenderTest, ATVWithoutTheApplicationSaysSoEitherWay) {
    make();
    sender_->start();
    queue_.drain();
    shared_->events.ready();
    queue_.drain();
    fromTV("receiver-0", kReceiverNamespace,
           {{"type", "LAUNCH_ERROR"}, {"requestId", 2}, {"reason", "NOT_FOUND"}});
    EXPECT_EQ(statuses_.back(), "failed: sync receiver unavailable");
    EXPECT_TRUE(written("STOP").empty()) << "nothing of ours runs there";

    // One that stays silent about it.
    SetUp();
    statuses_.clear();
    make();
    sender_->start();
    queue_.drain();
    shared_->events.ready();
    pass(25.1);
    EXPECT_EQ(statuses_.back(), "failed: sync receiver unavailable");
}

TEST_F(CastSyncSenderTest, AnotherApplicationIdAndAReceiverThatNeverJoins) {
    setenv("VELLATONE_CAST_SYNC_APP", "0BADCAFE", 1);
    setenv("VELLATONE_SENDSPIN_LEAD_MS", "soon", 1);
    make();
    EXPECT_EQ(CastSyncSender::latencyMs(), 1030.0) << "a lead that does not parse is 500";
    sender_->start();
    queue_.drain();
    shared_->events.ready();
    queue_.drain();
    EXPECT_EQ(written("LAUNCH")[0]["appId"], "0BADCAFE");
    nlohmann::json app = {{"appId", "0BADCAFE"}, {"sessionId", "s1"}, {"transportId", "t1"}};
    nlohmann::json status = {{"type", "RECEIVER_STATUS"}};
    status["status"]["applications"] = nlohmann::json::array({app});
    fromTV("receiver-0", kReceiverNamespace, status);
    pass(12.1);
    EXPECT_EQ(statuses_.back(), "unreachable") << "the TV never reached our server";
    EXPECT_EQ(port_, 45679);
    EXPECT_EQ(written("STOP").size(), 1u);
    unsetenv("VELLATONE_CAST_SYNC_APP");
    unsetenv("VELLATONE_SENDSPIN_LEAD_MS");
}

TEST_F(CastSyncSenderTest, AReceiverErrorBeforeAnySyncIsAnUnavailableReceiver) {
    startAndLaunch();
    join(1);
    fromTV("t1", kSendspinNamespace,
           {{"type", "status"},
            {"status", {{"state", "error"}, {"synced", false}, {"error", "no audio"}}}});
    EXPECT_EQ(statuses_.back(), "failed: sync receiver unavailable");
}

}  // namespace
}  // namespace vt::cast
