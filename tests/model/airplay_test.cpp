// AirPlay rows through the model: the tool found beside it or named by the
// environment, a row's sender started with Start and stopped with Stop, the
// subtitle it shows, and the password sheet.
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "discovery/fake_service_browser.h"
#include "model_fixture.h"
#include "secrets/file_secret_store.h"

namespace vt::model::test {
namespace {

using Kind = airplay::AirPlayStatus::Kind;

class AirPlayModelTest : public ModelTest {
  protected:
    AirPlayModelTest() {
        setenv("VELLATONE_CLIAIRPLAY", VELLATONE_FAKE_AIRPLAY_TOOL, 1);
        setenv("FAKE_TOOL_DIR", dir.c_str(), 1);
        for (const char* v : {"FAKE_TOOL_OUT", "FAKE_TOOL_ERR", "FAKE_TOOL_ON_START",
                              "FAKE_TOOL_EXIT", "FAKE_PAIR_ERR", "FAKE_PAIR_EXIT"})
            unsetenv(v);
    }
    ~AirPlayModelTest() override { model.reset(); }

    AppModel& launchWithKitchen() {
        AppModel& m = launch();
        m.enableDiscovery(network);
        m.enableAirPlay(secrets);
        m.addOutput("living");
        network.announce("_raop._tcp", {{"A1B2C3D4E5F6@Kitchen",
                                         {{"et", "0,1"}},
                                         discovery::ServiceAddress{"192.0.2.7", 5000}}});
        settle();
        EXPECT_TRUE(m.addAirPlayOutput("Kitchen"));
        settle();
        return m;
    }
    // Real time passes for the tool; the model's queue runs in between.
    bool waitFor(const std::function<bool()>& done) {
        for (int i = 0; i < 500; ++i) {
            settle();
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    const RowState& kitchen() { return model->rows()[1]; }

    discovery::FakeServiceBrowser network{main};
    secrets::FileSecretStore secrets{dir / "data"};
};

TEST_F(AirPlayModelTest, StartPlaysTheRowAndItsLagReachesTheSubtitleAndTheDelays) {
    setenv("FAKE_TOOL_OUT", "[STATUS] route protocol=raop timing=ntp\\n", 1);
    setenv("FAKE_TOOL_ERR", "[STATUS] connected\\n", 1);
    setenv("FAKE_TOOL_ON_START",
           "[STATUS] latency lead_ms=2210\\n[STATUS] started requested_unix_ms=0 at_unix_ms=9\\n",
           1);
    AppModel& m = launchWithKitchen();
    EXPECT_EQ(m.meta(kitchen()), "AirPlay");
    EXPECT_FALSE(m.airplay()->hasSender(1));  // nothing plays before Start
    m.startStop();
    // The tool's lines reach the model one task each: wait for the last one.
    ASSERT_TRUE(waitFor([&] {
        return kitchen().streamLatencyMs > 0 && kitchen().airplayStatus &&
               kitchen().airplayStatus->kind == Kind::streaming;
    }));
    EXPECT_TRUE(kitchen().connected);
    EXPECT_EQ(m.meta(kitchen()), "AirPlay · streaming · 2.2 s lag, auto-synced");
    // The speaker is held back by the receiver's lag.
    EXPECT_NEAR(engineDelay(0) - engineDelay(1), 2210, 1);
    m.startStop();
    EXPECT_FALSE(m.airplay()->hasSender(1));
    EXPECT_EQ(kitchen().streamLatencyMs, 0);
    EXPECT_EQ(m.meta(kitchen()), "AirPlay");
}

TEST_F(AirPlayModelTest, ARefusedPasswordOpensTheSheetOnceAndTheAnswerIsKeptAndTried) {
    setenv("FAKE_TOOL_ERR", "[STATUS] error code=auth_failed http=401\\n[ERROR] refused\\n", 1);
    AppModel& m = launchWithKitchen();
    m.startStop();
    ASSERT_TRUE(waitFor([&] { return m.passwordReceiverID().has_value(); }));
    EXPECT_EQ(m.passwordReceiverID(), "Kitchen");
    EXPECT_EQ(m.passwordReceiverName(), "Kitchen");
    EXPECT_FALSE(m.passwordRejected());
    EXPECT_EQ(m.meta(kitchen()), "AirPlay · needs its password");

    m.submitPassword("hunter2");
    EXPECT_FALSE(m.passwordReceiverID());
    EXPECT_EQ(secrets.get("Vellatone AirPlay password", "Kitchen"), "hunter2");
    // The new try is refused too: the sheet says the kept one was refused.
    ASSERT_TRUE(waitFor([&] { return m.passwordReceiverID().has_value(); }));
    EXPECT_TRUE(m.passwordRejected());
    m.startStop();
}

TEST_F(AirPlayModelTest, AReceiverThatTurnsUsAwayRaisesItsNoticeAndTryAgainTriesAgain) {
    setenv("FAKE_TOOL_ERR", "[STATUS] error code=connect_failed http=403\\n[ERROR] no\\n", 1);
    AppModel& m = launchWithKitchen();
    m.setLocalInterfaces([] {
        return std::vector<discovery::LocalInterface>{{"eth0", 0xC0A80105, 0xFFFFFF00},
                                                      {"wlan0", 0xC0A80107, 0xFFFFFF00}};
    });
    m.startStop();
    ASSERT_TRUE(waitFor([&] { return m.noticeFor(kitchen()).has_value(); }));
    const Notice forbidden = *m.noticeFor(kitchen());
    EXPECT_EQ(forbidden.title, "Kitchen only allows its own user");
    EXPECT_EQ(m.noticeSlots("forbidden"), std::vector<int>{1});
    bool multihomed = false;
    for (const Notice& n : m.notices()) multihomed = multihomed || n.id == "multihomed";
    EXPECT_TRUE(multihomed);

    // Try again: a new sender, turned away again.
    m.act(forbidden, NoticeButton::primary);
    EXPECT_FALSE(m.noticeFor(kitchen()));
    ASSERT_TRUE(waitFor([&] { return m.noticeFor(kitchen()).has_value(); }));
    m.startStop();
}

TEST_F(AirPlayModelTest, ATvThatWantsPairingOpensThePinSheetAndTheCredentialIsUsedNext) {
    setenv("FAKE_TOOL_ERR", "[STATUS] error code=auth_required http=470\\n[ERROR] pair\\n", 1);
    setenv("FAKE_PAIR_CODE", "3939", 1);
    AppModel& m = launch();
    m.enableDiscovery(network);
    m.enableAirPlay(secrets);
    m.addOutput("living");
    network.announce("_airplay._tcp", {{"TV",
                                        {{"model", "AppleTV6,2"}, {"features", "0x5A7FFFF7,0x1E"}},
                                        discovery::ServiceAddress{"192.0.2.8", 7000}}});
    settle();
    ASSERT_TRUE(m.addAirPlayOutput("TV"));
    settle();
    m.startStop();
    // The sheet and the row's words come from separate lines of the tools,
    // each handled as its own task: wait for both.
    ASSERT_TRUE(waitFor([&] {
        return m.pairingAwaitingPIN() && m.meta(m.rows()[1]) == "AirPlay · needs pairing";
    })) << m.meta(m.rows()[1]);
    EXPECT_EQ(m.pairingReceiverName(), "TV");

    m.submitPIN("3 9 3 9");
    ASSERT_TRUE(waitFor([&] { return !m.pairingReceiverID().has_value(); }));
    const auto kept = m.airplayCredential("TV");
    ASSERT_TRUE(kept);
    EXPECT_EQ(*kept, (airplay::AirPlayCredential{m.airplayDeviceID(), "0123abcd"}));
    // The refused sender makes way for one that hands the credential on.
    ASSERT_TRUE(waitFor([&] {
        std::ifstream in(dir / "args");
        std::stringstream text;
        text << in.rdbuf();
        return text.str().find("--auth\n0123abcd\n") != std::string::npos;
    }));
    // Refused again with it: the sheet does not open by itself a second time.
    settle();
    EXPECT_FALSE(m.pairingReceiverID());
    m.startStop();
}

TEST_F(AirPlayModelTest, LaunchDropsPairingsMadeUnderAnotherIdAndLastRunsTimingFlags) {
    launch();
    settings->setValue("airplayDeviceID", "02:11:22:33:44:55");
    settings->setValue("airplayCreds",
                       {{"Kitchen", {{"dacp", "02:11:22:33:44:55"}, {"creds", "k"}}},
                        {"Study", {{"dacp", "06:AA:BB:CC:DD:EE"}, {"creds", "s"}}},
                        {"Odd", "not a credential"}});
    settings->setValue("airplayNTP", true);
    AppModel& m = launch();
    m.enableAirPlay(secrets);
    const nlohmann::json creds = settings->value("airplayCreds");
    EXPECT_EQ(creds.size(), 1u);
    EXPECT_EQ(creds["Kitchen"]["creds"], "k");
    EXPECT_TRUE(settings->value("airplayNTP").is_null());
}

}  // namespace
}  // namespace vt::model::test
