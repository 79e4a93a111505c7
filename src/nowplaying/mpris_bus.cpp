#include "nowplaying/mpris_bus.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>

#include "nowplaying/mpris_values.h"

namespace vt::nowplaying {

namespace {

constexpr const char* kObject = "/org/mpris/MediaPlayer2";
constexpr const char* kRootInterface = "org.mpris.MediaPlayer2";
constexpr const char* kPlayerInterface = "org.mpris.MediaPlayer2.Player";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr size_t kMaxDesktopEntryCharacters = 128;
constexpr double kMicroseconds = 1e6;
// A player that takes longer than this to answer is left unanswered.
constexpr uint64_t kCallTimeoutUs = 2'000'000;

bool isPlayerName(const char* name) {
    return name != nullptr &&
           std::strncmp(name, MprisBus::namePrefix, std::strlen(MprisBus::namePrefix)) == 0 &&
           std::strlen(name) <= 255;
}

}  // namespace

// Everything on the bus thread: the connection, the matches, which unique
// name owns which player name, and each player's abilities as last told.
class MprisBus::Session {
  public:
    Session(sd_bus* bus, Listener& listener) : bus_(bus), listener_(listener) {}
    ~Session() {
        for (sd_bus_slot* s : slots_) sd_bus_slot_unref(s);
        sd_bus_flush_close_unref(bus_);
    }

    bool begin() {
        static constexpr const char* owners =
            "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0namespace='org.mpris.MediaPlayer2'";
        static constexpr const char* changes =
            "type='signal',interface='org.freedesktop.DBus.Properties',"
            "member='PropertiesChanged',path='/org/mpris/MediaPlayer2'";
        static constexpr const char* seeks =
            "type='signal',interface='org.mpris.MediaPlayer2.Player',member='Seeked',"
            "path='/org/mpris/MediaPlayer2'";
        return match(owners, &Session::onOwnerChanged) && match(changes, &Session::onChanged) &&
               match(seeks, &Session::onSeeked) &&
               callAsync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "ListNames", &Session::onNames, nullptr);
    }

    void send(const std::string& name, const PlayerCall& c) {
        if (!owned(name)) return;
        using M = PlayerCall::Method;
        const char* d = name.c_str();
        const int64_t us = std::llround(c.seconds * kMicroseconds);
        switch (c.method) {
            case M::play:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "Play",
                                         nullptr, nullptr, "");
                break;
            case M::pause:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "Pause",
                                         nullptr, nullptr, "");
                break;
            case M::playPause:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "PlayPause",
                                         nullptr, nullptr, "");
                break;
            case M::next:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "Next",
                                         nullptr, nullptr, "");
                break;
            case M::previous:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "Previous",
                                         nullptr, nullptr, "");
                break;
            case M::seekBy:
                sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface, "Seek",
                                         nullptr, nullptr, "x", us);
                break;
            case M::setPosition:
                if (sd_bus_object_path_is_valid(c.trackID.c_str()))
                    sd_bus_call_method_async(bus_, nullptr, d, kObject, kPlayerInterface,
                                             "SetPosition", nullptr, nullptr, "ox",
                                             c.trackID.c_str(), us);
                break;
        }
    }

    sd_bus* bus() { return bus_; }

  private:
    struct Call {
        Session* session;
        std::string player;
    };
    using Handler = int (Session::*)(sd_bus_message*, const std::string& player);

    struct Match {
        Session* session;
        Handler handler;
    };

    bool match(const char* rule, Handler handler) {
        matches_.push_back(std::make_unique<Match>(Match{this, handler}));
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(bus_, &slot, rule, &Session::dispatchSignal, matches_.back().get()) <
            0)
            return false;
        slots_.push_back(slot);
        return true;
    }

    static int dispatchSignal(sd_bus_message* m, void* user, sd_bus_error*) {
        auto* match = static_cast<Match*>(user);
        return (match->session->*match->handler)(m, std::string());
    }

    // An asynchronous call whose reply goes to `handler` with the player's name.
    bool callAsync(const char* dest, const char* path, const char* iface, const char* member,
                   Handler handler, const char* player) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_method_call(bus_, &m, dest, path, iface, member) < 0) return false;
        return sendCall(m, handler, player);
    }

    bool getProperties(const std::string& player, const char* iface, Handler handler) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_method_call(bus_, &m, player.c_str(), kObject, kProperties,
                                           "GetAll") < 0)
            return false;
        sd_bus_message_append(m, "s", iface);
        return sendCall(m, handler, player.c_str());
    }

    bool getProperty(const std::string& player, const char* iface, const char* property,
                     Handler handler) {
        sd_bus_message* m = nullptr;
        if (sd_bus_message_new_method_call(bus_, &m, player.c_str(), kObject, kProperties, "Get") <
            0)
            return false;
        sd_bus_message_append(m, "ss", iface, property);
        return sendCall(m, handler, player.c_str());
    }

    bool sendCall(sd_bus_message* m, Handler handler, const char* player) {
        auto* call = new std::pair<Call, Handler>(Call{this, player ? player : ""}, handler);
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_call_async(
            bus_, &slot, m,
            [](sd_bus_message* reply, void* user, sd_bus_error*) {
                auto* c = static_cast<std::pair<Call, Handler>*>(user);
                if (!sd_bus_message_is_method_error(reply, nullptr))
                    (c->first.session->*c->second)(reply, c->first.player);
                return 0;
            },
            call, kCallTimeoutUs);
        sd_bus_message_unref(m);
        if (r < 0) {
            delete call;
            return false;
        }
        // The slot is floating: the bus frees it after the reply, and the
        // destroy callback frees the call's context with it.
        sd_bus_slot_set_destroy_callback(
            slot, [](void* user) { delete static_cast<std::pair<Call, Handler>*>(user); });
        sd_bus_slot_set_floating(slot, 1);
        sd_bus_slot_unref(slot);
        return true;
    }

    bool owned(const std::string& name) const {
        for (const auto& [owner, player] : owners_)
            if (player == name) return true;
        return false;
    }

    std::string playerOf(sd_bus_message* m) const {
        const char* sender = sd_bus_message_get_sender(m);
        if (sender == nullptr) return {};
        auto it = owners_.find(sender);
        return it == owners_.end() ? std::string() : it->second;
    }

    void follow(const std::string& owner, const std::string& player) {
        if (owners_.size() >= maxPlayers && !owners_.contains(owner)) return;
        owners_[owner] = player;
        abilities_[player] = PlayerAbilities{};
        getProperties(player, kPlayerInterface, &Session::onPlayerProperties);
        getProperty(player, kRootInterface, "DesktopEntry", &Session::onDesktopEntry);
    }

    int onNames(sd_bus_message* m, const std::string&) {
        if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s") <= 0) return 0;
        const char* name = nullptr;
        size_t players = 0;
        while (sd_bus_message_read_basic(m, 's', &name) > 0) {
            if (!isPlayerName(name) || players++ >= maxPlayers) continue;
            sd_bus_message* call = nullptr;
            if (sd_bus_message_new_method_call(bus_, &call, "org.freedesktop.DBus",
                                               "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                               "GetNameOwner") < 0)
                continue;
            sd_bus_message_append(call, "s", name);
            sendCall(call, &Session::onOwner, name);
        }
        return 0;
    }

    int onOwner(sd_bus_message* m, const std::string& player) {
        const char* owner = nullptr;
        if (sd_bus_message_read(m, "s", &owner) > 0 && owner != nullptr) follow(owner, player);
        return 0;
    }

    int onOwnerChanged(sd_bus_message* m, const std::string&) {
        const char *name = nullptr, *before = nullptr, *after = nullptr;
        if (sd_bus_message_read(m, "sss", &name, &before, &after) <= 0 || !isPlayerName(name))
            return 0;
        if (before != nullptr && *before != '\0') {
            owners_.erase(before);
            abilities_.erase(name);
            listener_.gone(name);
        }
        if (after != nullptr && *after != '\0') follow(after, name);
        return 0;
    }

    int onChanged(sd_bus_message* m, const std::string&) {
        const std::string player = playerOf(m);
        const char* iface = nullptr;
        if (player.empty() || sd_bus_message_read(m, "s", &iface) <= 0 || iface == nullptr)
            return 0;
        if (std::strcmp(iface, kPlayerInterface) == 0) {
            onPlayerProperties(m, player);
            // Position is never signalled; ask where the player is now that
            // something changed.
            getProperty(player, kPlayerInterface, "Position", &Session::onPosition);
        } else if (std::strcmp(iface, kRootInterface) == 0) {
            getProperty(player, kRootInterface, "DesktopEntry", &Session::onDesktopEntry);
        }
        return 0;
    }

    int onSeeked(sd_bus_message* m, const std::string&) {
        const std::string player = playerOf(m);
        int64_t us = 0;
        if (player.empty() || sd_bus_message_read(m, "x", &us) <= 0 || us < 0) return 0;
        PlayerReport report;
        report.busName = player;
        report.position = double(us) / kMicroseconds;
        listener_.report(std::move(report));
        return 0;
    }

    int onPlayerProperties(sd_bus_message* m, const std::string& player) {
        if (!owned(player)) return 0;
        PlayerProperties props;
        if (!readPlayerProperties(m, props)) return 0;
        PlayerAbilities& can = abilities_[player];
        const PlayerAbilities before = can;
        auto take = [](bool& into, const std::optional<bool>& told) {
            if (told) into = *told;
        };
        take(can.canControl, props.canControl);
        take(can.canPlay, props.canPlay);
        take(can.canPause, props.canPause);
        take(can.canGoNext, props.canGoNext);
        take(can.canGoPrevious, props.canGoPrevious);
        take(can.canSeek, props.canSeek);
        if (!can.canControl) can = PlayerAbilities{};
        PlayerReport report;
        report.busName = player;
        report.metadata = std::move(props.metadata);
        report.status = props.status;
        report.position = props.position;
        report.rate = props.rate;
        if (can != before || props.canControl) report.abilities = can;
        listener_.report(std::move(report));
        return 0;
    }

    int onPosition(sd_bus_message* m, const std::string& player) {
        if (!owned(player)) return 0;
        PlayerReport report;
        report.busName = player;
        report.position = readPositionVariant(m);
        if (report.position) listener_.report(std::move(report));
        return 0;
    }

    int onDesktopEntry(sd_bus_message* m, const std::string& player) {
        if (!owned(player)) return 0;
        PlayerReport report;
        report.busName = player;
        report.desktopEntry = readStringVariant(m, kMaxDesktopEntryCharacters);
        if (report.desktopEntry && !report.desktopEntry->empty())
            listener_.report(std::move(report));
        return 0;
    }

    sd_bus* bus_;
    Listener& listener_;
    std::vector<sd_bus_slot*> slots_;
    std::vector<std::unique_ptr<Match>> matches_;
    std::map<std::string, std::string> owners_;  // unique name -> player name
    std::map<std::string, PlayerAbilities> abilities_;
};

MprisBus::~MprisBus() {
    stop();
}

void MprisBus::start(Listener listener) {
    if (thread_.joinable()) return;
    stopping_ = false;
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) return;
    thread_ = std::thread([this, listener = std::move(listener)]() mutable {
        sd_bus* raw = nullptr;
        std::unique_ptr<Session> session;
        if (sd_bus_open_user(&raw) >= 0) {
            session = std::make_unique<Session>(raw, listener);
            if (!session->begin()) session.reset();
        }
        while (!stopping_) {
            if (session) {
                const int r = sd_bus_process(session->bus(), nullptr);
                if (r < 0) {
                    session.reset();  // the bus went away: silence from here on
                    continue;
                }
                if (r > 0) continue;
            }
            std::vector<std::pair<std::string, PlayerCall>> calls;
            {
                std::lock_guard guard(lock_);
                calls.swap(pending_);
            }
            if (session) {
                for (const auto& [name, c] : calls) session->send(name, c);
                sd_bus_flush(session->bus());
            }
            pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {-1, 0, 0}};
            int timeoutMs = -1;
            if (session) {
                fds[1].fd = sd_bus_get_fd(session->bus());
                fds[1].events = short(sd_bus_get_events(session->bus()));
                uint64_t until = 0;
                if (sd_bus_get_timeout(session->bus(), &until) >= 0 && until != UINT64_MAX) {
                    timespec ts{};
                    ::clock_gettime(CLOCK_MONOTONIC, &ts);
                    const uint64_t nowUs =
                        uint64_t(ts.tv_sec) * 1000000u + uint64_t(ts.tv_nsec) / 1000u;
                    timeoutMs = until <= nowUs ? 0 : int((until - nowUs + 999) / 1000);
                }
            }
            ::poll(fds, session ? 2 : 1, timeoutMs);
            uint64_t drained = 0;
            if (fds[0].revents & POLLIN) [[maybe_unused]]
                auto n = ::read(wakeFd_, &drained, sizeof drained);
        }
    });
}

void MprisBus::stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    wake();
    thread_.join();
    ::close(wakeFd_);
    wakeFd_ = -1;
    std::lock_guard guard(lock_);
    pending_.clear();
}

void MprisBus::call(const std::string& busName, const PlayerCall& call) {
    {
        std::lock_guard guard(lock_);
        if (!thread_.joinable()) return;
        pending_.emplace_back(busName, call);
    }
    wake();
}

void MprisBus::wake() {
    const uint64_t one = 1;
    [[maybe_unused]] auto n = ::write(wakeFd_, &one, sizeof one);
}

}  // namespace vt::nowplaying
