// Guests becoming rows, end to end over loopback: the server's events drive the
// party, and the party drives the (here recorded) model hooks.
#include "guests/guest_party.h"

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dispatch/virtual_main_queue.h"
#include "net/monotonic.h"
#include "net/websocket_client.h"
#include "sendspin/protocol.h"

namespace vt::guests {
namespace {

namespace Protocol = sendspin::SendspinProtocol;
using Status = GuestSender::Status;

class GuestPartyTest : public ::testing::Test {
  protected:
    void SetUp() override {
        GuestServer::Options options;
        options.bindAddress = "127.0.0.1";
        options.allowsLoopbackHost = true;
        // Virtual time runs ahead of the sockets' own clock: keep the idle cut-off out of it.
        options.idlePatience = 1000.0;
        server_ = std::make_unique<GuestServer>(std::filesystem::temp_directory_path(), 0, 15.0,
                                                queue_, queue_, options);
        GuestParty::Hooks hooks;
        hooks.addRow = [this](const std::string& id,
                              const std::string& name) -> std::optional<int> {
            if (rows_.size() >= 3) return std::nullopt;
            rows_.push_back({id, name});
            return static_cast<int>(rows_.size()) + 7;
        };
        hooks.removeRow = [this](const std::string& id) { removed_.push_back(id); };
        hooks.statusChanged = [this](const std::string& id, Status s) { statuses_[id] = s; };
        hooks.prepareSlot = [this](int slot) { prepared_.push_back(slot); };
        hooks.render = [this](int slot, float* into, size_t frames) {
            lastRendered_.store(slot);
            std::fill(into, into + 2 * frames, 0.1f);
        };
        party_ = std::make_unique<GuestParty>(*server_, queue_, hooks, "Studio");
        server_->onEvent = [this](const GuestServer::Event& e) { party_->handle(e); };
        server_->start();
    }
    void TearDown() override {
        party_.reset();
        server_.reset();
    }

    bool until(const std::function<bool()>& done, double seconds = 3.0) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            queue_.drain();
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return done();
    }

    std::unique_ptr<net::WebSocketClient> join(const std::string& id, const std::string& name) {
        auto c = std::make_unique<net::WebSocketClient>();
        if (!c->connect("127.0.0.1", server_->port(), "/guest/" + id + "/sendspin")) return nullptr;
        c->sendText(Protocol::clientHello(id, name));
        return c;
    }

    // Whether the host has answered the hello yet.
    bool greeted(net::WebSocketClient& c) {
        while (auto f = c.receive(5)) {
            if (f->opcode == 1 && f->payload.find("server/hello") != std::string::npos) return true;
        }
        return false;
    }

    // Whether an audio frame arrives within a second.
    static bool hearsAudio(net::WebSocketClient& c) {
        for (int i = 0; i < 100; ++i) {
            auto f = c.receive(10);
            if (f && f->opcode == 2) return true;
        }
        return false;
    }

    dispatch::VirtualMainQueue queue_{net::monotonicSeconds()};
    std::unique_ptr<GuestServer> server_;
    std::unique_ptr<GuestParty> party_;
    std::vector<std::pair<std::string, std::string>> rows_;
    std::vector<std::string> removed_;
    std::map<std::string, Status> statuses_;
    std::vector<int> prepared_;
    std::atomic<int> lastRendered_{-1};
};

TEST_F(GuestPartyTest, AHelloMakesARowThatPlaysWhileRunning) {
    party_->play();
    auto ann = join("phone-aaaa-1", "Ann");
    ASSERT_TRUE(until([&] { return party_->count() == 1; }));
    EXPECT_EQ(rows_[0].second, "Guest \u00b7 Ann");
    EXPECT_EQ(party_->slot("phone-aaaa-1"), 8);
    EXPECT_EQ(prepared_, std::vector<int>{8});
    ASSERT_TRUE(until([&] { return greeted(*ann); }));
    queue_.advance(0.6);
    ASSERT_TRUE(until([&] { return statuses_["phone-aaaa-1"] == Status::playing; }));
    EXPECT_TRUE(hearsAudio(*ann));
    EXPECT_EQ(lastRendered_.load(), 8);

    // Rows moved: the sender now reads its new slot.
    party_->rebind("phone-aaaa-1", 9);
    lastRendered_.store(-1);
    EXPECT_TRUE(until([&] { return lastRendered_.load() == 9; }));
}

TEST_F(GuestPartyTest, AReturningPhoneKeepsItsRowAndAnAbsentOneLosesIt) {
    party_->play();
    auto ann = join("phone-aaaa-1", "Ann");
    // One at a time, so that Ann's row is the first.
    ASSERT_TRUE(until([&] { return party_->count() == 1; }));
    auto bob = join("phone-bbbb-1", "Bob");
    ASSERT_TRUE(until([&] { return party_->count() == 2; }));
    ann->close();
    bob->close();
    ASSERT_TRUE(until([&] {
        return statuses_["phone-aaaa-1"] == Status::reconnecting &&
               statuses_["phone-bbbb-1"] == Status::reconnecting;
    }));
    queue_.advance(5.0);
    ann = join("phone-aaaa-1", "Ann");
    ASSERT_TRUE(until([&] { return greeted(*ann); }));
    queue_.advance(0.6);
    ASSERT_TRUE(until([&] { return statuses_["phone-aaaa-1"] == Status::playing; }));
    EXPECT_EQ(rows_.size(), 2u);  // no second row for the same phone
    EXPECT_EQ(party_->slot("phone-aaaa-1"), 8);
    queue_.advance(11.0);
    ASSERT_TRUE(until([&] { return removed_.size() == 1; }));
    EXPECT_EQ(removed_[0], "phone-bbbb-1");
    EXPECT_EQ(party_->count(), 1u);
}

TEST_F(GuestPartyTest, RemovalBarsThePhoneAndARowlessGuestIsNoRow) {
    auto ann = join("phone-aaaa-1", "Ann");
    ASSERT_TRUE(until([&] { return party_->count() == 1; }));
    party_->remove("phone-aaaa-1");
    EXPECT_EQ(party_->count(), 0u);
    EXPECT_EQ(server_->status("phone-aaaa-1"), GuestRoster::Status::removed);
    EXPECT_TRUE(removed_.empty());  // the caller drops the row itself

    std::vector<std::unique_ptr<net::WebSocketClient>> more;
    for (int i = 0; i < 4; ++i) more.push_back(join("phone-c" + std::to_string(1000 + i), "C"));
    ASSERT_TRUE(until([&] { return rows_.size() == 3; }));
    queue_.drain();
    EXPECT_EQ(party_->count(), 2u);  // the hook had room for three rows in all
    EXPECT_EQ(statuses_.count("phone-c1003"), 0u);
}

TEST(GuestServerStart, APortTakenIsToldInAWholeSentence) {
    dispatch::VirtualMainQueue queue;
    GuestServer::Options options;
    options.bindAddress = "127.0.0.1";
    GuestServer first(std::filesystem::temp_directory_path(), 0, 15.0, queue, queue, options);
    ASSERT_TRUE(startGuestServer(first).started);
    GuestServer second(std::filesystem::temp_directory_path(), first.port(), 15.0, queue, queue,
                       options);
    const GuestServerStart taken = startGuestServer(second);
    EXPECT_FALSE(taken.started);
    EXPECT_FALSE(taken.link);
    EXPECT_EQ(taken.error, "Port 7766 is taken by another app, so guests cannot join.");
}

TEST(GuestRowText, NamesAndSubtitles) {
    EXPECT_EQ(guestRowName(std::nullopt), "Guest");
    EXPECT_EQ(guestRowName("Ann"), "Guest \u00b7 Ann");
    EXPECT_EQ(guestSubtitle(Status::waiting, true), "Guest \u00b7 joining");
    EXPECT_EQ(guestSubtitle(Status::reconnecting, true), "Guest \u00b7 Reconnecting");
    EXPECT_EQ(guestSubtitle(Status::playing, false), "Guest \u00b7 playing");
    EXPECT_EQ(guestSubtitle(Status::playing, true), "Guest \u00b7 Not timed yet");
}

}  // namespace
}  // namespace vt::guests
