// Cast rows in the model: a TV found on the network becomes a row, its
// sender starts with playing, and what the sender reports becomes the row's
// words, latency, notice and the delays of the others.
#include "discovery/fake_service_browser.h"
#include "model_fixture.h"

namespace vt::model::test {
namespace {

struct ScriptedSender final : cast::CastOutputSender {
    cast::CastTarget target;
    bool started = false, stopped = false;
    void start() override { started = true; }
    void stop() override { stopped = true; }
    void send(std::optional<sendspin::TrackInfo>) override {}
};

class CastRowsTest : public ModelTest {
  protected:
    ~CastRowsTest() override { model.reset(); }
    // A model whose Cast rows get scripted senders.
    AppModel& launchWithCast() {
        AppModel& m = launch();
        m.enableDiscovery(network);
        m.enableCast([this](const cast::CastTarget& target, int, bool) {
            auto sender = std::make_shared<ScriptedSender>();
            sender->target = target;
            senders.push_back(sender);
            return sender;
        });
        settle();
        return m;
    }
    void tvOnline() {
        network.announce("_googlecast._tcp", {{"Chromecast-1",
                                               {{"id", "c1"}, {"fn", "Lounge TV"}},
                                               discovery::ServiceAddress{"10.0.0.9", 8009}}});
        settle();
    }
    AppModel& launchWithTV() {
        AppModel& m = launchWithCast();
        tvOnline();
        return m;
    }
    void say(cast::CastStatus status) {
        senders.back()->onStatus(status);
        settle();
    }
    discovery::FakeServiceBrowser network{main};
    std::vector<std::shared_ptr<ScriptedSender>> senders;
};

TEST_F(CastRowsTest, ATVRowPlaysOnceStartedAndItsLagHoldsTheOthersBack) {
    AppModel& m = launchWithTV();
    ASSERT_TRUE(m.addOutput("living"));
    ASSERT_TRUE(m.addCastOutput("c1"));
    EXPECT_FALSE(m.addCastOutput("c1")) << "one row per TV";
    settle();
    const int slot = 1;
    EXPECT_EQ(m.meta(m.rows()[slot]), "Google Cast");
    EXPECT_TRUE(senders.empty()) << "nothing plays before the switch";

    m.startStop();
    settle();
    ASSERT_EQ(senders.size(), 1u);
    EXPECT_TRUE(senders[0]->started);
    EXPECT_EQ(senders[0]->target.host, "10.0.0.9");
    EXPECT_EQ(m.meta(m.rows()[slot]), "Cast · starting on the TV");

    say({cast::CastStatus::Kind::buffering});
    EXPECT_EQ(m.meta(m.rows()[slot]), "Cast · lining up with the others");
    say({cast::CastStatus::Kind::streaming});
    senders[0]->onLatency(1234.0);
    settle();
    EXPECT_EQ(m.meta(m.rows()[slot]), "Cast · streaming · 1.2 s lag, auto-synced");
    EXPECT_EQ(m.rows()[slot].streamLatencyMs, 1234.0);
    const auto delays = m.engineDelays();
    ASSERT_GE(delays.size(), 2u);
    EXPECT_NEAR(delays[0] - delays[1],
                1234.0 - m.rows()[0].streamLatencyMs - m.rows()[0].measuredLatencyMs, 1.0)
        << "the speaker waits for the TV";

    m.startStop();
    settle();
    EXPECT_TRUE(senders[0]->stopped);
    EXPECT_EQ(m.meta(m.rows()[slot]), "Google Cast");
    EXPECT_EQ(m.rows()[slot].streamLatencyMs, 0.0);
}

TEST_F(CastRowsTest, AnAttemptPastTwelveSecondsIsStalledAndARetryStartsItsOwnClock) {
    AppModel& m = launchWithTV();
    ASSERT_TRUE(m.addOutput("living"));
    ASSERT_TRUE(m.addCastOutput("c1"));
    m.startStop();
    settle();
    main.advance(12.5);
    settle();
    EXPECT_TRUE(m.rows()[1].connectStalled);
    say(cast::CastStatus::failed("the TV did not start its player"));
    main.advance(1.6);
    settle();
    ASSERT_EQ(senders.size(), 2u) << "the first retry";
    EXPECT_FALSE(m.rows()[1].connectStalled);
    main.advance(6);
    settle();
    EXPECT_FALSE(m.rows()[1].connectStalled);
    say({cast::CastStatus::Kind::streaming});
    main.advance(13);
    settle();
    EXPECT_FALSE(m.rows()[1].connectStalled);
    m.startStop();
    settle();
    EXPECT_FALSE(m.rows()[1].connectingSince);
}

TEST_F(CastRowsTest, AFirewallRaisesItsNoticeAndTryAgainStartsAfresh) {
    AppModel& m = launchWithTV();
    ASSERT_TRUE(m.addOutput("living"));
    ASSERT_TRUE(m.addCastOutput("c1"));
    m.startStop();
    settle();
    say({cast::CastStatus::Kind::unreachable, {}, 45123});
    EXPECT_EQ(m.meta(m.rows()[1]), "Cast · the firewall blocks the TV");
    const auto notice = m.noticeFor(m.rows()[1]);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->id, "cast-firewall");
    EXPECT_EQ(notice->title, "The firewall blocks Lounge TV");
    EXPECT_NE(notice->why->find("TCP port 45123"), std::string::npos);
    EXPECT_TRUE(m.canReconnect(1));
    main.advance(30);
    settle();
    EXPECT_EQ(senders.size(), 1u) << "held for the user's word";

    m.act(*notice, NoticeButton::primary);
    settle();
    ASSERT_EQ(senders.size(), 2u);
    EXPECT_TRUE(senders[1]->started);
    EXPECT_FALSE(m.noticeFor(m.rows()[1]));
}

TEST_F(CastRowsTest, ARowAwayFromTheNetworkSaysSoAndARemovedRowBeforeItRebuildsItsSender) {
    AppModel& m = launchWithTV();
    ASSERT_TRUE(m.addOutput("living"));
    ASSERT_TRUE(m.addOutput("kitchen"));
    ASSERT_TRUE(m.addCastOutput("c1"));
    m.startStop();
    settle();
    ASSERT_EQ(senders.size(), 1u);
    m.removeOutput(1);
    settle();
    EXPECT_TRUE(senders[0]->stopped);
    ASSERT_EQ(senders.size(), 2u) << "the TV's row moved up a slot and got a new sender";
    EXPECT_TRUE(senders[1]->started);

    network.announce("_googlecast._tcp", {});
    settle();
    EXPECT_TRUE(senders[1]->stopped);
    EXPECT_EQ(m.meta(m.rows()[1]), "Cast · not on network");
}

TEST_F(CastRowsTest, ACastRowIsKeptBetweenRunsAndPlaysWhenItsTVIsBack) {
    AppModel& m = launchWithTV();
    ASSERT_TRUE(m.addOutput("living"));
    ASSERT_TRUE(m.addCastOutput("c1"));
    m.rename(1, std::string("Big screen"));
    settle();

    AppModel& again = launchWithCast();
    ASSERT_EQ(again.rows().size(), 2u);
    EXPECT_EQ(again.rows()[1].castID, "c1");
    EXPECT_EQ(again.rows()[1].shownName(), "Big screen");
    again.startStop();
    settle();
    EXPECT_TRUE(senders.empty()) << "its TV has not been seen yet";
    EXPECT_EQ(again.meta(again.rows()[1]), "Cast · not on network");
    tvOnline();
    ASSERT_EQ(senders.size(), 1u);
    EXPECT_TRUE(senders[0]->started);
    again.startStop();
    settle();
}

}  // namespace
}  // namespace vt::model::test
