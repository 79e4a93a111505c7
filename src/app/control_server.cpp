#include "app/control_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "remote/line_codec.h"
#include "remote/message_codec.h"
#include "settings/private_folder.h"

namespace vt::app {

struct ControlServer::Io {
    struct Client {
        int fd = -1;
        remote::LineCodec codec{remote::phoneLineBytes};
        std::string out;
        bool closing = false;
    };

    int listenFd = -1;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::map<uint64_t, Client> clients;
    uint64_t nextId = 1;

    void wake() const {
        const char b = 1;
        [[maybe_unused]] ssize_t n = ::write(wakeWrite, &b, 1);
    }
    void send(uint64_t id, const std::string& bytes) {
        {
            std::lock_guard lock(mutex);
            auto it = clients.find(id);
            if (it == clients.end()) return;
            if (it->second.out.size() + bytes.size() > maxQueuedBytes)
                it->second.closing = true;
            else
                it->second.out += bytes;
        }
        wake();
    }
    void close(uint64_t id) {
        {
            std::lock_guard lock(mutex);
            if (auto it = clients.find(id); it != clients.end()) it->second.closing = true;
        }
        wake();
    }
};

namespace {

sockaddr_un addressOf(const std::filesystem::path& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string s = path.string();
    if (s.size() >= sizeof addr.sun_path)
        throw std::runtime_error("The control socket path " + s + " is too long for a socket.");
    std::memcpy(addr.sun_path, s.c_str(), s.size() + 1);
    return addr;
}

bool answers(const std::filesystem::path& path) {
    sockaddr_un addr = addressOf(path);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

ControlServer::ControlServer(dispatch::MainQueue& main, std::filesystem::path path,
                             Snapshot snapshot, Handler handler, LocalHandler local)
    : main_(main),
      path_(std::move(path)),
      snapshot_(std::move(snapshot)),
      handler_(std::move(handler)),
      local_(std::move(local)),
      io_(std::make_shared<Io>()),
      alive_(std::make_shared<bool>(true)) {}

ControlServer::~ControlServer() {
    *alive_ = false;
    if (thread_.joinable()) {
        io_->stopping = true;
        io_->wake();
        thread_.join();
    }
    for (auto& [id, c] : io_->clients) ::close(c.fd);
    if (io_->listenFd >= 0) {
        ::close(io_->listenFd);
        std::error_code ec;
        std::filesystem::remove(path_, ec);
    }
    if (io_->wakeRead >= 0) ::close(io_->wakeRead);
    if (io_->wakeWrite >= 0) ::close(io_->wakeWrite);
}

void ControlServer::start() {
    const std::filesystem::path dir = path_.parent_path();
    std::error_code ec;
    if (auto why = settings::makePrivateFolder(dir))
        throw std::runtime_error("The control socket cannot be made: " + *why);
    // Only the folder's owner may reach the socket; the usual one is tightened
    // even when an older version made it looser.
    if (dir.filename() == "vellatone") ::chmod(dir.c_str(), 0700);

    if (std::filesystem::exists(path_, ec) || std::filesystem::is_symlink(path_, ec)) {
        if (answers(path_))
            throw std::runtime_error("Vellatone is already running: its control socket " +
                                     path_.string() + " answers.");
        std::filesystem::remove(path_, ec);
    }

    sockaddr_un addr = addressOf(path_);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        throw std::runtime_error(
            "Cannot make the control socket: " + std::string(std::strerror(errno)) + ".");
    const mode_t old = ::umask(0077);
    const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::umask(old);
    if (bound != 0 || ::chmod(path_.c_str(), 0600) != 0 || ::listen(fd, 16) != 0) {
        const std::string why = std::strerror(errno);
        ::close(fd);
        throw std::runtime_error("Cannot listen on the control socket " + path_.string() + ": " +
                                 why + ".");
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        ::close(fd);
        throw std::runtime_error("Cannot make a pipe for the control socket.");
    }
    io_->listenFd = fd;
    io_->wakeRead = pipeFds[0];
    io_->wakeWrite = pipeFds[1];

    std::shared_ptr<Io> io = io_;
    std::weak_ptr<bool> alive = alive_;
    thread_ = std::thread([this, io, alive] {
        auto toMain = [&](std::function<void()> task) {
            main_.post([alive, task = std::move(task)] {
                if (auto a = alive.lock(); a && *a) task();
            });
        };
        std::vector<pollfd> fds;
        std::vector<uint64_t> ids;
        while (!io->stopping) {
            fds.clear();
            ids.clear();
            fds.push_back({io->listenFd, POLLIN, 0});
            fds.push_back({io->wakeRead, POLLIN, 0});
            {
                std::lock_guard lock(io->mutex);
                for (auto& [id, c] : io->clients) {
                    short events = POLLIN;
                    if (!c.out.empty()) events |= POLLOUT;
                    fds.push_back({c.fd, events, 0});
                    ids.push_back(id);
                }
            }
            // Closing clients are handled below without waiting.
            bool anyClosing = false;
            {
                std::lock_guard lock(io->mutex);
                for (auto& [id, c] : io->clients) anyClosing = anyClosing || c.closing;
            }
            if (::poll(fds.data(), fds.size(), anyClosing ? 0 : -1) < 0 && errno != EINTR) break;
            if (fds[1].revents & POLLIN) {
                char buf[64];
                while (::read(io->wakeRead, buf, sizeof buf) > 0) {
                }
            }
            if (fds[0].revents & POLLIN) {
                for (;;) {
                    int c = ::accept4(io->listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                    if (c < 0) break;
                    std::lock_guard lock(io->mutex);
                    if (int(io->clients.size()) >= maxClients) {
                        ::close(c);
                        continue;
                    }
                    const uint64_t id = io->nextId++;
                    io->clients[id].fd = c;
                    toMain([this, id] {
                        lastSent_[id];
                        sendState(id, true);
                    });
                }
            }
            for (size_t i = 0; i < ids.size(); ++i) {
                const uint64_t id = ids[i];
                const short re = fds[i + 2].revents;
                std::vector<std::string> lines;
                std::lock_guard lock(io->mutex);
                auto it = io->clients.find(id);
                if (it == io->clients.end()) continue;
                Io::Client& c = it->second;
                if (re & (POLLIN | POLLHUP | POLLERR)) {
                    char buf[4096];
                    for (;;) {
                        ssize_t n = ::read(c.fd, buf, sizeof buf);
                        if (n > 0) {
                            try {
                                for (std::string& l :
                                     c.codec.feed(std::string_view(buf, size_t(n))))
                                    lines.push_back(std::move(l));
                            } catch (const remote::LineCodec::Error&) {
                                c.closing = true;
                                break;
                            }
                            continue;
                        }
                        if (n == 0 || (errno != EAGAIN && errno != EINTR)) c.closing = true;
                        if (n < 0 && errno == EINTR) continue;
                        break;
                    }
                }
                while (!c.closing && !c.out.empty()) {
                    ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL);
                    if (n > 0) {
                        c.out.erase(0, size_t(n));
                        continue;
                    }
                    if (n < 0 && errno == EINTR) continue;
                    if (n < 0 && errno != EAGAIN) c.closing = true;
                    break;
                }
                for (std::string& l : lines)
                    toMain([this, id, l = std::move(l)] { handleLine(id, l); });
                if (c.closing) {
                    ::close(c.fd);
                    io->clients.erase(it);
                    toMain([this, id] {
                        lastSent_.erase(id);
                        artworkSent_.erase(id);
                    });
                }
            }
            // Clients marked for closing that had no events this turn.
            std::lock_guard lock(io->mutex);
            for (auto it = io->clients.begin(); it != io->clients.end();) {
                if (!it->second.closing) {
                    ++it;
                    continue;
                }
                ::close(it->second.fd);
                const uint64_t id = it->first;
                it = io->clients.erase(it);
                toMain([this, id] {
                    lastSent_.erase(id);
                    artworkSent_.erase(id);
                });
            }
        }
    });
}

void ControlServer::handleLine(uint64_t client, const std::string& line) {
    if (line.empty()) return;
    std::optional<remote::PhoneMessage> message = remote::tryDecodePhoneMessage(line);
    if (!message && (mixer_ || calibration_)) {
        nlohmann::json j;
        try {
            j = remote::parseLine(line);  // bounded in depth
        } catch (const std::exception&) {
        }
        const auto type = j.is_object() ? j.find("type") : j.end();
        const std::string kind =
            type != j.end() && type->is_string() ? type->get<std::string>() : std::string();
        if (mixer_ && kind.rfind("mixer.", 0) == 0) {
            std::string reply = mixer_(j);
            publish(false);
            io_->send(client, reply + "\n");
            return;
        }
        if (calibration_ && kind.rfind("calibration.", 0) == 0) {
            std::weak_ptr<Io> io = io_;
            calibration_(j, [io, client](const std::string& reply) {
                if (auto live = io.lock()) live->send(client, reply + "\n");
            });
            publish(false);
            return;
        }
    }
    if (!message) {
        if (local_ && local_(line)) {
            publish(false);
            return;
        }
        // A line that is not a message ends the link, as on the remote's wire.
        io_->close(client);
        return;
    }
    std::optional<remote::MacMessage> reply = handler_(*message);
    // The effect first, then any reply: a client can send a ping after a
    // command and know, at its pong, that the state it holds is current.
    publish(false);
    if (reply) io_->send(client, remote::encode(*reply));
}

bool ControlServer::sendArtwork(uint64_t client, const remote::MacState& state) {
    if (!artwork_ || !state.nowPlaying || !state.nowPlaying->artworkKey) return false;
    const std::string& key = *state.nowPlaying->artworkKey;
    std::string& sent = artworkSent_[client];
    if (sent == key) return false;
    std::optional<std::string> jpeg = artwork_(key);
    if (!jpeg) return false;
    sent = key;
    io_->send(client, remote::encode(remote::MacMessage(remote::MacMessage::Artwork{
                          key, std::vector<uint8_t>(jpeg->begin(), jpeg->end())})));
    return true;
}

void ControlServer::sendState(uint64_t client, bool force) {
    auto it = lastSent_.find(client);
    if (it == lastSent_.end()) return;
    remote::MacState state = snapshot_();
    const bool artwork = sendArtwork(client, state);
    if (!force && !artwork && it->second == state) return;
    it->second = state;
    io_->send(client,
              remote::encode(remote::MacMessage(remote::MacMessage::State{std::move(state)})));
}

void ControlServer::publish(bool force) {
    if (lastSent_.empty()) return;
    remote::MacState state = snapshot_();
    for (auto& [id, last] : lastSent_) {
        const bool artwork = sendArtwork(id, state);
        if (!force && !artwork && last == state) continue;
        last = state;
        io_->send(id, remote::encode(remote::MacMessage(remote::MacMessage::State{state})));
    }
}

}  // namespace vt::app
