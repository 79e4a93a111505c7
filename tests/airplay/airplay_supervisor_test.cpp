// Supervision's rules on the virtual clock, with senders that only report
// what the test tells them: retries and giving up, approvals, passwords,
// clock recovery, rows moving, receivers leaving.
#include "airplay/airplay_supervisor.h"

#include <gtest/gtest.h>

#include "dispatch/virtual_main_queue.h"

namespace vt::airplay {
namespace {

using Kind = AirPlayStatus::Kind;

// Its stop is recorded by its number, since the supervisor may free it.
class ScriptedSender final : public AirPlaySender {
  public:
    ScriptedSender(Config c, dispatch::MainQueue& q, std::vector<ScriptedSender*>& made,
                   std::vector<bool>& stops)
        : AirPlaySender(std::move(c), q), made_(made), stops_(stops), index_(made.size()) {
        made_.push_back(this);
        stops_.push_back(false);
    }
    ~ScriptedSender() override { made_[index_] = nullptr; }
    void start() override { started = true; }
    void stop() override { stops_[index_] = true; }
    void send(const Metadata&) override {}
    void say(Kind kind) {
        if (onStatus) onStatus({kind, kind == Kind::failed ? "gone" : ""});
    }
    bool started = false;

  private:
    std::vector<ScriptedSender*>& made_;
    std::vector<bool>& stops_;
    size_t index_;
};

// The shared PTP daemon: it runs once started, unless it cannot.
class FakeClock final : public SharedClock {
  public:
    bool isRunning() override { return running; }
    bool ensureRunning(const std::filesystem::path&, const std::optional<std::string>&,
                       const std::string&) override {
        if (!running) ++starts;
        running = canRun;
        return running;
    }
    void stop() override {
        if (running) ++stops;
        running = false;
    }
    bool canRun = true, running = false;
    int starts = 0, stops = 0;
};

class SupervisorTest : public ::testing::Test {
  protected:
    SupervisorTest() {
        AirPlaySupervisor::Hooks h;
        h.engineRunning = [this] { return running_; };
        h.rows = [this] { return rows_; };
        h.tool = [] { return std::filesystem::path("/bin/true"); };
        h.prepareSlot = [](int) {};
        h.render = [](int, float*, uint32_t) {};
        h.statusChanged = [this](int slot, const std::optional<AirPlayStatus>& s, bool) {
            shown_[slot] = s;
        };
        h.latencyChanged = [this](int slot, double ms) { latency_[slot] = ms; };
        h.connectingChanged = [](int, bool) {};
        h.askPassword = [this](int slot) { asked_.push_back(slot); };
        h.askPairing = [this](int slot) { pairingAsked_.push_back(slot); };
        h.credential = [this](const std::string& id) -> std::optional<AirPlayCredential> {
            auto it = credentials_.find(id);
            return it == credentials_.end() ? std::nullopt : std::optional(it->second);
        };
        h.password = [this](const std::string& id) -> std::optional<std::string> {
            auto it = passwords_.find(id);
            return it == passwords_.end() ? std::nullopt : std::optional(it->second);
        };
        h.route = [this](const std::string& id) -> std::optional<std::string> {
            auto it = routes_.find(id);
            return it == routes_.end() ? std::nullopt : std::optional(it->second);
        };
        h.setRoute = [this](const std::string& id, const std::optional<std::string>& r) {
            if (r)
                routes_[id] = *r;
            else
                routes_.erase(id);
        };
        h.deviceID = [] { return std::string("02:00:00:00:00:01"); };
        h.makeSender = [this](AirPlaySender::Config c) {
            configs_.push_back(c);
            return std::make_unique<ScriptedSender>(std::move(c), queue_, made_, stops_);
        };
        h.clock = &clock_;
        sup_ = std::make_unique<AirPlaySupervisor>(queue_, std::move(h));
    }

    static discovery::AirPlayReceiver receiver(const std::string& id, bool airplay2 = false,
                                               const char* model = "AirPort10,115") {
        discovery::AirPlayReceiver r;
        r.id = r.name = id;
        r.host = "10.0.0.2";
        r.port = 5000;
        r.supportsAirPlay2 = airplay2;
        r.txt["am"] = model;
        return r;
    }
    // The newest sender, and how many were made.
    ScriptedSender* last() { return made_.empty() ? nullptr : made_.back(); }
    size_t count() const { return made_.size(); }
    void fail() { last()->say(Kind::failed); }

    dispatch::VirtualMainQueue queue_;
    bool running_ = true;
    std::vector<AirPlaySupervisor::Row> rows_;
    std::map<int, std::optional<AirPlayStatus>> shown_;
    std::map<int, double> latency_;
    std::vector<int> asked_, pairingAsked_;
    std::map<std::string, AirPlayCredential> credentials_;
    std::map<std::string, std::string> passwords_, routes_;
    std::vector<AirPlaySender::Config> configs_;
    std::vector<ScriptedSender*> made_;
    std::vector<bool> stops_;
    FakeClock clock_;
    std::unique_ptr<AirPlaySupervisor> sup_;
};

TEST_F(SupervisorTest, AnAirPlay1ReceiverIsLaunchedForNtpOnTheRaopRoute) {
    rows_ = {{0, "Kitchen"}, {1, "Den"}};
    sup_->setReceivers({receiver("Kitchen"), receiver("Den", true)});
    ASSERT_EQ(configs_.size(), 2u);
    EXPECT_EQ(configs_[0].timing, "ntp");
    EXPECT_EQ(configs_[0].route, "raop");
    EXPECT_EQ(configs_[1].timing, "ptp");
    EXPECT_EQ(configs_[1].route, "airplay2");
    EXPECT_TRUE(made_[0]->started);
}

TEST_F(SupervisorTest, FailuresAreRetriedAtOneAndAHalfThreeSixAndEightSecondsThenGivenUp) {
    rows_ = {{0, "Kitchen"}};
    sup_->setReceivers({receiver("Kitchen")});
    const double waits[] = {1.5, 3.0, 6.0, 8.0};
    for (double wait : waits) {
        const size_t before = count();
        fail();
        fail();  // a failure while a retry waits does not count
        queue_.advance(wait - 0.01);
        EXPECT_EQ(count(), before) << wait;
        queue_.advance(0.02);
        EXPECT_EQ(count(), before + 1) << wait;
    }
    fail();
    queue_.advance(60);
    EXPECT_EQ(count(), 5u);  // the first try and four retries
    EXPECT_EQ(sup_->status(0)->kind, Kind::failed);
    EXPECT_EQ(airplaySubtitle(false, sup_->status(0), 0, false), "AirPlay · unavailable");

    // The user's try again: every 6 s, with no end, until it plays once.
    sup_->reconnect(0);
    EXPECT_EQ(count(), 6u);
    for (int i = 0; i < 5; ++i) {
        fail();
        queue_.advance(8.01);
    }
    EXPECT_EQ(count(), 11u);
    fail();
    queue_.advance(6.01);
    EXPECT_EQ(count(), 12u);
    for (int i = 0; i < 100; ++i) {
        fail();
        queue_.advance(6.01);
    }
    EXPECT_EQ(count(), 112u);
    EXPECT_LE(sup_->timersHeld(), 2u);
    last()->say(Kind::streaming);
    for (int i = 0; i < 5; ++i) {
        fail();
        queue_.advance(8.01);
    }
    fail();
    queue_.advance(60);
    EXPECT_EQ(count(), 116u);  // streaming ended the keep-trying
}

TEST_F(SupervisorTest, AReceiverWaitingForApprovalIsAskedThreeTimesThenLeftSayingWhy) {
    rows_ = {{0, "Office"}, {1, "Den"}};
    sup_->setReceivers({receiver("Office", true, "Mac14,2"), receiver("Den", true)});
    // On an Apple model a stalled clock is a stream nobody accepted: it
    // counts among the approval tries.
    ScriptedSender* office = made_[0];
    for (int i = 0; i < 3; ++i) {
        const size_t before = count();
        office->say(i == 0 ? Kind::clockStalled : Kind::needsApproval);
        queue_.advance(2.99);
        EXPECT_EQ(count(), before);
        queue_.advance(0.02);
        ASSERT_EQ(count(), before + 1);
        office = last();
    }
    EXPECT_EQ(count(), 5u);
    office->say(Kind::needsApproval);
    queue_.advance(60);
    EXPECT_EQ(count(), 5u);
    EXPECT_TRUE(sup_->isExhausted(0));
    EXPECT_TRUE(stops_[4]);
    EXPECT_FALSE(sup_->hasSender(0));
    EXPECT_EQ(airplaySubtitle(false, sup_->status(0), 0, false),
              "AirPlay · waiting for that Mac to allow it");
    // Elsewhere a stalled clock is an ordinary failure, retried at 1.5 s.
    made_[1]->say(Kind::clockStalled);
    queue_.advance(1.51);
    ASSERT_EQ(count(), 6u);
    EXPECT_EQ(configs_.back().receiver.id, "Den");
    // With try again it keeps asking, every 6 s after the third.
    sup_->reconnect(0);
    for (int i = 0; i < 3; ++i) {
        last()->say(Kind::needsApproval);
        queue_.advance(3.01);
    }
    const size_t before = count();
    last()->say(Kind::needsApproval);
    queue_.advance(5.99);
    EXPECT_EQ(count(), before);
    queue_.advance(0.02);
    EXPECT_EQ(count(), before + 1);
    EXPECT_FALSE(sup_->isExhausted(0));
}

TEST_F(SupervisorTest, ARefusedPasswordAsksOnceForAnAirPlay1ReceiverAndAGivenOneRetries) {
    rows_ = {{0, "Kitchen"}};
    sup_->setReceivers({receiver("Kitchen")});
    last()->say(Kind::passwordRequired);
    EXPECT_EQ(asked_, std::vector<int>{0});
    EXPECT_TRUE(sup_->isExhausted(0));
    EXPECT_EQ(airplaySubtitle(false, sup_->status(0), 0, false), "AirPlay · needs its password");
    sup_->reconcile();
    EXPECT_EQ(count(), 1u);  // given up until the user answers
    passwords_["Kitchen"] = "hunter2";
    sup_->passwordGiven(0);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(configs_.back().password, "hunter2");
}

TEST_F(SupervisorTest, AuthenticationWantedIsAPasswordOnAirPlay1AndAPairingWhereACodeIsShown) {
    rows_ = {{0, "Kitchen"}, {1, "Den"}, {2, "TV"}};
    sup_->setReceivers(
        {receiver("Kitchen"), receiver("Den", true), receiver("TV", true, "AppleTV6,2")});
    made_[0]->say(Kind::authRequired);
    made_[1]->say(Kind::authRequired);
    made_[2]->say(Kind::authRequired);
    EXPECT_EQ(asked_, std::vector<int>{0});
    EXPECT_EQ(sup_->status(0)->kind, Kind::passwordRequired);
    EXPECT_EQ(sup_->status(1)->kind, Kind::authRequired);  // AirPlay 2, but shows no code
    EXPECT_EQ(pairingAsked_, std::vector<int>{2});

    // Paired: the next sender hands the credential on, and a refusal of it
    // is left to the row's menu rather than asked again.
    credentials_["TV"] = {"02:00:00:00:00:09", "c0ffee"};
    sup_->passwordGiven(2);
    EXPECT_EQ(configs_.back().credential, credentials_["TV"]);
    last()->say(Kind::authRequired);
    EXPECT_EQ(pairingAsked_, std::vector<int>{2});
}

TEST_F(SupervisorTest, AStoredPasswordRefusedOnAirPlay2TriesTheCompatibleRouteFirst) {
    rows_ = {{0, "Den"}};
    passwords_["Den"] = "old";
    sup_->setReceivers({receiver("Den", true)});
    last()->say(Kind::passwordRequired);
    EXPECT_TRUE(asked_.empty());
    ASSERT_EQ(count(), 2u);
    EXPECT_EQ(configs_.back().route, "airplay2-compat");
    EXPECT_EQ(configs_.back().password, "old");
    last()->say(Kind::passwordRequired);
    EXPECT_EQ(asked_, std::vector<int>{0});
    EXPECT_FALSE(routes_.count("Den"));  // back to the native route
}

TEST_F(SupervisorTest, RowsBehindARemovedOneGetNewSendersAndFreshCounts) {
    rows_ = {{0, "A"}, {1, "B"}, {2, "C"}, {3, "D"}};
    sup_->setReceivers({receiver("A"), receiver("B"), receiver("C"), receiver("D")});
    ASSERT_EQ(count(), 4u);
    made_[3]->say(Kind::needsApproval);
    // Row 1 goes; C and D move up to 1 and 2.
    rows_ = {{0, "A"}, {1, "C"}, {2, "D"}};
    sup_->rebuild(1);
    EXPECT_TRUE(stops_[2]);
    EXPECT_TRUE(stops_[3]);
    EXPECT_FALSE(stops_[0]);
    ASSERT_EQ(count(), 6u);
    EXPECT_EQ(configs_[4].receiver.id, "C");
    EXPECT_EQ(configs_[5].receiver.id, "D");
    // The old D's approval timer went with it.
    queue_.advance(10);
    EXPECT_EQ(count(), 6u);
}

TEST_F(SupervisorTest, AReceiverThatLeavesLosesItsSenderAndLatencyAndLateReportsAreIgnored) {
    rows_ = {{0, "Kitchen"}};
    sup_->setReceivers({receiver("Kitchen")});
    last()->onLatency(2210);
    EXPECT_EQ(latency_[0], 2210);
    sup_->setReceivers({});
    EXPECT_TRUE(stops_[0]);
    EXPECT_EQ(latency_[0], 0);
    EXPECT_FALSE(shown_[0]);
    EXPECT_EQ(airplaySubtitle(true, std::nullopt, 0, false), "AirPlay · not on network");
    EXPECT_FALSE(sup_->hasSender(0));
    // The engine stopping stops every sender.
    sup_->setReceivers({receiver("Kitchen")});
    ASSERT_EQ(count(), 2u);
    running_ = false;
    sup_->reconcile();
    EXPECT_TRUE(stops_[1]);
}

TEST_F(SupervisorTest, AClockUnsharedRetriesOnceThenRecoversTheClockTwiceInOneRunAndNoMore) {
    rows_ = {{0, "Den"}};
    sup_->setReceivers({receiver("Den", true)});
    EXPECT_EQ(clock_.starts, 1);
    EXPECT_TRUE(configs_.back().ptpShared);
    // The first report with the daemon running may be the daemon settling:
    // an ordinary retry, the daemon kept.
    last()->say(Kind::clockUnshared);
    queue_.advance(1.51);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(clock_.stops, 0);
    for (int recovery = 1; recovery <= 2; ++recovery) {
        const size_t before = count();
        if (recovery == 2) last()->say(Kind::clockUnshared);  // counted afresh after a recovery
        last()->say(Kind::clockUnshared);
        EXPECT_TRUE(stops_.back());
        EXPECT_EQ(clock_.stops, recovery);
        queue_.advance(1.01);
        EXPECT_EQ(count(), before + 1);
        EXPECT_EQ(clock_.starts, recovery + 1);  // a new daemon, started by the new sender
    }
    last()->say(Kind::clockUnshared);
    last()->say(Kind::clockUnshared);
    EXPECT_EQ(airplaySubtitle(false, sup_->status(0), 0, false),
              "AirPlay · clock in use, retrying");
    queue_.advance(30);
    EXPECT_EQ(clock_.stops, 2);  // no third recovery in one run
    // Stopping the engine stops the daemon; a new run may recover again.
    sup_->engineStopped();
    EXPECT_FALSE(clock_.running);
    sup_->engineStarted();
    sup_->reconnect(0);
    last()->say(Kind::clockUnshared);
    last()->say(Kind::clockUnshared);
    EXPECT_EQ(clock_.stops, 4);
}

TEST_F(SupervisorTest, WithoutADaemonSendersGoAloneAndTheFirstUnsharedRecovers) {
    clock_.canRun = false;  // no privilege for the PTP ports
    rows_ = {{0, "Den"}, {1, "Kitchen"}};
    sup_->setReceivers({receiver("Den", true), receiver("Kitchen")});
    EXPECT_FALSE(configs_[0].ptpShared);
    EXPECT_EQ(clock_.starts, 1);  // tried for the AirPlay 2 receiver only
    made_[0]->say(Kind::clockUnshared);
    EXPECT_TRUE(stops_[0]);
    EXPECT_TRUE(stops_[1]);  // every sender goes in a recovery
    queue_.advance(1.01);
    EXPECT_EQ(count(), 4u);
    EXPECT_EQ(clock_.starts, 2);
}

TEST(AirPlaySubtitle, StreamingShowsItsLagInSeconds) {
    const AirPlayStatus streaming{Kind::streaming, {}};
    EXPECT_EQ(airplaySubtitle(false, streaming, 2210, false),
              "AirPlay · streaming · 2.2 s lag, auto-synced");
    EXPECT_EQ(airplaySubtitle(false, streaming, 0, false), "AirPlay · streaming");
    const AirPlayStatus stalled{Kind::clockStalled, {}};
    EXPECT_EQ(airplaySubtitle(false, stalled, 0, true),
              "AirPlay · leads its own group, will not follow this computer");
}

}  // namespace
}  // namespace vt::airplay
