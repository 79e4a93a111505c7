// The AirPlay browser's rules on a scripted network and the virtual clock:
// merging the two service types, resolving, the sweep, and leaving out this
// computer's own receiver.
#include "discovery/airplay_browser.h"

#include <gtest/gtest.h>

#include "discovery/fake_service_browser.h"
#include "dispatch/virtual_main_queue.h"

namespace vt::discovery {
namespace {

const std::string raop = AirPlayBrowser::raopType;
const std::string airplay = AirPlayBrowser::airplayType;

class AirPlayBrowserTest : public ::testing::Test {
  protected:
    AirPlayBrowserTest() : network_(queue_), browser_(network_, queue_, [this] { return own_; }) {
        browser_.onChange = [this](const std::vector<AirPlayReceiver>&) { ++changes_; };
        browser_.start();
    }
    const std::vector<AirPlayReceiver>& list() {
        queue_.drain();
        return browser_.receivers();
    }
    static ServiceResult at(std::string name, TxtRecord txt, std::string host, uint16_t port) {
        return ServiceResult{std::move(name), std::move(txt), ServiceAddress{host, port}};
    }

    dispatch::VirtualMainQueue queue_;
    FakeServiceBrowser network_;
    LocalIdentity own_;
    AirPlayBrowser browser_;
    int changes_ = 0;
};

TEST_F(AirPlayBrowserTest, BothServicesOfOneDeviceMeetUnderOneIdWithTheirTxtMerged) {
    network_.announce(raop, {{"A1B2C3D4E5F6@Kitchen", {{"am", "AirPort10,115"}, {"et", "0,1"}}}});
    network_.announce(airplay, {{"Kitchen", {{"model", "AirPort10,115"}, {"et", "0,4"}}}});
    ASSERT_EQ(list().size(), 1u);
    const AirPlayReceiver& r = list()[0];
    EXPECT_EQ(r.id, "Kitchen");
    EXPECT_EQ(r.name, "Kitchen");
    EXPECT_TRUE(r.supportsAirPlay2);
    EXPECT_EQ(r.txt.at("am"), "AirPort10,115");
    EXPECT_EQ(r.txt.at("model"), "AirPort10,115");
    EXPECT_EQ(r.txt.at("et"), "0,4");  // the newer value wins
    EXPECT_FALSE(r.host);
    EXPECT_EQ(r.port, AirPlayReceiver::unresolvedPort);

    // Whichever comes first, a device seen on _airplay._tcp once stays AirPlay 2.
    network_.announce(raop, {{"A1B2C3D4E5F6@Kitchen", {{"am", "AirPort10,115"}}}});
    EXPECT_TRUE(list()[0].supportsAirPlay2);
}

TEST_F(AirPlayBrowserTest, ADeviceStaysWhileEitherServiceAnnouncesIt) {
    network_.announce(raop, {{"A1B2C3D4E5F6@Kitchen", {}}});
    network_.announce(airplay, {{"Kitchen", {}}});
    ASSERT_EQ(list().size(), 1u);
    network_.announce(raop, {});
    EXPECT_EQ(list().size(), 1u);
    network_.announce(airplay, {});
    EXPECT_TRUE(list().empty());
}

TEST_F(AirPlayBrowserTest, ResolvesOnceAtATimeAndAgainOnEverySweep) {
    const ServiceEndpoint kitchen{raop, "A1B2C3D4E5F6@Kitchen"};
    network_.announce(raop, {{kitchen.name, {}}});
    list();
    network_.announce(raop, {{kitchen.name, {{"am", "x"}}}});
    list();
    EXPECT_EQ(network_.openResolves(kitchen), 1);  // a second announce opens no second resolve

    // Unanswered for 6 s: given up, and the 5 s sweep after that starts afresh.
    queue_.advance(6.01);
    EXPECT_EQ(network_.openResolves(kitchen), 0);
    queue_.advance(4.0);
    EXPECT_EQ(network_.openResolves(kitchen), 1);
    EXPECT_FALSE(list()[0].host);

    network_.answer(kitchen, at(kitchen.name, {{"pw", "true"}}, "10.0.0.7", 5000));
    ASSERT_TRUE(list()[0].host);
    EXPECT_EQ(*list()[0].host, "10.0.0.7");
    EXPECT_EQ(list()[0].port, 5000);
    EXPECT_EQ(list()[0].txt.at("pw"), "true");
    EXPECT_EQ(list()[0].txt.at("am"), "x");

    // A resolved receiver keeps its address while it is announced.
    queue_.advance(15.0);
    EXPECT_EQ(network_.openResolves(kitchen), 0);
    network_.announce(raop, {at(kitchen.name, {}, "10.0.0.9", 6000)});
    EXPECT_EQ(*list()[0].host, "10.0.0.7");
}

TEST_F(AirPlayBrowserTest, AnAddressGivenWithTheResultNeedsNoResolve) {
    network_.announce(raop, {at("Den", {}, "10.0.0.3", 5000)});
    ASSERT_EQ(list().size(), 1u);
    EXPECT_EQ(*list()[0].host, "10.0.0.3");
    EXPECT_EQ(network_.resolvesStarted(), 0);
}

TEST_F(AirPlayBrowserTest, ARetryForcedByTheUserStartsTheResolveAfresh) {
    const ServiceEndpoint den{raop, "Den"};
    network_.announce(raop, {{den.name, {}}});
    list();
    EXPECT_EQ(network_.resolvesStarted(), 1);
    browser_.retryUnresolved();
    EXPECT_EQ(network_.resolvesStarted(), 2);
    EXPECT_EQ(network_.openResolves(den), 1);
}

TEST_F(AirPlayBrowserTest, ThisComputersOwnReceiverIsLeftOutBeforeAndAfterResolving) {
    own_.linkAddresses = {"A1B2C3D4E5F6"};
    own_.ipv4 = {"10.0.0.1"};
    network_.setComputerName("studio");
    // By name while unresolved; resolved elsewhere it is another device of that name.
    network_.announce(airplay, {{"studio", {}}});
    EXPECT_TRUE(list().empty());
    network_.answer({airplay, "studio"}, at("studio", {}, "10.0.0.5", 7000));
    EXPECT_EQ(list().size(), 1u);
    // By the digits before "@", whatever their case and colons.
    network_.announce(raop, {{"a1:b2:c3:d4:e5:f6@Mine", {}}});
    // By deviceid, and by address.
    network_.announce(airplay, {{"studio", {}},
                                {"Other", {{"deviceid", "a1:b2:c3:d4:e5:f6"}}},
                                at("Loop", {}, "10.0.0.1", 7000)});
    ASSERT_EQ(list().size(), 1u);
    EXPECT_EQ(list()[0].id, "studio");
}

TEST_F(AirPlayBrowserTest, SortedByNameIgnoringCaseAndStoppingForgetsAll) {
    network_.announce(airplay, {{"bedroom", {}}, {"Attic", {}}, {"Cellar", {}}});
    ASSERT_EQ(list().size(), 3u);
    EXPECT_EQ(list()[0].name, "Attic");
    EXPECT_EQ(list()[1].name, "bedroom");
    EXPECT_EQ(list()[2].name, "Cellar");
    const int before = changes_;
    network_.announce(airplay, {{"bedroom", {}}, {"Attic", {}}, {"Cellar", {}}});
    list();
    EXPECT_EQ(changes_, before);  // the same list is not told again
    browser_.stop();
    EXPECT_TRUE(list().empty());
    network_.announce(airplay, {{"Attic", {}}});
    EXPECT_TRUE(list().empty());
}

}  // namespace
}  // namespace vt::discovery
