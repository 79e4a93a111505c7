// The Cast browser: devices known by their TXT id, what they play, resolving.
#include "discovery/cast_browser.h"

#include <gtest/gtest.h>

#include "discovery/fake_service_browser.h"
#include "dispatch/virtual_main_queue.h"

namespace vt::discovery {
namespace {

const std::string cast = CastBrowser::castType;

TEST(CastDevice, FromTxt) {
    auto tv = CastDevice::from(
        "Chromecast-abc",
        {{"id", "abc"}, {"fn", "Living TV"}, {"md", "Chromecast"}, {"st", "1"}, {"rs", "YouTube"}});
    ASSERT_TRUE(tv);
    EXPECT_EQ(tv->name, "Living TV");
    EXPECT_EQ(tv->model, "Chromecast");
    EXPECT_EQ(tv->busyWith, "YouTube");
    EXPECT_EQ(tv->port, CastDevice::unresolvedPort);
    // Idle, or busy with nothing named: not busy. No fn: the instance name.
    EXPECT_FALSE(CastDevice::from("x", {{"id", "a"}, {"st", "0"}, {"rs", "YouTube"}})->busyWith);
    EXPECT_FALSE(CastDevice::from("x", {{"id", "a"}, {"st", "1"}, {"rs", ""}})->busyWith);
    EXPECT_EQ(CastDevice::from("x", {{"id", "a"}})->name, "x");
    EXPECT_FALSE(CastDevice::from("x", {{"fn", "No id"}}));
}

class CastBrowserTest : public ::testing::Test {
  protected:
    CastBrowserTest() : network_(queue_), browser_(network_, queue_) { browser_.start(); }
    const std::vector<CastDevice>& list() {
        queue_.drain();
        return browser_.devices();
    }
    dispatch::VirtualMainQueue queue_;
    FakeServiceBrowser network_;
    CastBrowser browser_;
};

TEST_F(CastBrowserTest, ARenamedOrBusyTvKeepsItsIdAndAddress) {
    const ServiceEndpoint tv{cast, "Chromecast-abc"};
    network_.announce(cast, {{tv.name, {{"id", "abc"}, {"fn", "Living TV"}}}});
    ASSERT_EQ(list().size(), 1u);
    EXPECT_FALSE(list()[0].host);
    network_.answer(tv, ServiceResult{tv.name, {}, ServiceAddress{"10.0.0.4", 8009}});
    ASSERT_TRUE(list()[0].host);

    network_.announce(
        cast, {{tv.name, {{"id", "abc"}, {"fn", "Lounge"}, {"st", "1"}, {"rs", "Netflix"}}}});
    ASSERT_EQ(list().size(), 1u);
    EXPECT_EQ(list()[0].name, "Lounge");
    EXPECT_EQ(list()[0].busyWith, "Netflix");
    EXPECT_EQ(*list()[0].host, "10.0.0.4");
    EXPECT_EQ(network_.resolvesStarted(), 1);
}

TEST_F(CastBrowserTest, UnresolvedDevicesAreSweptAndGoneOnesRemoved) {
    network_.announce(cast, {{"a", {{"id", "1"}, {"fn", "Zed"}}},
                             {"b", {{"id", "2"}, {"fn", "alpha"}}},
                             {"c", {{"fn", "no id"}}}});
    ASSERT_EQ(list().size(), 2u);
    EXPECT_EQ(list()[0].name, "alpha");
    queue_.advance(6.01);
    EXPECT_EQ(network_.openResolves({cast, "a"}), 0);
    queue_.advance(4.0);
    EXPECT_EQ(network_.openResolves({cast, "a"}), 1);
    network_.announce(cast, {{"b", {{"id", "2"}, {"fn", "alpha"}}}});
    ASSERT_EQ(list().size(), 1u);
    EXPECT_EQ(network_.openResolves({cast, "a"}), 0);
}

}  // namespace
}  // namespace vt::discovery
