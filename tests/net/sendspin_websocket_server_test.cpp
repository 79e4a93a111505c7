#include "net/sendspin_websocket_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "net/http_response.h"
#include "net/websocket_client.h"

namespace vt::net {
namespace {

using namespace std::chrono_literals;

class ServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server_ = std::make_unique<SendspinWebSocketServer>(
            SendspinWebSocketServer::Options{.bindAddress = "127.0.0.1", .port = 0});
        server_->onConnect = [this](int64_t id) { record("connect " + std::to_string(id)); };
        server_->onDisconnect = [this](int64_t id) { record("disconnect " + std::to_string(id)); };
        server_->onText = [this](int64_t id, std::string_view text, int64_t) {
            record("text " + std::to_string(id) + " " + std::string(text));
        };
        server_->start();
    }

    // The server goes first: its threads report disconnects into the members below.
    void TearDown() override { server_.reset(); }

    void record(std::string event) {
        std::lock_guard guard(lock_);
        events_.push_back(std::move(event));
        changed_.notify_all();
    }
    bool waitFor(size_t count) {
        std::unique_lock guard(lock_);
        return changed_.wait_for(guard, 3s, [&] { return events_.size() >= count; });
    }
    std::vector<std::string> events() {
        std::lock_guard guard(lock_);
        return events_;
    }

    // A plain TCP connection to the server, for writing bytes by hand.
    int connectToServer() {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(server_->port());
        inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return fd;
    }
    // Sends raw bytes and returns all the server said before closing.
    std::string exchange(const std::string& request) {
        const int fd = connectToServer();
        HTTPResponse::writeAll(fd, request);
        std::string reply;
        char chunk[4096];
        ssize_t n;
        while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0)
            reply.append(chunk, static_cast<size_t>(n));
        close(fd);
        return reply;
    }

    std::unique_ptr<SendspinWebSocketServer> server_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

TEST_F(ServerTest, RefusesOtherPathsPlainRequestsAndOtherWebSocketVersions) {
    EXPECT_EQ(exchange("GET /other HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: a\r\n\r\n")
                  .substr(0, 22),
              "HTTP/1.1 404 Not Found");
    EXPECT_EQ(exchange("GET /sendspin HTTP/1.1\r\n\r\n").substr(0, 22), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(exchange(" \r\n\r\n").substr(0, 24), "HTTP/1.1 400 Bad Request");
    EXPECT_EQ(exchange(std::string(20'000, 'h')).substr(0, 12), "HTTP/1.1 431");
    const std::string upgrade =
        "GET /sendspin HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: a\r\n";
    EXPECT_EQ(exchange(upgrade + "\r\n").substr(0, 24), "HTTP/1.1 400 Bad Request");
    const std::string otherVersion = exchange(upgrade + "Sec-WebSocket-Version: 8\r\n\r\n");
    EXPECT_EQ(otherVersion.substr(0, 30), "HTTP/1.1 426 Upgrade Required\r");
    EXPECT_NE(otherVersion.find("\r\nSec-WebSocket-Version: 13\r\n"), std::string::npos);
    EXPECT_TRUE(events().empty());
}

TEST_F(ServerTest, ANewClientReplacesTheOldOneAndConnectsBeforeTheOldDisconnects) {
    WebSocketClient first;
    ASSERT_TRUE(first.connect("127.0.0.1", server_->port(), "/sendspin"));
    ASSERT_TRUE(waitFor(1));
    WebSocketClient second;
    ASSERT_TRUE(second.connect("127.0.0.1", server_->port(), "/sendspin"));
    ASSERT_TRUE(waitFor(3));
    EXPECT_EQ(events(), (std::vector<std::string>{"connect 1", "connect 2", "disconnect 1"}));
    // The replaced client is cut off without a close frame.
    EXPECT_FALSE(first.receive(1000));

    // Sends to the old id are ignored; the new one is served.
    server_->sendText("stale", 1);
    server_->sendText("fresh", 2);
    auto frame = second.receive(1000);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->payload, "fresh");

    ASSERT_TRUE(second.sendText("hi"));
    ASSERT_TRUE(waitFor(4));
    EXPECT_EQ(events()[3], "text 2 hi");

    server_->stop();
    auto close = second.receive(1000);
    ASSERT_TRUE(close);
    EXPECT_EQ(close->opcode, static_cast<uint8_t>(WebSocketFrame::Opcode::close));
    EXPECT_EQ(close->payload, std::string("\x03\xE8", 2));
}

TEST_F(ServerTest, TakesAFrameSentInTheSameSegmentAsTheHead) {
    const int fd = connectToServer();
    HTTPResponse::writeAll(fd,
                           "GET /sendspin HTTP/1.1\r\nUpgrade: websocket\r\nSec-WebSocket-Key: "
                           "x\r\nSec-WebSocket-Version: 13\r\n\r\n" +
                               WebSocketFrame::encode(WebSocketFrame::Opcode::text, "first", true,
                                                      std::array<uint8_t, 4>{1, 1, 1, 1}));
    ASSERT_TRUE(waitFor(2));
    EXPECT_EQ(events()[1], "text 1 first");
    close(fd);
    ASSERT_TRUE(waitFor(3));
    EXPECT_EQ(server_->droppedFrames(), 0);
}

TEST(SendspinWebSocketServerPort, ThrowsWhenThePortIsTaken) {
    SendspinWebSocketServer first({.bindAddress = "127.0.0.1", .port = 0});
    first.start();
    SendspinWebSocketServer second({.bindAddress = "127.0.0.1", .port = first.port()});
    EXPECT_THROW(second.start(), ServerError);
    unsetenv("VELLATONE_SENDSPIN_ADVERTISE_PORT");
    EXPECT_EQ(first.advertisedPort(), first.port());
}

}  // namespace
}  // namespace vt::net
