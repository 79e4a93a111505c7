#include "guests/guest_sender.h"

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "dispatch/virtual_main_queue.h"
#include "sendspin/protocol.h"

namespace vt::guests {
namespace {

namespace Protocol = sendspin::SendspinProtocol;
using Status = GuestSender::Status;

class FakeServer final : public net::SendspinTransport {
  public:
    void sendText(std::string text, int64_t to) override {
        std::lock_guard g(lock);
        texts.emplace_back(to, std::move(text));
    }
    void sendTextBuilding(std::function<std::string()> building, int64_t to) override {
        sendText(building(), to);
    }
    void sendBinary(std::string, int64_t to) override {
        std::lock_guard g(lock);
        ++binaries[to];
    }
    // Types of the texts sent to `to`, in order.
    std::vector<std::string> types(int64_t to) {
        std::lock_guard g(lock);
        std::vector<std::string> out;
        for (auto& [id, text] : texts) {
            if (id != to) continue;
            auto parsed = Protocol::parseServer(text);
            if (!parsed) continue;
            std::visit(
                [&](const auto& m) {
                    using T = std::decay_t<decltype(m)>;
                    if constexpr (std::is_same_v<T, Protocol::ServerHello>) out.push_back("hello");
                    if constexpr (std::is_same_v<T, Protocol::ServerState>) out.push_back("state");
                    if constexpr (std::is_same_v<T, Protocol::ServerStreamStart>)
                        out.push_back("start");
                    if constexpr (std::is_same_v<T, Protocol::ServerStreamEnd>)
                        out.push_back("end");
                },
                *parsed);
        }
        return out;
    }
    int frames(int64_t to) {
        std::lock_guard g(lock);
        return binaries[to];
    }

    std::mutex lock;
    std::vector<std::pair<int64_t, std::string>> texts;
    std::map<int64_t, int> binaries;
};

class GuestSenderTest : public ::testing::Test {
  protected:
    GuestSenderTest()
        : sender_(
              "phone-aaaa-1", 1, server_,
              [](float* into, size_t n) { std::fill(into, into + 2 * n, 0.25f); }, queue_, queue_,
              "Studio") {
        sender_.onStatus = [this](Status s) { statuses_.push_back(s); };
    }

    bool framesArrive(int64_t to) {
        for (int i = 0; i < 300; ++i) {
            if (server_.frames(to) > 0) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    std::string hello() { return Protocol::clientHello("phone-aaaa-1", "Ann"); }

    FakeServer server_;
    dispatch::VirtualMainQueue queue_;
    GuestSender sender_;
    std::vector<Status> statuses_;
};

TEST_F(GuestSenderTest, StreamStartsHalfASecondAfterTheHelloWhileRunning) {
    sender_.play();
    sender_.handle(hello(), 1);
    sender_.handle(hello(), 1);  // a second hello changes nothing
    queue_.advance(0.49);
    EXPECT_EQ(server_.types(1), (std::vector<std::string>{"hello", "state"}));
    queue_.advance(0.02);
    EXPECT_EQ(server_.types(1), (std::vector<std::string>{"hello", "state", "start"}));
    EXPECT_TRUE(framesArrive(1));
    EXPECT_EQ(statuses_, (std::vector<Status>{Status::waiting, Status::playing}));
    sender_.pause();
    EXPECT_EQ(server_.types(1).back(), "end");
    queue_.drain();
    EXPECT_EQ(statuses_.back(), Status::paused);
}

TEST_F(GuestSenderTest, APauseDuringTheWaitCancelsTheStart) {
    sender_.play();
    sender_.handle(hello(), 1);
    queue_.advance(0.3);
    sender_.pause();
    sender_.play();
    queue_.advance(0.3);
    // The restart after play waits its own half second from the play.
    EXPECT_EQ(server_.types(1), (std::vector<std::string>{"hello", "state"}));
    queue_.advance(0.3);
    EXPECT_EQ(server_.types(1).back(), "start");
}

TEST_F(GuestSenderTest, NothingStartsWhileStoppedAndTextFromOtherSocketsIsIgnored) {
    sender_.handle(hello(), 2);
    EXPECT_TRUE(server_.types(2).empty());
    sender_.handle(hello(), 1);
    queue_.advance(1.0);
    EXPECT_EQ(server_.types(1), (std::vector<std::string>{"hello", "state"}));
    EXPECT_TRUE(statuses_.empty());  // created paused, still paused
}

TEST_F(GuestSenderTest, ADropSilencesTheStreamAndAReturnRestartsItAfterItsHello) {
    sender_.play();
    sender_.handle(hello(), 1);
    queue_.advance(0.6);
    ASSERT_TRUE(framesArrive(1));
    sender_.detach();
    const int before = server_.frames(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(server_.frames(1), before);

    sender_.attach(7);
    sender_.handle(Protocol::clientHello("phone-aaaa-1", "Ann"), 1);  // the old socket: ignored
    queue_.advance(1.0);
    EXPECT_TRUE(server_.types(7).empty());
    sender_.handle(hello(), 7);
    queue_.advance(0.6);
    EXPECT_EQ(server_.types(7), (std::vector<std::string>{"hello", "state", "start"}));
    EXPECT_TRUE(framesArrive(7));
    queue_.drain();
    EXPECT_EQ(statuses_,
              (std::vector<Status>{Status::waiting, Status::playing, Status::reconnecting,
                                   Status::waiting, Status::playing}));
}

TEST_F(GuestSenderTest, PlayWithoutAPhoneReportsReconnectingAndAttachWhileStoppedPaused) {
    sender_.detach();
    sender_.pause();
    sender_.play();
    queue_.drain();
    EXPECT_EQ(statuses_.back(), Status::reconnecting);
    sender_.pause();
    sender_.attach(3);
    queue_.drain();
    EXPECT_EQ(statuses_.back(), Status::paused);
}

TEST_F(GuestSenderTest, ATrackChangeReachesAGreetedPhoneAtOnce) {
    sender_.send(sendspin::TrackInfo{"Song", "Band", "Album", std::nullopt});
    EXPECT_TRUE(server_.types(1).empty());
    sender_.handle(hello(), 1);
    sender_.send(sendspin::TrackInfo{"Next", "Band", "Album", std::nullopt});
    EXPECT_EQ(server_.types(1), (std::vector<std::string>{"hello", "state", "state"}));
    std::lock_guard g(server_.lock);
    EXPECT_NE(server_.texts.back().second.find("\"title\":\"Next\""), std::string::npos);
}

TEST(GuestSenderLatency, LeadPlusHeadroom) {
    EXPECT_DOUBLE_EQ(GuestSender::streamLatencyMs(), sendspinLeadMs() + 200.0);
}

}  // namespace
}  // namespace vt::guests
