#include "guests/guest_server.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>
#include <vector>

#include "guests/guest_routes.h"
#include "net/http_response.h"
#include "net/websocket_frame.h"
#include "sendspin/protocol.h"

namespace vt::guests {

namespace {

constexpr size_t kMaxMessage = 65'536;
constexpr size_t kMaxControlQueue = 256;
constexpr uint16_t kCloseGoingAway = 1001;
constexpr uint16_t kClosePolicy = 1008;
// Room for every connection a flood can have in flight: a short queue drops a
// phone's handshake behind a hoarder's, and the phone waits out a resend
// (seconds) although the accept loop turns the hoarder away in microseconds.
constexpr int kListenBacklog = SOMAXCONN;

std::optional<std::string_view> header(const net::HTTPRequest& request, const char* name) {
    auto it = request.headers.find(name);
    if (it == request.headers.end()) return std::nullopt;
    return std::string_view(it->second);
}

void respond(int fd, int code, std::string_view reason,
             std::optional<std::string_view> type = std::nullopt, std::string_view body = {}) {
    net::HTTPResponse::writeAll(fd, net::HTTPResponse::status(code, reason, type, body));
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream body;
    body << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return std::move(body).str();
}

std::string hostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "this computer";
    return name;
}

}  // namespace

GuestServer::GuestServer(std::filesystem::path root, uint16_t port, double patience,
                         dispatch::MainQueue& eventQueue, dispatch::MainQueue& queue,
                         Options options)
    : root_(std::move(root)),
      requestedPort_(port),
      patience_(patience),
      eventQueue_(eventQueue),
      queue_(queue),
      options_(std::move(options)),
      computerName_(options_.computerName.empty() ? hostName() : options_.computerName) {}

GuestServer::~GuestServer() {
    stop();
    if (acceptThread_.joinable()) acceptThread_.join();
    clients_.waitIdle();
}

void GuestServer::start() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) throw net::ServerError("socket: " + std::to_string(errno));
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(requestedPort_);
    if (inet_pton(AF_INET, options_.bindAddress.c_str(), &address.sin_addr) != 1 ||
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, kListenBacklog) != 0) {
        const std::string error = std::to_string(errno);
        ::close(listener);
        throw net::ServerError("bind/listen: " + error);
    }
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    {
        std::lock_guard guard(lock_);
        port_ = ntohs(address.sin_port);
        running_ = true;
        const double interval = std::min(patience_ * 0.25, 1.0);
        expiryStart_ = queue_.postAfter(0.25, [this, interval] {
            expiryTick();
            std::lock_guard inner(lock_);
            if (running_) expiry_ = queue_.repeat(interval, [this] { expiryTick(); });
        });
    }
    acceptThread_ = std::thread([this, listener] {
        pthread_setname_np(pthread_self(), "GuestAccept");
        acceptLoop(listener);
    });
}

void GuestServer::stop() {
    std::map<int64_t, std::shared_ptr<net::SendspinConnection>> open;
    std::unique_ptr<dispatch::TimerHandle> expiry, expiryStart;
    std::map<int64_t, std::unique_ptr<dispatch::TimerHandle>> hellos;
    {
        std::lock_guard guard(lock_);
        running_ = false;
        open = std::move(connections_);
        connections_.clear();
        expiry = std::move(expiry_);
        expiryStart = std::move(expiryStart_);
        hellos = std::move(helloTimers_);
        helloTimers_.clear();
        for (int fd : rawSockets_) shutdown(fd, SHUT_RDWR);
    }
    if (expiry) expiry->cancel();
    if (expiryStart) expiryStart->cancel();
    for (auto& [id, timer] : hellos) timer->cancel();
    for (auto& [id, c] : open) c->close(kCloseGoingAway);
}

uint16_t GuestServer::port() const {
    std::lock_guard guard(lock_);
    return port_;
}

size_t GuestServer::clientThreads() const {
    return clients_.count();
}

GuestRoster::Status GuestServer::status(const std::string& clientID) const {
    std::lock_guard guard(rosterLock_);
    return roster_.status(clientID);
}

void GuestServer::acceptLoop(int listener) {
    const auto running = [this] {
        std::lock_guard guard(lock_);
        return running_;
    };
    net::acceptUntil(listener, running, [this](int fd) {
        const std::optional<uint32_t> peer = peerAddress(fd);
        {
            std::lock_guard guard(lock_);
            // One address may hold only its share of the threads, so that a
            // client hoarding sockets is refused and phones still get in.
            if (!running_ || !peer || perAddress_[*peer] >= options_.maxClientThreadsPerAddress) {
                ::close(fd);
                return;
            }
            ++perAddress_[*peer];
            rawSockets_.insert(fd);
        }
        if (clients_.spawn("GuestClient", [this, fd, peer = *peer] {
                serveClient(fd);
                releaseAddress(peer);
            })) {
            return;
        }
        releaseAddress(*peer);
        std::lock_guard guard(lock_);
        rawSockets_.erase(fd);
        ::close(fd);
    });
}

std::optional<uint32_t> GuestServer::peerAddress(int fd) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        peer.sin_family != AF_INET) {
        return std::nullopt;
    }
    return ntohl(peer.sin_addr.s_addr);
}

void GuestServer::releaseAddress(uint32_t peer) {
    std::lock_guard guard(lock_);
    auto it = perAddress_.find(peer);
    if (it != perAddress_.end() && --it->second == 0) perAddress_.erase(it);
}

void GuestServer::serveClient(int fd) {
    auto finish = [&] {
        {
            std::lock_guard guard(lock_);
            rawSockets_.erase(fd);
        }
        ::close(fd);
    };
    const net::HeadReadResult head = net::readHTTPRequest(fd, options_.headDeadlineSeconds);
    if (!head.request) return finish();
    const net::HTTPRequest& request = *head.request;
    if (!isAllowed(header(request, "host"), header(request, "origin"),
                   options_.allowsLoopbackHost)) {
        respond(fd, 403, "Forbidden");
        return finish();
    }
    const GuestRoute route = routeFor(request);
    switch (route.kind) {
        case GuestRoute::Kind::notFound:
            respond(fd, 404, "Not Found");
            return finish();
        case GuestRoute::Kind::file: {
            auto body = readFile(root_ / route.file);
            if (!body) {
                respond(fd, 404, "Not Found");
            } else {
                respond(fd, 200, "OK", contentType(route.file), *body);
            }
            return finish();
        }
        case GuestRoute::Kind::status: {
            // The name lets the page say whose party it is before the phone joins.
            const nlohmann::json body = {{"name", computerName_},
                                         {"state", GuestRoster::rawValue(status(route.clientID))}};
            respond(fd, 200, "OK", "application/json",
                    body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
            return finish();
        }
        case GuestRoute::Kind::party:
            respond(fd, 200, "OK", "application/json", partyJSON(route.clientID));
            return finish();
        case GuestRoute::Kind::sendspin:
            if (auto refusal = net::HTTPResponse::webSocketRefusal(request)) {
                net::HTTPResponse::writeAll(fd, *refusal);
                return finish();
            }
            serveGuest(fd, route.clientID, head.leftover,
                       std::string(*header(request, "sec-websocket-key")));
            return;
    }
}

std::string GuestServer::partyJSON(const std::string& clientID) const {
    std::vector<GuestRoster::Member> members;
    {
        std::lock_guard guard(rosterLock_);
        members = roster_.party(clientID, queue_.now(), patience_);
    }
    nlohmann::json guests = nlohmann::json::array();
    for (const auto& m : members) guests.push_back({{"name", m.name}, {"you", m.isYou}});
    const nlohmann::json body = {{"count", members.size()}, {"guests", guests}};
    try {
        return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    } catch (...) {
        return R"({"count":0,"guests":[]})";
    }
}

void GuestServer::refuseSession(int fd, uint16_t code) {
    const char payload[2] = {static_cast<char>(code >> 8), static_cast<char>(code & 0xff)};
    net::HTTPResponse::writeAll(fd, net::WebSocketFrame::encode(net::WebSocketFrame::Opcode::close,
                                                                std::string_view(payload, 2)));
    shutdown(fd, SHUT_WR);
    // Give the peer's own close a moment to arrive, so it sees ours cleanly.
    timeval timeout{2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    char sink[256];
    [[maybe_unused]] ssize_t n = recv(fd, sink, sizeof sink, 0);
}

void GuestServer::serveGuest(int fd, const std::string& clientID, const std::string& leftover,
                             const std::string& key) {
    auto finish = [&] {
        {
            std::lock_guard guard(lock_);
            rawSockets_.erase(fd);
        }
        ::close(fd);
    };
    if (!net::HTTPResponse::writeAll(fd, net::HTTPResponse::upgrade(key))) return finish();
    int64_t id = 0;
    {
        std::lock_guard guard(lock_);
        if (!running_) {
            rawSockets_.erase(fd);
            ::close(fd);
            return;
        }
        id = ++nextConnection_;
    }

    std::shared_ptr<net::SendspinConnection> connection;
    std::shared_ptr<net::SendspinConnection> replaced;
    bool named = false;
    {
        std::unique_lock roster(rosterLock_);
        const GuestRoster::Admission admission = roster_.admit(clientID, id);
        if (std::holds_alternative<GuestRoster::Removed>(admission) ||
            std::holds_alternative<GuestRoster::Full>(admission)) {
            roster.unlock();
            refuseSession(fd, std::holds_alternative<GuestRoster::Removed>(admission) ? closeRemoved
                                                                                      : closeFull);
            return finish();
        }
        {
            std::lock_guard guard(lock_);
            if (!running_) {
                roster_.dropped(id, queue_.now());
                rawSockets_.erase(fd);
                ::close(fd);
                return;
            }
            rawSockets_.erase(fd);
            connection = std::make_shared<net::SendspinConnection>(
                fd, id, net::SendspinConnection::Limits{kMaxMessage, kMaxControlQueue});
            connections_[id] = connection;
            if (const auto* back = std::get_if<GuestRoster::Returning>(&admission);
                back && back->replaced) {
                auto old = connections_.find(*back->replaced);
                if (old != connections_.end()) replaced = old->second;
            }
        }
        const GuestRoster::Guest* guest = roster_.guest(clientID);
        named = guest && guest->name;
        if (named) emitLocked(Event{Event::Kind::returned, clientID, {}, id, {}});
    }
    // The phone is already on its new socket: the old one goes without a close frame.
    if (replaced) replaced->close(std::nullopt);

    if (!named) {
        auto timer = queue_.postAfter(options_.helloPatience, [this, clientID, id] {
            bool silent = false;
            {
                std::lock_guard roster(rosterLock_);
                const GuestRoster::Guest* guest = roster_.guest(clientID);
                silent = guest && guest->connection == id && !guest->name;
            }
            if (!silent) return;
            if (auto c = this->connection(id)) c->close(kClosePolicy);
        });
        std::lock_guard guard(lock_);
        helloTimers_[id] = std::move(timer);
    }

    net::SendspinConnection* raw = connection.get();
    connection->setOnText([this, raw, clientID, id](std::string_view text, int64_t receivedUs) {
        const auto message = sendspin::SendspinProtocol::parse(text);
        if (!message) return;
        if (const auto* time = std::get_if<sendspin::SendspinProtocol::ClientTime>(&*message)) {
            // Clock exchanges never wait for anything, not even the hello.
            const int64_t sent = time->clientTransmitted;
            raw->sendText([sent, receivedUs] {
                return sendspin::SendspinProtocol::serverTime(sent, receivedUs,
                                                              sendspin::SendspinProtocol::nowUs());
            });
            return;
        }
        if (std::holds_alternative<sendspin::SendspinProtocol::ClientOther>(*message)) return;
        clientText(clientID, id, text);
    });
    connection->run(leftover);

    std::unique_ptr<dispatch::TimerHandle> hello;
    {
        std::lock_guard guard(lock_);
        connections_.erase(id);
        if (auto it = helloTimers_.find(id); it != helloTimers_.end()) {
            hello = std::move(it->second);
            helloTimers_.erase(it);
        }
    }
    if (hello) hello->cancel();
    std::lock_guard roster(rosterLock_);
    const GuestRoster::Drop drop = roster_.dropped(id, queue_.now());
    if (const auto* d = std::get_if<GuestRoster::Dropped>(&drop)) {
        emitLocked(Event{Event::Kind::dropped, d->clientID, {}, 0, {}});
    }
}

void GuestServer::clientText(const std::string& clientID, int64_t connection,
                             std::string_view text) {
    const auto message = sendspin::SendspinProtocol::parse(text);
    if (!message) return;
    std::lock_guard roster(rosterLock_);
    const GuestRoster::Guest* guest = roster_.guest(clientID);
    if (!guest || guest->connection != connection) return;
    if (const auto* hello = std::get_if<sendspin::SendspinProtocol::ClientHello>(&*message)) {
        std::string name = guestDisplayName(hello->name);
        switch (roster_.named(clientID, name)) {
            case GuestRoster::Naming::first:
                emitLocked(Event{Event::Kind::joined, clientID, std::move(name), connection, {}});
                break;
            case GuestRoster::Naming::full:
                // The places went to others who said hello first.
                if (auto c = this->connection(connection)) c->close(closeFull);
                return;
            case GuestRoster::Naming::again:
            case GuestRoster::Naming::unknown:
                break;
        }
        // The sender needs to see the hello too.
        emitLocked(Event{Event::Kind::text, clientID, {}, connection, std::string(text)});
        return;
    }
    if (!guest->name) return;
    if (const auto* bye = std::get_if<sendspin::SendspinProtocol::ClientGoodbye>(&*message)) {
        if (bye->reason == leavingReason) {
            if (roster_.left(clientID)) emitLocked(Event{Event::Kind::gone, clientID, {}, 0, {}});
            return;
        }
    }
    emitLocked(Event{Event::Kind::text, clientID, {}, connection, std::string(text)});
}

void GuestServer::remove(const std::string& clientID) {
    std::optional<int64_t> had;
    {
        std::lock_guard roster(rosterLock_);
        had = roster_.remove(clientID);
    }
    if (!had) return;
    if (auto c = connection(*had)) c->close(closeRemoved);
}

void GuestServer::expiryTick() {
    {
        std::lock_guard roster(rosterLock_);
        for (std::string& id : roster_.expired(queue_.now(), patience_)) {
            emitLocked(Event{Event::Kind::gone, std::move(id), {}, 0, {}});
        }
    }
    std::vector<std::shared_ptr<net::SendspinConnection>> open;
    {
        std::lock_guard guard(lock_);
        for (auto& [id, c] : connections_) open.push_back(c);
    }
    const double now = queue_.now();
    for (auto& c : open) {
        if (now - c->lastInbound() > options_.idlePatience) {
            c->close(kCloseGoingAway);
        } else {
            c->sendPing();
        }
    }
}

void GuestServer::emitLocked(Event event) {
    // The handler travels with the event, so a late delivery never reaches
    // into a server that has gone meanwhile.
    if (!onEvent) return;
    eventQueue_.post([handler = onEvent, event = std::move(event)] { handler(event); });
}

std::shared_ptr<net::SendspinConnection> GuestServer::connection(int64_t id) const {
    std::lock_guard guard(lock_);
    auto it = connections_.find(id);
    return it == connections_.end() ? nullptr : it->second;
}

void GuestServer::sendText(std::string text, int64_t to) {
    if (auto c = connection(to)) c->sendText(text);
}

void GuestServer::sendTextBuilding(std::function<std::string()> building, int64_t to) {
    if (auto c = connection(to)) c->sendText(std::move(building));
}

void GuestServer::sendBinary(std::string data, int64_t to) {
    if (auto c = connection(to)) c->sendBinary(data);
}

std::optional<std::string> GuestServer::lanIPv4() {
    // The routing table's choice for an outside address; a datagram socket's
    // connect sends nothing.
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe >= 0) {
        sockaddr_in outside{};
        outside.sin_family = AF_INET;
        outside.sin_port = htons(53);
        inet_pton(AF_INET, "1.1.1.1", &outside.sin_addr);
        sockaddr_in local{};
        socklen_t length = sizeof local;
        std::optional<std::string> found;
        if (connect(probe, reinterpret_cast<sockaddr*>(&outside), sizeof outside) == 0 &&
            getsockname(probe, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
            local.sin_addr.s_addr != htonl(INADDR_ANY)) {
            char text[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
            found = text;
        }
        ::close(probe);
        if (found) return found;
    }
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return std::nullopt;
    std::optional<std::string> found;
    for (ifaddrs* a = list; a && !found; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
        if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & IFF_LOOPBACK)) continue;
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, text,
                  sizeof text);
        if (std::string_view(text).starts_with("169.254.")) continue;
        found = text;
    }
    freeifaddrs(list);
    return found;
}

}  // namespace vt::guests
