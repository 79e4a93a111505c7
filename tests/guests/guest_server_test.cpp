// The guest server over real loopback sockets, with its timers on virtual
// time: patience of seconds passes in a moment.
#include "guests/guest_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dispatch/virtual_main_queue.h"
#include "net/monotonic.h"
#include "net/websocket_client.h"
#include "sendspin/protocol.h"

namespace vt::guests {
namespace {

using Kind = GuestServer::Event::Kind;
using Opcode = net::WebSocketFrame::Opcode;
namespace Protocol = sendspin::SendspinProtocol;

// From `source`, one of loopback's many addresses, so that a test can play
// several machines.
int connectTo(uint16_t port, const char* source = nullptr) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (source) {
        sockaddr_in from{};
        from.sin_family = AF_INET;
        inet_pton(AF_INET, source, &from.sin_addr);
        if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0) {
            ::close(fd);
            return -1;
        }
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Sends a request head and returns the whole response.
std::string exchange(uint16_t port, const std::string& head, const char* source = nullptr) {
    const int fd = connectTo(port, source);
    if (fd < 0) return {};
    send(fd, head.data(), head.size(), MSG_NOSIGNAL);
    timeval t{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return out;
}

std::string body(const std::string& response) {
    const size_t end = response.find("\r\n\r\n");
    return end == std::string::npos ? "" : response.substr(end + 4);
}

std::string closeCode(const net::WebSocketFrame::Frame& f) {
    if (f.payload.size() < 2) return "";
    return std::to_string((static_cast<uint8_t>(f.payload[0]) << 8) |
                          static_cast<uint8_t>(f.payload[1]));
}

class GuestServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() /
                ("vt-guest-root-" + std::to_string(getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(root_);
        std::ofstream(root_ / "index.html") << "<p>hello</p>";
        std::ofstream(root_ / "guest.js") << "// js";
    }
    void TearDown() override {
        server_.reset();
        std::filesystem::remove_all(root_);
    }

    // Every phone here comes from 127.0.0.1 unless a test says otherwise, so
    // one address may hold what the whole server may.
    void startServer(GuestServer::Options options = {.maxClientThreadsPerAddress = 64}) {
        options.bindAddress = "127.0.0.1";
        options.allowsLoopbackHost = true;
        options.computerName = "Studio";
        server_ = std::make_unique<GuestServer>(root_, 0, 15.0, queue_, queue_, options);
        server_->onEvent = [this](const GuestServer::Event& e) { events_.push_back(e); };
        server_->start();
    }

    // Runs the virtual queue while real sockets do their part.
    bool until(const std::function<bool()>& done, double seconds = 3.0) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            queue_.drain();
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        queue_.drain();
        return done();
    }

    std::unique_ptr<net::WebSocketClient> open(const std::string& clientID) {
        auto c = std::make_unique<net::WebSocketClient>();
        if (!c->connect("127.0.0.1", server_->port(), "/guest/" + clientID + "/sendspin")) {
            return nullptr;
        }
        return c;
    }

    std::unique_ptr<net::WebSocketClient> join(const std::string& clientID,
                                               const std::string& name) {
        auto c = open(clientID);
        if (c) c->sendText(Protocol::clientHello(clientID, name));
        return c;
    }

    size_t count(Kind kind, const std::string& clientID = {}) const {
        size_t n = 0;
        for (const auto& e : events_)
            n += e.kind == kind && (clientID.empty() || e.clientID == clientID);
        return n;
    }

    std::string get(const std::string& path, const std::string& extra = {}) {
        return exchange(server_->port(), "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                                             std::to_string(server_->port()) + "\r\n" + extra +
                                             "\r\n");
    }

    std::string state(const std::string& path) {
        auto json = nlohmann::json::parse(body(get(path)), nullptr, false);
        if (!json.is_object() || json.value("name", "") != "Studio") return "bad";
        return json.value("state", "bad");
    }

    // Whether the server has ended the socket (after any frames still unread).
    static bool ended(net::WebSocketClient& c) {
        while (c.receive(20)) {
        }
        char byte;
        return recv(c.fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }

    // Reads frames until a close arrives: its code, or "none".
    std::string closeSeen(net::WebSocketClient& c) {
        for (int i = 0; i < 200; ++i) {
            auto f = c.receive(50);
            if (!f) {
                queue_.drain();
                continue;
            }
            if (f->opcode == static_cast<uint8_t>(Opcode::close)) return closeCode(*f);
        }
        return "none";
    }

    std::filesystem::path root_;
    dispatch::VirtualMainQueue queue_{net::monotonicSeconds()};
    std::unique_ptr<GuestServer> server_;
    std::vector<GuestServer::Event> events_;
};

TEST_F(GuestServerTest, ServesThePageAndRefusesForeignHostsAndOrigins) {
    startServer();
    EXPECT_EQ(body(get("/join")), "<p>hello</p>");
    const std::string js = get("/guest.js");
    EXPECT_NE(js.find("Content-Type: text/javascript; charset=utf-8"), std::string::npos);
    EXPECT_EQ(get("/nothere.css").substr(0, 12), "HTTP/1.1 404");
    EXPECT_EQ(get("/a..html").substr(0, 12), "HTTP/1.1 404");

    const std::string port = std::to_string(server_->port());
    EXPECT_EQ(
        exchange(server_->port(), "GET /join HTTP/1.1\r\nHost: localhost:" + port + "\r\n\r\n")
            .substr(0, 12),
        "HTTP/1.1 403");
    EXPECT_EQ(exchange(server_->port(), "GET /join HTTP/1.1\r\n\r\n").substr(0, 12),
              "HTTP/1.1 403");
    EXPECT_EQ(get("/join", "Origin: http://attacker.example\r\n").substr(0, 12), "HTTP/1.1 403");
    EXPECT_EQ(get("/join", "Origin: http://127.0.0.1:" + port + "\r\n").substr(0, 12),
              "HTTP/1.1 200");
    // A second Host cannot smuggle a foreign name past the check.
    EXPECT_EQ(exchange(server_->port(), "GET /join HTTP/1.1\r\nHost: 127.0.0.1:" + port +
                                            "\r\nHost: attacker.example\r\n\r\n")
                  .substr(0, 12),
              "HTTP/1.1 400");
}

TEST_F(GuestServerTest, LoopbackHostIsRefusedUnlessAllowed) {
    server_ = std::make_unique<GuestServer>(root_, 0, 15.0, queue_, queue_,
                                            GuestServer::Options{.bindAddress = "127.0.0.1"});
    server_->start();
    EXPECT_EQ(get("/join").substr(0, 12), "HTTP/1.1 403");
}

TEST_F(GuestServerTest, JoiningNamesTheGuestAndTheClockAnswersBeforeTheHello) {
    startServer();
    const std::string me = "phone-aaaa-1";
    EXPECT_EQ(state("/guest/" + me + "/status"), "open");
    auto c = open(me);
    ASSERT_TRUE(c);
    c->sendText(Protocol::clientTime(12345));
    auto answer = c->receive(2000);
    ASSERT_TRUE(answer);
    auto time = Protocol::parseServer(answer->payload);
    ASSERT_TRUE(time);
    ASSERT_TRUE(std::holds_alternative<Protocol::ServerTime>(*time));
    EXPECT_EQ(std::get<Protocol::ServerTime>(*time).clientTransmitted, 12345);
    EXPECT_TRUE(events_.empty());

    c->sendText(Protocol::clientHello(me, "  Ann\n"));
    ASSERT_TRUE(until([&] { return count(Kind::text) == 1; }));
    ASSERT_EQ(events_[0].kind, Kind::joined);
    EXPECT_EQ(events_[0].name, "Ann");
    EXPECT_EQ(state("/guest/" + me + "/status"), "member");
    EXPECT_EQ(body(get("/guest/" + me + "/party")),
              R"({"count":1,"guests":[{"name":"Ann","you":true}]})");

    // A second hello renames nothing and is only passed on.
    c->sendText(Protocol::clientHello(me, "Bea"));
    ASSERT_TRUE(until([&] { return count(Kind::text) == 2; }));
    EXPECT_EQ(count(Kind::joined), 1u);
}

TEST_F(GuestServerTest, AtTwelveTheNextPhoneIsToldFullButAReturningOneGetsBackIn) {
    startServer();
    std::vector<std::unique_ptr<net::WebSocketClient>> phones;
    for (int i = 0; i < 11; ++i) phones.push_back(join("phone-" + std::to_string(1000 + i), "P"));
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 11; }));
    // Two sockets open while a place is free; only the first hello takes it.
    auto early = open("phone-1011");
    auto later = open("phone-late");
    ASSERT_TRUE(early && later);
    early->sendText(Protocol::clientHello("phone-1011", "First"));
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 12; }));
    later->sendText(Protocol::clientHello("phone-late", "Second"));
    EXPECT_EQ(closeSeen(*later), "4002");
    EXPECT_EQ(count(Kind::joined, "phone-late"), 0u);
    EXPECT_EQ(state("/guest/phone-9999/status"), "full");
    EXPECT_EQ(state("/guest/phone-1003/status"), "member");
    auto thirteenth = open("phone-9999");
    ASSERT_TRUE(thirteenth);
    EXPECT_EQ(closeSeen(*thirteenth), "4002");

    // A member's new socket replaces its old one even at the cap; the old
    // one ends without a close frame and is not a drop.
    auto again = open("phone-1007");
    ASSERT_TRUE(again);
    ASSERT_TRUE(until([&] { return count(Kind::returned, "phone-1007") == 1; }));
    EXPECT_EQ(closeSeen(*phones[7]), "none");
    EXPECT_TRUE(ended(*phones[7]));
    queue_.drain();
    EXPECT_EQ(count(Kind::dropped), 0u);

    server_->remove("phone-1004");
    EXPECT_EQ(closeSeen(*phones[4]), "4001");
    EXPECT_EQ(state("/guest/phone-1004/status"), "removed");
    auto back = open("phone-1004");
    ASSERT_TRUE(back);
    EXPECT_EQ(closeSeen(*back), "4001");
    // Removal frees a place for someone new, and the barred one was never "gone".
    EXPECT_EQ(state("/guest/phone-9999/status"), "open");
    EXPECT_EQ(count(Kind::gone), 0u);
}

TEST_F(GuestServerTest, DroppedGuestsReturnWithinPatienceAndExpireAfterIt) {
    startServer();
    auto a = join("phone-aaaa-1", "Ann");
    auto b = join("phone-bbbb-1", "Bob");
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 2; }));
    a->close();
    b->close();
    ASSERT_TRUE(until([&] { return count(Kind::dropped) == 2; }));
    queue_.advance(10.0);
    a = open("phone-aaaa-1");
    ASSERT_TRUE(until([&] { return count(Kind::returned, "phone-aaaa-1") == 1; }));
    queue_.advance(6.0);
    ASSERT_TRUE(until([&] { return count(Kind::gone) == 1; }));
    EXPECT_EQ(count(Kind::gone, "phone-bbbb-1"), 1u);
    EXPECT_EQ(state("/guest/phone-bbbb-1/status"), "open");
}

TEST_F(GuestServerTest, GoodbyeForGoodEndsTheGuestAtOnceAnyOtherKeepsIt) {
    startServer();
    auto a = join("phone-aaaa-1", "Ann");
    auto b = join("phone-bbbb-1", "Bob");
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 2; }));
    a->sendText(Protocol::clientGoodbye("user_request"));
    b->sendText(Protocol::clientGoodbye("another_server"));
    ASSERT_TRUE(until([&] { return count(Kind::gone) == 1 && count(Kind::text) == 3; }));
    EXPECT_EQ(count(Kind::gone, "phone-aaaa-1"), 1u);
    a->close();
    b->close();
    ASSERT_TRUE(until([&] { return count(Kind::dropped) == 1; }));
    EXPECT_EQ(count(Kind::dropped, "phone-bbbb-1"), 1u);
    EXPECT_EQ(state("/guest/phone-bbbb-1/status"), "member");
}

TEST_F(GuestServerTest, NoHelloInTenSecondsEndsTheSessionAndForgetsTheGuest) {
    // The idle check is kept out of the way: it is the hello that is missing.
    startServer(GuestServer::Options{.idlePatience = 100.0});
    const size_t timersBefore = queue_.pendingTimers();
    auto c = open("phone-cccc-1");
    ASSERT_TRUE(c);
    // The socket's thread admits the phone first and sets its hello timer a
    // moment later: time may only move once both have happened.
    ASSERT_TRUE(until([&] { return queue_.pendingTimers() > timersBefore; }));
    // Before its hello a phone has no place.
    EXPECT_EQ(server_->status("phone-cccc-1"), GuestRoster::Status::open);
    queue_.advance(9.9);
    EXPECT_FALSE(ended(*c));
    queue_.advance(0.2);
    EXPECT_EQ(closeSeen(*c), "1008");
    ASSERT_TRUE(
        until([&] { return server_->status("phone-cccc-1") == GuestRoster::Status::open; }));
    EXPECT_TRUE(events_.empty());
}

TEST_F(GuestServerTest, ASilentPhoneIsPingedThenCutOffAfterFiveSeconds) {
    startServer();
    auto c = join("phone-dddd-1", "Dee");
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 1; }));
    queue_.advance(1.3);
    bool pinged = false;
    for (int i = 0; i < 20 && !pinged; ++i) {
        auto f = c->receive(50);
        pinged = f && f->opcode == static_cast<uint8_t>(Opcode::ping);
    }
    EXPECT_TRUE(pinged);
    queue_.advance(5.0);
    EXPECT_EQ(closeSeen(*c), "1001");
    ASSERT_TRUE(until([&] { return count(Kind::dropped) == 1; }));
}

TEST_F(GuestServerTest, SocketsBeyondTheThreadCapAreClosedAtOnce) {
    startServer(GuestServer::Options{.headDeadlineSeconds = 5.0, .maxClientThreads = 3});
    std::vector<int> idle;
    for (int i = 0; i < 3; ++i) idle.push_back(connectTo(server_->port()));
    ASSERT_TRUE(until([&] { return server_->clientThreads() == 3; }));
    const int extra = connectTo(server_->port());
    char byte;
    timeval t{2, 0};
    setsockopt(extra, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
    EXPECT_EQ(recv(extra, &byte, 1, 0), 0);  // closed without a word
    ::close(extra);
    ::close(idle[0]);
    ASSERT_TRUE(until([&] { return server_->clientThreads() == 2; }));
    EXPECT_EQ(body(get("/join")), "<p>hello</p>");
    for (size_t i = 1; i < idle.size(); ++i) ::close(idle[i]);
}

TEST_F(GuestServerTest, StopEndsEverySessionAndWaitsForItsThreads) {
    startServer();
    auto c = join("phone-eeee-1", "Eve");
    const int idle = connectTo(server_->port());
    ASSERT_TRUE(until([&] { return count(Kind::joined) == 1; }));
    server_->stop();
    EXPECT_EQ(closeSeen(*c), "1001");
    ASSERT_TRUE(until([&] { return server_->clientThreads() == 0; }));
    ::close(idle);
}

// What a neighbour on the network could do before: each test below is the
// probe that showed it.

TEST_F(GuestServerTest, ASessionBreakingTheFramingRulesIsClosedWith1002Or1009) {
    startServer();
    const auto closing = [&](const std::string& bytes) {
        auto c = join("phone-eeee-1", "Eve");
        if (!c) return std::string("no session");
        c->sendRaw(bytes);
        return closeSeen(*c);
    };
    const std::array<uint8_t, 4> mask{9, 8, 7, 6};
    EXPECT_EQ(closing(net::WebSocketFrame::encode(Opcode::text, "{}")), "1002");  // unmasked
    std::string reserved = net::WebSocketFrame::encode(Opcode::text, "{}", true, mask);
    reserved[0] = static_cast<char>(0x80 | 0x40 | 0x30 | 0x03);  // RSV bits, opcode 3
    EXPECT_EQ(closing(reserved), "1002");
    EXPECT_EQ(closing(net::WebSocketFrame::encode(Opcode::ping, std::string(126, 'p'), true, mask)),
              "1002");
    EXPECT_EQ(closing(net::WebSocketFrame::encode(Opcode::close, "x", true, mask)), "1002");
    EXPECT_EQ(
        closing(net::WebSocketFrame::encode(Opcode::binary, std::string(1 << 20, 'b'), true, mask)),
        "1009");
}

TEST_F(GuestServerTest, OneAddressHoardingSocketsLeavesThePageToEveryoneElse) {
    startServer(GuestServer::Options{.maxClientThreadsPerAddress = 12});
    // 127.0.0.2 holds 150 idle sockets and opens new ones as the server closes them.
    std::vector<int> hoard;
    for (int i = 0; i < 150; ++i) {
        const int fd = connectTo(server_->port(), "127.0.0.2");
        ASSERT_GE(fd, 0);
        hoard.push_back(fd);
    }
    ASSERT_TRUE(until([&] { return server_->clientThreads() >= 12; }));
    int answered = 0;
    for (int i = 0; i < 40; ++i) {
        for (int& fd : hoard) {
            char byte;
            if (recv(fd, &byte, 1, MSG_DONTWAIT) == 0) {
                ::close(fd);
                fd = connectTo(server_->port(), "127.0.0.2");
            }
        }
        const std::string port = std::to_string(server_->port());
        const std::string reply =
            exchange(server_->port(), "GET /join HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n",
                     "127.0.0.3");
        answered += body(reply) == "<p>hello</p>";
    }
    EXPECT_EQ(answered, 40);
    // The hoarder's twelve, and at most the last page load finishing.
    EXPECT_LE(server_->clientThreads(), 13u);
    for (int fd : hoard) ::close(fd);
}

TEST_F(GuestServerTest, SocketsThatNeverSayHelloTakeNoPlaceInTheParty) {
    startServer(GuestServer::Options{.idlePatience = 100.0, .maxClientThreadsPerAddress = 64});
    // Twelve sockets keep their clocks in step but never say who they are.
    std::vector<std::unique_ptr<net::WebSocketClient>> silent;
    for (int i = 0; i < 12; ++i) {
        silent.push_back(open("lurker-" + std::to_string(1000 + i)));
        ASSERT_TRUE(silent.back());
        silent.back()->sendText(Protocol::clientTime(1));
        auto answer = silent.back()->receive(2000);
        ASSERT_TRUE(answer);
    }
    EXPECT_EQ(state("/guest/phone-ffff-1/status"), "open");
    auto phone = join("phone-ffff-1", "Fay");
    ASSERT_TRUE(phone);
    ASSERT_TRUE(until([&] { return count(Kind::joined, "phone-ffff-1") == 1; }));
    EXPECT_EQ(state("/guest/phone-ffff-1/status"), "member");
}

}  // namespace
}  // namespace vt::guests
