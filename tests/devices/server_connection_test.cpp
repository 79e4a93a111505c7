// The hold on the sound server, on the scripted server and virtual time: the
// loss is told at once, tries follow with a doubling wait up to half a second, and
// the return is told once.
#include "devices/server_connection.h"

#include <gtest/gtest.h>

#include "dispatch/virtual_main_queue.h"
#include "platform/fake/fake_audio_backend.h"

namespace vt::devices {
namespace {

struct ServerConnectionTest : ::testing::Test {
    platform::FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    ServerConnection connection{fake, main};
    int lost = 0, back = 0;

    void SetUp() override {
        connection.onLost = [this] { ++lost; };
        connection.onBack = [this] { ++back; };
        connection.start();
        main.drain();
    }
};

TEST_F(ServerConnectionTest, ALossIsToldAtOnceAndTriesBackOffToASecond) {
    EXPECT_TRUE(connection.connected());
    const double diedAt = main.now();
    fake.serverDies();
    main.drain();
    EXPECT_EQ(lost, 1);
    EXPECT_FALSE(connection.connected());
    EXPECT_DOUBLE_EQ(*connection.lostAt(), diedAt);
    EXPECT_EQ(fake.reconnectAttempts(), 0) << "nothing tried before the first wait";

    // 0.1, 0.2, 0.4, then a try every half second.
    const double expected[] = {0.1, 0.3, 0.7, 1.2, 1.7, 2.2};
    for (int n = 0; n < 6; ++n) {
        main.advanceUntil([&] { return fake.reconnectAttempts() == n + 1; }, 5.0);
        EXPECT_NEAR(main.now() - diedAt, expected[n], 2e-3) << "try " << n + 1;
    }
    EXPECT_DOUBLE_EQ(connection.nextRetrySeconds(), ServerConnection::longestRetrySeconds);
    EXPECT_EQ(back, 0);
    EXPECT_EQ(lost, 1) << "a server that stays away is lost once";
}

TEST_F(ServerConnectionTest, AServerBackIsFoundWithinHalfASecondAndToldOnce) {
    fake.serverDies();
    main.advance(10.0);  // long gone: the tries are half a second apart now
    fake.serverReturns();
    const double returned = main.now();
    ASSERT_TRUE(main.advanceUntil([&] { return back > 0; }, 2.0));
    EXPECT_LE(main.now() - returned, ServerConnection::longestRetrySeconds + 1e-9);
    main.advance(3.0);
    EXPECT_EQ(back, 1);
    EXPECT_TRUE(connection.connected());
    EXPECT_FALSE(connection.lostAt());

    // The next loss starts the back-off from the beginning again.
    const int before = fake.reconnectAttempts();
    fake.serverDies();
    main.advance(0.1 + 1e-6);
    EXPECT_EQ(fake.reconnectAttempts(), before + 1);
    EXPECT_EQ(lost, 2);
}

// pipewire-pulse answers before WirePlumber has chosen a default sink; what
// the owner makes then may never be linked.
TEST_F(ServerConnectionTest, OnPipeWireTheReturnWaitsForADefaultSinkButNotForever) {
    fake.setServerName("PulseAudio (on PipeWire 0.3.65)");
    fake.addSink("living", "Living");
    fake.serverDies();
    main.drain();
    fake.serverReturns();
    ASSERT_TRUE(main.advanceUntil([&] { return fake.reconnectAttempts() > 0; }, 1.0));
    main.advance(1.0);
    EXPECT_EQ(back, 0) << "back before the session manager chose a default";
    EXPECT_FALSE(connection.connected());
    fake.setDefaultSinkByUser("living");
    main.drain();
    EXPECT_EQ(back, 1);
    EXPECT_TRUE(connection.connected());

    // Lost again while waiting: the tries start over, and a server that never
    // announces a default (no sinks at all) is back after the bounded wait.
    fake.serverDies();
    fake.serverReturns();
    ASSERT_TRUE(main.advanceUntil([&] { return fake.reconnectAttempts() > 1; }, 1.0));
    fake.serverDies();
    main.drain();
    EXPECT_EQ(lost, 2) << "still the same loss";
    fake.serverReturns();
    ASSERT_TRUE(main.advanceUntil([&] { return fake.reconnectAttempts() > 2; }, 1.0));
    const double answered = main.now();
    ASSERT_TRUE(main.advanceUntil([&] { return back == 2; }, 5.0));
    EXPECT_NEAR(main.now() - answered, ServerConnection::sessionManagerWaitSeconds, 1e-6);
    main.advance(5.0);
    EXPECT_EQ(back, 2);
}

TEST_F(ServerConnectionTest, NoServerAtTheStartIsALossToo) {
    platform::FakeAudioBackend none;
    none.setConnected(false);
    ServerConnection c{none, main};
    int lostHere = 0;
    c.onLost = [&] { ++lostHere; };
    c.start();
    EXPECT_EQ(lostHere, 1);
    none.serverReturns();
    main.advance(0.2);
    EXPECT_TRUE(c.connected());
}

TEST_F(ServerConnectionTest, AStoppedConnectionTriesNoMore) {
    fake.serverDies();
    main.drain();
    connection.stop();
    main.advance(5.0);
    EXPECT_EQ(fake.reconnectAttempts(), 0);
}

}  // namespace
}  // namespace vt::devices
