#include "cast/cast_channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dispatch/virtual_main_queue.h"
#include "fake_cast_connection.h"

namespace vt::cast {
namespace {

using testing::FakeCastConnection;

class CastChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        shared_ = std::make_shared<FakeCastConnection::Shared>();
        channel_ = CastChannel::make(std::make_unique<FakeCastConnection>(shared_), queue_);
        channel_->start({
            .onReady = [this] { events_.push_back("ready"); },
            .onMessage =
                [this](const CastMessage& m) { events_.push_back("message " + m.payload); },
            .onLost = [this](const std::string& why) { events_.push_back("lost " + why); },
        });
    }

    void ready() {
        shared_->events.ready();
        queue_.drain();
    }
    void fromTV(const std::string& nameSpace, const std::string& payload,
                const std::string& source = "receiver-0") {
        shared_->events.received(CastMessage{source, "sender-0", nameSpace, payload}.framed());
        queue_.drain();
    }
    std::vector<std::string> writtenTypes() const {
        std::vector<std::string> types;
        for (const auto& m : shared_->written) types.push_back(m.type());
        return types;
    }

    dispatch::VirtualMainQueue queue_;
    std::shared_ptr<FakeCastConnection::Shared> shared_;
    std::shared_ptr<CastChannel> channel_;
    std::vector<std::string> events_;
};

TEST_F(CastChannelTest, NumbersRequestsButNotConnectionOrHeartbeatMessages) {
    ready();
    EXPECT_EQ(events_, std::vector<std::string>{"ready"});
    EXPECT_EQ(channel_->send("receiver-0", kConnectionNamespace,
                             {{"type", "CONNECT"}, {"origin", nlohmann::json::object()}}),
              std::nullopt);
    EXPECT_EQ(channel_->send("receiver-0", kReceiverNamespace,
                             {{"type", "LAUNCH"}, {"appId", "CC1AD845"}}),
              1);
    EXPECT_EQ(channel_->send("web-5", kMediaNamespace, {{"type", "GET_STATUS"}}), 2);
    EXPECT_EQ(channel_->send("web-5", kMediaNamespace, {{"type", "LOAD"}, {"requestId", 77}}),
              std::nullopt);
    EXPECT_EQ(channel_->send("web-5", kMediaNamespace, nlohmann::json::object()), 3)
        << "no type is numbered";

    ASSERT_EQ(shared_->written.size(), 5u);
    const CastMessage& launch = shared_->written[1];
    EXPECT_EQ(launch.source, "sender-0");
    EXPECT_EQ(launch.destination, "receiver-0");
    EXPECT_EQ(launch.nameSpace, kReceiverNamespace);
    EXPECT_EQ(launch.json()["requestId"], 1);
    EXPECT_FALSE(shared_->written[0].json().contains("requestId"));
    EXPECT_EQ(shared_->written[3].json()["requestId"], 77);

    bool completed = false;
    channel_->send("web-5", kMediaNamespace, {{"type", "PLAY"}}, [&] { completed = true; });
    queue_.drain();
    EXPECT_TRUE(completed);
}

TEST_F(CastChannelTest, AnswersTheTVsPingAndPassesOnEverythingElseInOrder) {
    ready();
    fromTV(std::string(kHeartbeatNamespace), R"({"type":"PING"})", "web-7");
    ASSERT_EQ(shared_->written.size(), 1u);
    EXPECT_EQ(shared_->written[0].type(), "PONG");
    EXPECT_EQ(shared_->written[0].destination, "web-7");
    EXPECT_EQ(shared_->written[0].nameSpace, kHeartbeatNamespace);

    const std::string a =
        CastMessage{"receiver-0", "*", std::string(kReceiverNamespace), R"({"type":"A"})"}.framed();
    const std::string pong = CastMessage{"receiver-0", "sender-0", std::string(kHeartbeatNamespace),
                                         R"({"type":"PONG"})"}
                                 .framed();
    const std::string b =
        CastMessage{"web-5", "sender-0", std::string(kMediaNamespace), R"({"type":"B"})"}.framed();
    shared_->events.received(a + pong + b);
    queue_.drain();
    EXPECT_EQ(events_, (std::vector<std::string>{"ready", R"(message {"type":"A"})",
                                                 R"(message {"type":"B"})"}));
}

TEST_F(CastChannelTest, PingsEveryFiveSecondsAndKeepsATalkingTV) {
    ready();
    queue_.advance(4.9);
    EXPECT_TRUE(shared_->written.empty());
    queue_.advance(0.2);
    EXPECT_EQ(writtenTypes(), std::vector<std::string>{"PING"});
    EXPECT_EQ(shared_->written[0].destination, "receiver-0");
    for (int i = 0; i < 20; ++i) {
        queue_.advance(4.0);
        fromTV(std::string(kHeartbeatNamespace), R"({"type":"PONG"})");
    }
    EXPECT_EQ(events_, std::vector<std::string>{"ready"});
    EXPECT_FALSE(channel_->closed());
}

TEST_F(CastChannelTest, ASilentTVIsLostAtTheFirstHeartbeatPastFifteenSeconds) {
    ready();
    queue_.advance(15.05);
    EXPECT_EQ(events_, std::vector<std::string>{"ready"});
    queue_.advance(4.9);  // 19.95 s: the firing at 20 s is the one that sees 15 s of silence
    EXPECT_EQ(events_.size(), 1u);
    queue_.advance(0.1);
    EXPECT_EQ(events_,
              (std::vector<std::string>{"ready", "lost lost the TV (no answer for 15 s)"}));
    EXPECT_TRUE(shared_->cancelled);
    const size_t sent = shared_->written.size();
    queue_.advance(30);
    EXPECT_EQ(events_.size(), 2u);
    EXPECT_EQ(shared_->written.size(), sent) << "no pings after the loss";
}

TEST_F(CastChannelTest, EachWayOfLosingTheTVHasItsWordsAndComesOnce) {
    ready();
    shared_->events.received(std::string("\x00\x10\x00\x01", 4));
    shared_->events.closed();
    queue_.drain();
    EXPECT_EQ(events_, (std::vector<std::string>{
                           "ready", "lost the TV sent something that is not a Cast message"}));
    EXPECT_FALSE(channel_->send("receiver-0", kReceiverNamespace, {{"type", "GET_STATUS"}}));

    SetUp();
    events_.clear();
    ready();
    shared_->events.closed();
    queue_.drain();
    EXPECT_EQ(events_, (std::vector<std::string>{"ready", "lost the TV closed the connection"}));

    SetUp();
    events_.clear();
    shared_->events.failed("Connection refused");
    queue_.drain();
    EXPECT_EQ(events_, (std::vector<std::string>{"lost cannot reach the TV: Connection refused"}));
}

TEST_F(CastChannelTest, AfterCloseNothingIsSentOrReported) {
    ready();
    channel_->close();
    EXPECT_TRUE(shared_->cancelled);
    shared_->events.closed();
    fromTV(std::string(kReceiverNamespace), R"({"type":"LATE"})");
    bool completed = false;
    EXPECT_FALSE(channel_->send("receiver-0", kReceiverNamespace, {{"type", "GET_STATUS"}},
                                [&] { completed = true; }));
    queue_.advance(40);
    EXPECT_EQ(events_, std::vector<std::string>{"ready"});
    EXPECT_TRUE(shared_->written.empty());
    EXPECT_TRUE(completed) << "the completion still runs";
}

}  // namespace
}  // namespace vt::cast
