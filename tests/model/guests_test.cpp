// Guests as rows: a phone's join, its place behind the regular rows as rows
// come and go, and the party following the model's start and stop.
#include <filesystem>

#include "model_fixture.h"

namespace vt::model::test {
namespace {

using Event = guests::GuestServer::Event;

class GuestRowsTest : public ModelTest {
  protected:
    AppModel& playingWithGuests() {
        AppModel& m = withRows({"speakers", "living"});
        enableGuests();
        m.onStateChanged = [this] { ++changes; };
        m.startStop();
        settle();
        return m;
    }

    int slotOfGuest(const std::string& id) {
        for (int s = 0; s < int(model->rows().size()); ++s)
            if (model->rows()[s].guestID == id) return s;
        return -1;
    }

    int changes = 0;
};

TEST_F(GuestRowsTest, NoServerUntilEnabledAndTheInvitationStartsItOnceWithoutPlaying) {
    AppModel& m = withRows({"speakers", "living"});
    m.openInvitation();
    m.startStop();
    settle();
    EXPECT_EQ(m.guestServer(), nullptr);
    EXPECT_EQ(m.guestParty(), nullptr);
    m.startStop();
    settle();

    m.onStateChanged = [this] { ++changes; };
    enableGuests();
    m.openInvitation();
    ASSERT_NE(m.guestServer(), nullptr) << m.guestServerError().value_or("no error");
    EXPECT_FALSE(m.isRunning());
    EXPECT_FALSE(m.guestServerError());
    EXPECT_GT(changes, 0);
    const guests::GuestServer* server = m.guestServer();
    m.openInvitation();
    EXPECT_EQ(m.guestServer(), server);

    // The count is of phones, whatever happens to the regular rows.
    join("ann-phone", "Ann", 1);
    join("bob-phone", "Bob", 2);
    EXPECT_EQ(m.guestCount(), 2);
    m.removeOutput(0);
    settle();
    EXPECT_EQ(m.guestCount(), 2);
    m.onStateChanged = nullptr;
}

TEST_F(GuestRowsTest, JoiningGuestBecomesARowAfterTheRegularOnes) {
    AppModel& m = playingWithGuests();
    ASSERT_NE(m.guestParty(), nullptr);
    EXPECT_FALSE(m.guestServerError());
    EXPECT_TRUE(m.guestParty()->running());

    join("ann-phone", "Ann", 1);
    ASSERT_EQ(m.rows().size(), 3u);
    const RowState& row = m.rows()[2];
    EXPECT_EQ(row.guestID, "ann-phone");
    EXPECT_EQ(row.shownName(), "Guest \u00b7 Ann");
    EXPECT_EQ(m.meta(row), "Guest \u00b7 joining");
    EXPECT_EQ(row.streamLatencyMs, guests::GuestSender::streamLatencyMs());
    EXPECT_EQ(row.measuredLatencyMs, 0);
    EXPECT_EQ(row.latencySource, settings::LatencySource::reported);
    EXPECT_FALSE(row.memoryKey());
    EXPECT_EQ(m.guestParty()->slot("ann-phone"), 2);
    EXPECT_GT(changes, 0);

    // A regular row added later still goes ahead of the guest.
    EXPECT_TRUE(m.addOutput("kitchen"));
    settle();
    EXPECT_EQ(m.rows()[2].deviceUID, "kitchen");
    EXPECT_EQ(slotOfGuest("ann-phone"), 3);
    EXPECT_EQ(m.guestParty()->slot("ann-phone"), 3);
    // Guests are not stored as outputs.
    EXPECT_EQ(settings->outputCount(), 3);
}

TEST_F(GuestRowsTest, RemovalRenumbersAndRebindsTheGuestsBehind) {
    AppModel& m = playingWithGuests();
    join("ann-phone", "Ann", 1);
    join("bob-phone", "", 2);
    ASSERT_EQ(slotOfGuest("bob-phone"), 3);
    EXPECT_EQ(m.rows()[3].shownName(), "Guest");

    // The host throws Ann out: her sender goes and Bob moves up.
    ASSERT_TRUE(m.canRemove(2));
    m.removeOutput(2);
    settle();
    EXPECT_EQ(m.rows().size(), 3u);
    EXPECT_EQ(slotOfGuest("ann-phone"), -1);
    EXPECT_FALSE(m.guestParty()->slot("ann-phone"));
    EXPECT_EQ(m.guestParty()->count(), 1u);

    // A regular row going moves Bob again.
    m.removeOutput(0);
    settle();
    EXPECT_EQ(slotOfGuest("bob-phone"), 1);
    EXPECT_EQ(m.guestParty()->slot("bob-phone"), 1);

    // Bob's phone leaving for good takes his row.
    m.guestParty()->handle({Event::Kind::gone, "bob-phone", {}, 0, {}});
    settle();
    EXPECT_EQ(m.rows().size(), 1u);
    EXPECT_EQ(m.guestParty()->count(), 0u);
}

TEST_F(GuestRowsTest, StopPausesTheGuestsAndStartPlaysThemAgain) {
    AppModel& m = playingWithGuests();
    join("ann-phone", "Ann", 1);
    m.startStop();
    settle();
    EXPECT_FALSE(m.guestParty()->running());
    // The row stays while stopped.
    EXPECT_EQ(slotOfGuest("ann-phone"), 2);
    m.startStop();
    settle();
    EXPECT_TRUE(m.guestParty()->running());
}

}  // namespace
}  // namespace vt::model::test
