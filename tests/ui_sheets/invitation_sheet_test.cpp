// The invitation sheet's controller: the link or the reason there is none,
// the live count of phones, Copy turning into Copied, and the firewall hint
// after half a minute with nobody in.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QClipboard>
#include <QSignalSpy>

#include "sheet_fixture.h"
#include "ui/sheets/invitation_controller.h"

namespace vt::ui::test {
namespace {

using Event = guests::GuestServer::Event;

class InvitationTest : public SheetTest {
  protected:
    void SetUp() override {
        controllerWithRows({"speakers"});
        sheet.setClock([this] { return now; });
        sheet.setApp(app.get());
    }
    void TearDown() override {
        if (blocker >= 0) ::close(blocker);
        SheetTest::TearDown();
    }

    // A loopback port someone else already listens on.
    uint16_t takenPort() {
        blocker = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        EXPECT_EQ(listen(blocker, 1), 0);
        socklen_t length = sizeof a;
        getsockname(blocker, reinterpret_cast<sockaddr*>(&a), &length);
        return ntohs(a.sin_port);
    }

    double now = 100.0;
    int blocker = -1;
    InvitationSheetController sheet;
};

TEST_F(InvitationTest, OpeningStartsTheServerAndShowsItsLinkOrWhyNot) {
    // Without guests enabled nothing starts and there is nothing to copy.
    sheet.open();
    EXPECT_EQ(model->guestServer(), nullptr);
    EXPECT_FALSE(sheet.hasLink());
    sheet.copy();
    EXPECT_EQ(sheet.copyLabel(), "Copy");

    enableGuests();
    EXPECT_EQ(model->guestServer(), nullptr);
    sheet.open();
    ASSERT_NE(model->guestServer(), nullptr);
    const uint16_t port = model->guestServer()->port();

    // The address is the machine's own; without one the sheet says so.
    if (auto address = guests::GuestServer::lanIPv4()) {
        ASSERT_TRUE(sheet.hasLink());
        EXPECT_EQ(sheet.joinURL().toStdString(),
                  "http://" + *address + ":" + std::to_string(port) + "/join");
        EXPECT_TRUE(sheet.message().isEmpty());
        EXPECT_EQ(sheet.firewallHint().toStdString(),
                  "No one joined? Allow TCP port " + std::to_string(port) + " in the firewall");
    } else {
        EXPECT_FALSE(sheet.hasLink());
        EXPECT_EQ(sheet.message(), "This computer has no network address a phone can reach.");
    }
    EXPECT_EQ(sheet.countText(), "0 of 12 phones joined");

    // Opening again keeps the same server.
    sheet.open();
    EXPECT_EQ(model->guestServer()->port(), port);
}

TEST_F(InvitationTest, ATakenPortShowsTheModelsSentence) {
    enableGuests(takenPort());
    sheet.open();
    EXPECT_FALSE(sheet.hasLink());
    EXPECT_EQ(sheet.message(), "Port 7766 is taken by another app, so guests cannot join.");
    EXPECT_FALSE(sheet.showFirewallHint());

    // The next opening tries again, and finds the port free.
    ::close(blocker);
    blocker = -1;
    sheet.open();
    EXPECT_NE(sheet.message(), "Port 7766 is taken by another app, so guests cannot join.");
}

TEST_F(InvitationTest, TheCountFollowsGuestsComingAndGoing) {
    enableGuests();
    sheet.open();
    QSignalSpy changes(&sheet, &InvitationSheetController::stateChanged);
    join("ann-phone", "Ann", 1);
    EXPECT_EQ(sheet.guestCount(), 1);
    EXPECT_EQ(sheet.countText(), "1 of 12 phones joined");
    join("bob-phone", "Bob", 2);
    EXPECT_EQ(sheet.countText(), "2 of 12 phones joined");
    model->guestParty()->handle({Event::Kind::gone, "ann-phone", {}, 0, {}});
    settle();
    EXPECT_EQ(sheet.countText(), "1 of 12 phones joined");
    EXPECT_GE(changes.count(), 3);
}

TEST_F(InvitationTest, FirewallHintAfterThirtySecondsWithNobody) {
    enableGuests();
    sheet.open();
    if (!sheet.hasLink()) GTEST_SKIP() << "this machine has no network address";
    now += 29.9;
    sheet.refresh();
    EXPECT_FALSE(sheet.showFirewallHint());
    now += 0.1;
    sheet.refresh();
    EXPECT_TRUE(sheet.showFirewallHint());

    // Someone arriving takes it away; reopening starts the half minute anew.
    join("ann-phone", "Ann", 1);
    EXPECT_FALSE(sheet.showFirewallHint());
    model->guestParty()->handle({Event::Kind::gone, "ann-phone", {}, 0, {}});
    settle();
    EXPECT_TRUE(sheet.showFirewallHint());
    sheet.open();
    EXPECT_FALSE(sheet.showFirewallHint());
}

TEST_F(InvitationTest, CopyPutsTheLinkOnTheClipboardAndSaysCopied) {
    enableGuests();
    sheet.open();
    if (!sheet.hasLink()) GTEST_SKIP() << "this machine has no network address";
    EXPECT_EQ(sheet.copyLabel(), "Copy");
    sheet.copy();
    EXPECT_EQ(sheet.copyLabel(), "Copied");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), sheet.joinURL());
    // Still "Copied" while the link stays; a new opening offers it again.
    emit app->changed();
    EXPECT_EQ(sheet.copyLabel(), "Copied");
    sheet.open();
    EXPECT_EQ(sheet.copyLabel(), "Copy");
}

}  // namespace
}  // namespace vt::ui::test
