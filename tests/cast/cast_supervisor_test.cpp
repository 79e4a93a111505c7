#include "cast/cast_supervisor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "dispatch/virtual_main_queue.h"

namespace vt::cast {
namespace {

struct FakeSender final : CastOutputSender {
    CastTarget target;
    bool synced = false;
    bool started = false, stopped = false;
    void start() override { started = true; }
    void stop() override { stopped = true; }
    void send(std::optional<sendspin::TrackInfo>) override {}
    void say(CastStatus::Kind kind, std::string reason = {}, std::optional<uint16_t> port = {}) {
        onStatus(CastStatus{kind, std::move(reason), port});
    }
};

class CastSupervisorTest : public ::testing::Test {
  protected:
    std::unique_ptr<CastSupervisor> make(bool trySync = false) {
        CastSupervisor::Hooks hooks;
        hooks.prepareSlot = [this](int slot, double rate) { prepared_.push_back({slot, rate}); };
        hooks.statusChanged = [this](int slot) { changed_.push_back(slot); };
        hooks.latencyChanged = [this](int slot, double ms) { latencies_.push_back({slot, ms}); };
        hooks.reconcileWanted = [this] { reconcile(); };
        return std::make_unique<CastSupervisor>(
            queue_,
            [this](const CastTarget& target, int, bool synced) {
                auto sender = std::make_shared<FakeSender>();
                sender->target = target;
                sender->synced = synced;
                made_.push_back(sender);
                return sender;
            },
            hooks, trySync);
    }
    void SetUp() override { supervisor_ = make(); }
    void reconcile() { supervisor_->reconcile(running_, rows_, devices_); }
    FakeSender& last() { return *made_.back(); }
    std::string words(int slot) {
        return castSubtitle(supervisor_->status(slot), 1234.0, supervisor_->synced(slot), false);
    }

    dispatch::VirtualMainQueue queue_;
    std::unique_ptr<CastSupervisor> supervisor_;
    std::vector<std::shared_ptr<FakeSender>> made_;
    std::vector<std::pair<int, double>> prepared_, latencies_;
    std::vector<int> changed_;
    bool running_ = true;
    std::vector<CastRowWanted> rows_ = {{2, "tv1"}};
    std::vector<CastDeviceSeen> devices_ = {{"tv1", "Living TV", std::string("10.0.0.9"), 8009}};
};

TEST(CastSubtitle, SaysWhatTheRowIsDoing) {
    using K = CastStatus::Kind;
    EXPECT_EQ(castSubtitle(std::nullopt, 0, false, true), "Cast · not on network");
    EXPECT_EQ(castSubtitle(std::nullopt, 0, false, false), "Google Cast");
    EXPECT_EQ(castSubtitle(CastStatus{K::connecting}, 0, false, false),
              "Cast · starting on the TV");
    EXPECT_EQ(castSubtitle(CastStatus{K::buffering}, 0, false, false),
              "Cast · lining up with the others");
    EXPECT_EQ(castSubtitle(CastStatus{K::streaming}, 1234, false, false),
              "Cast · streaming · 1.2 s lag, auto-synced");
    EXPECT_EQ(castSubtitle(CastStatus{K::streaming}, 1250, true, false),
              "Cast · streaming · 1.2 s lag, clock-synced");
    EXPECT_EQ(castSubtitle(CastStatus{K::streaming}, 0, false, false), "Cast · streaming");
    EXPECT_EQ(castSubtitle(CastStatus{K::unreachable}, 0, false, false),
              "Cast · the firewall blocks the TV");
    EXPECT_EQ(castSubtitle(CastStatus{K::replaced}, 0, false, false),
              "Cast · the TV is playing something else");
    EXPECT_EQ(castSubtitle(CastStatus{K::stopped}, 0, false, false), "Google Cast");
    EXPECT_EQ(castSubtitle(CastStatus::failed("x"), 0, false, false), "Cast · unavailable");
}

TEST_F(CastSupervisorTest, StartsSendersForResolvedTVsOnlyWhileRunning) {
    running_ = false;
    reconcile();
    EXPECT_TRUE(made_.empty());
    devices_[0].host.reset();
    running_ = true;
    reconcile();
    EXPECT_TRUE(made_.empty()) << "an unresolved TV waits";
    devices_[0].host = "10.0.0.9";
    reconcile();
    ASSERT_EQ(made_.size(), 1u);
    EXPECT_TRUE(last().started);
    EXPECT_EQ(last().target.host, "10.0.0.9");
    EXPECT_FALSE(last().synced);
    EXPECT_EQ(prepared_, (std::vector<std::pair<int, double>>{{2, 44100.0}}));
    EXPECT_EQ(words(2), "Cast · starting on the TV");
    reconcile();
    EXPECT_EQ(made_.size(), 1u) << "a running sender is kept";

    rows_[0].deviceID = "tv2";
    devices_.push_back({"tv2", "Bedroom TV", std::string("10.0.0.10"), 8009});
    reconcile();
    EXPECT_TRUE(made_[0]->stopped);
    ASSERT_EQ(made_.size(), 2u);
    EXPECT_EQ(last().target.id, "tv2");

    running_ = false;
    reconcile();
    EXPECT_TRUE(last().stopped);
    EXPECT_FALSE(supervisor_->hasSender(2));
}

TEST_F(CastSupervisorTest, RetriesFailuresFourTimesWithGrowingWaits) {
    reconcile();
    const std::vector<double> waits = {1.5, 3.0, 6.0, 8.0};
    for (size_t i = 0; i < waits.size(); ++i) {
        last().say(CastStatus::Kind::failed, "the TV closed the connection");
        EXPECT_EQ(words(2), "Cast · unavailable");
        const size_t before = made_.size();
        queue_.advance(waits[i] - 0.01);
        EXPECT_EQ(made_.size(), before) << "try " << i;
        queue_.advance(0.02);
        EXPECT_EQ(made_.size(), before + 1) << "try " << i;
    }
    last().say(CastStatus::Kind::failed, "the TV closed the connection");
    queue_.advance(60);
    EXPECT_EQ(made_.size(), 5u) << "four tries spent: the row stays unavailable";
    EXPECT_EQ(words(2), "Cast · unavailable");

    supervisor_->reconnect(2, "tv1");
    EXPECT_EQ(made_.size(), 6u);
    last().say(CastStatus::Kind::streaming);
    EXPECT_EQ(supervisor_->tries(2), 0);
    EXPECT_EQ(words(2), "Cast · streaming · 1.2 s lag, auto-synced");
}

TEST_F(CastSupervisorTest, AFirewallOrAnotherAppHoldsTheRowForTheUser) {
    reconcile();
    last().say(CastStatus::Kind::unreachable, {}, 45678);
    EXPECT_TRUE(supervisor_->held(2));
    EXPECT_EQ((supervisor_->firewallBlocked()), (std::map<int, uint16_t>{{2, 45678}}));
    EXPECT_EQ(words(2), "Cast · the firewall blocks the TV");
    queue_.advance(60);
    reconcile();
    EXPECT_EQ(made_.size(), 1u) << "no retry, and reconcile leaves it";

    supervisor_->reconnect(2, "tv1");
    EXPECT_FALSE(supervisor_->held(2));
    ASSERT_EQ(made_.size(), 2u);
    EXPECT_TRUE(supervisor_->firewallBlocked().empty());

    last().say(CastStatus::Kind::replaced);
    EXPECT_TRUE(supervisor_->held(2));
    EXPECT_EQ(words(2), "Cast · the TV is playing something else");
    queue_.advance(60);
    EXPECT_EQ(made_.size(), 2u);
}

TEST_F(CastSupervisorTest, ATVWithoutTheSyncReceiverFallsBackWithNoTrace) {
    supervisor_ = make(true);
    reconcile();
    ASSERT_TRUE(last().synced);
    EXPECT_EQ(prepared_.back().second, 48000.0);
    last().say(CastStatus::Kind::connecting);
    const size_t changes = changed_.size();
    last().say(CastStatus::Kind::failed, "sync receiver unavailable");
    ASSERT_EQ(made_.size(), 2u);
    EXPECT_TRUE(made_[0]->stopped);
    EXPECT_FALSE(last().synced);
    EXPECT_EQ(prepared_.back().second, 44100.0);
    EXPECT_EQ(words(2), "Cast · starting on the TV") << "never a failure";
    EXPECT_EQ(supervisor_->tries(2), 0);
    EXPECT_TRUE(supervisor_->syncUnavailable("tv1"));
    EXPECT_GE(changed_.size(), changes);

    // The user's own try asks the TV again.
    supervisor_->reconnect(2, "tv1");
    EXPECT_FALSE(supervisor_->syncUnavailable("tv1"));
    EXPECT_TRUE(last().synced);
}

TEST_F(CastSupervisorTest, RowsBehindARemovedOneGetSendersForTheirNewSlots) {
    rows_ = {{2, "tv1"}, {4, "tv2"}};
    devices_.push_back({"tv2", "Bedroom TV", std::string("10.0.0.10"), 8009});
    reconcile();
    ASSERT_EQ(made_.size(), 2u);
    auto first = made_[0];
    auto second = made_[1];
    second->say(CastStatus::Kind::unreachable, {}, 4000);

    rows_ = {{3, "tv2"}};  // the model's rows after the removal
    supervisor_->removed(2);
    EXPECT_TRUE(first->stopped);
    EXPECT_TRUE(supervisor_->held(3)) << "held rows stay held at their new slot";
    EXPECT_EQ(made_.size(), 2u);
    first->say(CastStatus::Kind::failed, "late words");
    EXPECT_FALSE(supervisor_->status(2)) << "a stopped sender is not heard";

    supervisor_->reconnect(3, "tv2");
    ASSERT_EQ(made_.size(), 3u);
    EXPECT_EQ(last().target.id, "tv2");
    EXPECT_EQ(prepared_.back().first, 3);
    last().say(CastStatus::Kind::streaming);
    last().onLatency(1100.0);
    EXPECT_EQ(supervisor_->status(3)->kind, CastStatus::Kind::streaming);
    EXPECT_EQ(latencies_.back(), (std::pair<int, double>{3, 1100.0}));
    second->say(CastStatus::Kind::failed, "old");
    EXPECT_EQ(supervisor_->status(3)->kind, CastStatus::Kind::streaming);
}

}  // namespace
}  // namespace vt::cast
