// vellatone-guest-flood: what one hostile address on the network costs the
// guest server. The real guest server runs on 127.0.0.1 with the real page;
// "the hog" at 127.0.0.2 holds a crowd of idle sockets and opens a new one as
// soon as the server closes one; "a phone" at 127.0.0.3 loads /join every half
// second meanwhile and counts the answers. Then twelve sockets at 127.0.0.4
// keep their clocks in step without ever saying hello, and a phone tries to
// join the party.
//
//   vellatone-guest-flood [--sockets 150] [--seconds 20] [--tries 40]
//
// Everything stays on loopback.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dispatch/event_loop.h"
#include "guests/guest_server.h"
#include "net/monotonic.h"
#include "net/websocket_client.h"
#include "sendspin/protocol.h"

namespace {

using vt::guests::GuestServer;
namespace Protocol = vt::sendspin::SendspinProtocol;

constexpr double kJoinTimeoutSeconds = 5.0;

int connectFrom(const char* source, uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in from{};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, source, &from.sin_addr);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

// One page load from `source`: true when the whole page came back in time.
bool loadJoin(const char* source, uint16_t port, double& seconds) {
    const double start = vt::net::monotonicSeconds();
    const int fd = connectFrom(source, port);
    if (fd < 0) return false;
    const std::string head =
        "GET /join HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n";
    send(fd, head.data(), head.size(), MSG_NOSIGNAL);
    std::string reply;
    char buf[16384];
    while (true) {
        const double left = start + kJoinTimeoutSeconds - vt::net::monotonicSeconds();
        pollfd pfd{fd, POLLIN, 0};
        if (left <= 0 || poll(&pfd, 1, int(left * 1000) + 1) <= 0) break;
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        reply.append(buf, size_t(n));
    }
    ::close(fd);
    seconds = vt::net::monotonicSeconds() - start;
    return reply.starts_with("HTTP/1.1 200") && reply.find("</html>") != std::string::npos;
}

int option(int argc, char** argv, const char* name, int fallback) {
    for (int i = 1; i + 1 < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) return std::atoi(argv[i + 1]);
    return fallback;
}

}  // namespace

int main(int argc, char** argv) {
    const int sockets = option(argc, argv, "--sockets", 150);
    const int seconds = option(argc, argv, "--seconds", 20);
    const int tries = option(argc, argv, "--tries", 40);
    rlimit files{4096, 4096};
    setrlimit(RLIMIT_NOFILE, &files);

    vt::dispatch::EventLoop loop;
    GuestServer::Options options;
    options.bindAddress = "127.0.0.1";
    options.allowsLoopbackHost = true;
    options.computerName = "Flood";
    GuestServer server(VELLATONE_GUEST_PAGE, 0, 15.0, loop, loop, options);
    std::atomic<int> joined{0};
    server.onEvent = [&](const GuestServer::Event& e) {
        if (e.kind == GuestServer::Event::Kind::joined) ++joined;
    };
    server.start();
    const uint16_t port = server.port();
    std::thread loopThread([&] { loop.run(); });

    // The hog: a crowd of idle sockets, each reopened the moment it closes.
    std::atomic<bool> hogging{true};
    std::atomic<long> hogOpened{0}, hogRefused{0};
    std::thread hog([&] {
        std::vector<int> held;
        for (int i = 0; i < sockets; ++i) {
            const int fd = connectFrom("127.0.0.2", port);
            if (fd >= 0) held.push_back(fd), ++hogOpened;
        }
        while (hogging) {
            std::vector<pollfd> pfds;
            for (int fd : held) pfds.push_back({fd, POLLIN, 0});
            poll(pfds.data(), pfds.size(), 50);
            for (size_t i = 0; i < held.size(); ++i) {
                if (!(pfds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                char byte;
                if (recv(held[i], &byte, 1, MSG_DONTWAIT) != 0) continue;
                ::close(held[i]);
                ++hogRefused;
                const int fd = connectFrom("127.0.0.2", port);
                if (fd >= 0) ++hogOpened;
                held[i] = fd;
            }
            std::erase(held, -1);
            while (int(held.size()) < sockets && hogging) {
                const int fd = connectFrom("127.0.0.2", port);
                if (fd < 0) break;
                held.push_back(fd);
                ++hogOpened;
            }
        }
        for (int fd : held) ::close(fd);
    });

    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    int answered = 0;
    double slowest = 0, total = 0;
    const double interval = double(seconds) / tries;
    for (int i = 0; i < tries; ++i) {
        const double start = vt::net::monotonicSeconds();
        double took = 0;
        if (loadJoin("127.0.0.3", port, took)) {
            ++answered;
            slowest = std::max(slowest, took);
            total += took;
        }
        const double rest = interval - (vt::net::monotonicSeconds() - start);
        if (rest > 0) std::this_thread::sleep_for(std::chrono::duration<double>(rest));
    }
    const size_t threadsDuringFlood = server.clientThreads();
    hogging = false;
    hog.join();

    std::printf("guest server /join while 127.0.0.2 holds %d idle connections for %d s:\n", sockets,
                seconds);
    std::printf("  /join answered: %d of %d (%.1f %%), mean %.1f ms, slowest %.1f ms\n", answered,
                tries, 100.0 * answered / tries, answered ? 1000 * total / answered : 0.0,
                1000 * slowest);
    std::printf(
        "  the hog's sockets: %ld opened, %ld closed by the server; client threads at the "
        "end: %zu of 64\n",
        hogOpened.load(), hogRefused.load(), threadsDuringFlood);

    // Twelve sockets that exchange clock messages but never say hello.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::vector<std::unique_ptr<vt::net::WebSocketClient>> silent;
    const double silentSince = vt::net::monotonicSeconds();
    for (int i = 0; i < 12; ++i) {
        auto c = std::make_unique<vt::net::WebSocketClient>();
        c->setSourceAddress("127.0.0.4");
        if (!c->connect("127.0.0.1", port,
                        "/guest/lurker-" + std::to_string(1000 + i) + "/sendspin"))
            continue;
        c->sendText(Protocol::clientTime(1));
        c->receive(2000);
        silent.push_back(std::move(c));
    }
    const int joinedBefore = joined.load();
    vt::net::WebSocketClient phone;
    phone.setSourceAddress("127.0.0.3");
    const bool connected = phone.connect("127.0.0.1", port, "/guest/phone-real-1/sendspin");
    if (connected) phone.sendText(Protocol::clientHello("phone-real-1", "Phone"));
    const double asked = vt::net::monotonicSeconds();
    while (joined.load() == joinedBefore && vt::net::monotonicSeconds() - asked < 3.0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const bool phoneJoined = joined.load() > joinedBefore;
    std::printf(
        "twelve sockets exchanging clock messages without a hello: %zu open, %zu client "
        "threads held\n",
        silent.size(), server.clientThreads());
    std::printf("  a phone saying hello beside them: %s\n", phoneJoined ? "joined" : "turned away");
    // How long a silent socket keeps its thread: until the hello patience runs out.
    bool closedSeen = false;
    while (!closedSeen && vt::net::monotonicSeconds() - silentSince < 15.0) {
        auto frame = silent.empty() ? std::nullopt : silent.front()->receive(100);
        if (frame && frame->opcode == 8) closedSeen = true;
        if (!frame) silent.front()->sendText(Protocol::clientTime(2));
    }
    std::printf("  the first silent socket was closed %.1f s after it opened (%s)\n",
                vt::net::monotonicSeconds() - silentSince, closedSeen ? "code 1008" : "still open");

    silent.clear();
    phone.close();
    server.stop();
    loop.quit();
    loopThread.join();
    return answered == tries && phoneJoined ? 0 : 1;
}
