// The model's side of the invitation, which needs no Qt and so runs in the
// sanitizer build too.
#include "model_fixture.h"

namespace vt::model::test {
namespace {

using Event = guests::GuestServer::Event;

class InvitationModelTest : public ModelTest {
  protected:
    void enableGuests(AppModel& m) {
        GuestSetup setup;
        setup.root = dir;
        setup.port = 0;
        setup.options.bindAddress = "127.0.0.1";
        setup.options.allowsLoopbackHost = true;
        m.enableGuests(setup);
    }
};

TEST_F(InvitationModelTest, OpeningStartsTheServerOnceWithoutPlayingAndCountsGuests) {
    AppModel& m = withRows({"speakers", "living"});
    int changes = 0;
    m.onStateChanged = [&] { ++changes; };

    m.openInvitation();
    EXPECT_EQ(m.guestServer(), nullptr);  // guests not enabled: nothing starts

    enableGuests(m);
    m.openInvitation();
    ASSERT_NE(m.guestServer(), nullptr) << m.guestServerError().value_or("no error");
    EXPECT_FALSE(m.isRunning());
    EXPECT_FALSE(m.guestServerError());
    const uint16_t port = m.guestServer()->port();
    EXPECT_NE(port, 0);
    if (m.guestLink()) {
        EXPECT_EQ(m.guestLink()->port, port);
    }
    EXPECT_EQ(m.guestLink().has_value(), guests::GuestServer::lanIPv4().has_value());
    EXPECT_GT(changes, 0);

    guests::GuestServer* server = m.guestServer();
    m.openInvitation();
    EXPECT_EQ(m.guestServer(), server);

    EXPECT_EQ(m.guestCount(), 0);
    m.guestParty()->handle({Event::Kind::joined, "ann-phone", "Ann", 1, {}});
    m.guestParty()->handle({Event::Kind::joined, "bob-phone", "Bob", 2, {}});
    settle();
    EXPECT_EQ(m.guestCount(), 2);
    m.removeOutput(0);
    settle();
    EXPECT_EQ(m.guestCount(), 2);
    m.onStateChanged = nullptr;
}

}  // namespace
}  // namespace vt::model::test
