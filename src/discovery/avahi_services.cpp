#include "discovery/avahi_services.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>
#include <avahi-common/thread-watch.h>

#include <cstdio>
#include <map>
#include <set>
#include <utility>

namespace vt::discovery {

namespace {

constexpr const char* domain = "local";
// A DNS label is at most 63 bytes; an instance name is one label.
constexpr size_t maxInstanceNameBytes = 63;

TxtRecord txtOf(AvahiStringList* list) {
    TxtRecord record;
    size_t total = 0;
    for (AvahiStringList* s = list; s && total < maxTxtRecordBytes; s = s->next) {
        total += s->size + 1;
        addTxtString(record, std::string_view(reinterpret_cast<const char*>(s->text), s->size));
    }
    return record;
}

std::optional<ServiceAddress> addressOf(const AvahiAddress* a, uint16_t port) {
    if (!a || a->proto != AVAHI_PROTO_INET) return std::nullopt;
    char text[AVAHI_ADDRESS_STR_MAX] = {};
    if (!avahi_address_snprint(text, sizeof text, a)) return std::nullopt;
    return ServiceAddress{text, port};
}

}  // namespace

// Everything below is touched on Avahi's poll thread, or on the main thread
// with the poll locked.
struct AvahiServices::State : std::enable_shared_from_this<State> {
    struct Service {
        std::set<std::pair<AvahiIfIndex, AvahiProtocol>> seenOn;
        ServiceResult result;
        AvahiServiceResolver* resolver = nullptr;
    };
    struct Browse {
        State* state = nullptr;
        std::string type;
        Results onResults;
        ::AvahiServiceBrowser* browser = nullptr;
        std::map<std::string, Service> services;
        std::shared_ptr<bool> alive = std::make_shared<bool>(true);
    };
    struct ResolveJob {
        State* state = nullptr;
        ServiceEndpoint endpoint;
        Resolved done;
        AvahiServiceResolver* resolver = nullptr;
        std::shared_ptr<bool> alive = std::make_shared<bool>(true);
    };

    explicit State(dispatch::MainQueue& q) : main(q) {}

    dispatch::MainQueue& main;
    AvahiThreadedPoll* poll = nullptr;
    AvahiClient* client = nullptr;
    bool running = false;
    bool toldAbsent = false;
    std::optional<std::string> hostName;
    std::set<Browse*> browses;
    std::set<ResolveJob*> jobs;

    void tellAbsentOnce(const std::string& why) {
        if (toldAbsent) return;
        toldAbsent = true;
        std::fprintf(stderr,
                     "Vellatone: no avahi-daemon answers (%s); AirPlay receivers and Cast "
                     "devices are not listed until it runs.\n",
                     why.c_str());
    }

    void report(Browse& b) {
        std::vector<ServiceResult> results;
        for (const auto& [name, service] : b.services) results.push_back(service.result);
        std::weak_ptr<bool> alive = b.alive;
        Results call = b.onResults;
        main.post([alive, call, results = std::move(results)] {
            if (auto a = alive.lock(); a && *a) call(results);
        });
    }

    void startBrowse(Browse& b) {
        if (!client || !running || b.browser) return;
        b.browser =
            avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, b.type.c_str(),
                                      domain, AvahiLookupFlags(0), &State::onBrowse, &b);
    }

    void endBrowse(Browse& b) {
        for (auto& [name, service] : b.services)
            if (service.resolver) avahi_service_resolver_free(service.resolver);
        b.services.clear();
        if (b.browser) avahi_service_browser_free(b.browser);
        b.browser = nullptr;
    }

    static void onClient(AvahiClient* c, AvahiClientState s, void* userdata) {
        auto* self = static_cast<State*>(userdata);
        if (!self->client) self->client = c;  // called from inside avahi_client_new
        switch (s) {
            case AVAHI_CLIENT_S_RUNNING:
            case AVAHI_CLIENT_S_REGISTERING:
            case AVAHI_CLIENT_S_COLLISION:
                self->running = true;
                if (const char* name = avahi_client_get_host_name(c)) self->hostName = name;
                for (Browse* b : self->browses) self->startBrowse(*b);
                break;
            case AVAHI_CLIENT_CONNECTING:
            case AVAHI_CLIENT_FAILURE:
                // The daemon went away: what it had found is gone with it.
                self->running = false;
                self->tellAbsentOnce(avahi_strerror(avahi_client_errno(c)));
                for (Browse* b : self->browses) {
                    const bool had = !b->services.empty();
                    self->endBrowse(*b);
                    if (had) self->report(*b);
                }
                break;
        }
    }

    static void onBrowse(::AvahiServiceBrowser*, AvahiIfIndex iface, AvahiProtocol proto,
                         AvahiBrowserEvent event, const char* name, const char* type,
                         const char* dom, AvahiLookupResultFlags, void* userdata) {
        auto* b = static_cast<Browse*>(userdata);
        State& self = *b->state;
        if (!name) return;
        const std::string key = cleanRemoteText(name, maxInstanceNameBytes);
        if (event == AVAHI_BROWSER_NEW) {
            Service& service = b->services[key];
            service.result.name = key;
            service.seenOn.insert({iface, proto});
            if (!service.resolver && !service.result.address)
                service.resolver = avahi_service_resolver_new(
                    self.client, iface, proto, name, type, dom, AVAHI_PROTO_INET,
                    AvahiLookupFlags(0), &State::onServiceResolved, b);
            self.report(*b);
        } else if (event == AVAHI_BROWSER_REMOVE) {
            auto it = b->services.find(key);
            if (it == b->services.end()) return;
            it->second.seenOn.erase({iface, proto});
            if (!it->second.seenOn.empty()) return;
            if (it->second.resolver) avahi_service_resolver_free(it->second.resolver);
            b->services.erase(it);
            self.report(*b);
        }
    }

    // The resolve that follows every new service: gives its TXT and address.
    static void onServiceResolved(AvahiServiceResolver* r, AvahiIfIndex, AvahiProtocol,
                                  AvahiResolverEvent event, const char* name, const char*,
                                  const char*, const char*, const AvahiAddress* a, uint16_t port,
                                  AvahiStringList* txt, AvahiLookupResultFlags, void* userdata) {
        auto* b = static_cast<Browse*>(userdata);
        avahi_service_resolver_free(r);
        if (!name) return;
        auto it = b->services.find(cleanRemoteText(name, maxInstanceNameBytes));
        if (it == b->services.end() || it->second.resolver != r) return;
        it->second.resolver = nullptr;
        if (event != AVAHI_RESOLVER_FOUND) return;
        it->second.result.txt = txtOf(txt);
        it->second.result.address = addressOf(a, port);
        b->state->report(*b);
    }

    static void onJobResolved(AvahiServiceResolver* r, AvahiIfIndex, AvahiProtocol,
                              AvahiResolverEvent event, const char* name, const char*, const char*,
                              const char*, const AvahiAddress* a, uint16_t port,
                              AvahiStringList* txt, AvahiLookupResultFlags, void* userdata) {
        auto* job = static_cast<ResolveJob*>(userdata);
        avahi_service_resolver_free(r);
        job->resolver = nullptr;
        std::optional<ServiceResult> result;
        if (event == AVAHI_RESOLVER_FOUND && name) {
            ServiceResult found{cleanRemoteText(name, maxInstanceNameBytes), txtOf(txt),
                                addressOf(a, port)};
            if (found.address) result = std::move(found);
        }
        std::weak_ptr<bool> alive = job->alive;
        Resolved done = job->done;
        job->state->main.post([alive, done, result] {
            if (auto live = alive.lock(); live && *live) done(result);
        });
    }
};

namespace {

class Locked {
  public:
    explicit Locked(AvahiThreadedPoll* p) : p_(p) {
        if (p_) avahi_threaded_poll_lock(p_);
    }
    ~Locked() {
        if (p_) avahi_threaded_poll_unlock(p_);
    }

  private:
    AvahiThreadedPoll* p_;
};

class BrowseHandle final : public DiscoveryHandle {
  public:
    BrowseHandle(std::shared_ptr<AvahiServices::State> state,
                 std::unique_ptr<AvahiServices::State::Browse> browse)
        : state_(std::move(state)), browse_(std::move(browse)) {}
    ~BrowseHandle() override {
        Locked lock(state_->poll);
        *browse_->alive = false;
        state_->endBrowse(*browse_);
        state_->browses.erase(browse_.get());
    }

  private:
    std::shared_ptr<AvahiServices::State> state_;
    std::unique_ptr<AvahiServices::State::Browse> browse_;
};

class ResolveHandle final : public DiscoveryHandle {
  public:
    ResolveHandle(std::shared_ptr<AvahiServices::State> state,
                  std::unique_ptr<AvahiServices::State::ResolveJob> job)
        : state_(std::move(state)), job_(std::move(job)) {}
    ~ResolveHandle() override {
        Locked lock(state_->poll);
        *job_->alive = false;
        if (job_->resolver) avahi_service_resolver_free(job_->resolver);
        state_->jobs.erase(job_.get());
    }

  private:
    std::shared_ptr<AvahiServices::State> state_;
    std::unique_ptr<AvahiServices::State::ResolveJob> job_;
};

}  // namespace

AvahiServices::AvahiServices(dispatch::MainQueue& main) : state_(std::make_shared<State>(main)) {
    state_->poll = avahi_threaded_poll_new();
    if (!state_->poll) {
        state_->tellAbsentOnce("cannot make its poll loop");
        return;
    }
    int error = 0;
    // Without failing at once, the client waits for a daemon that starts
    // later, and follows one that restarts.
    AvahiClient* client =
        avahi_client_new(avahi_threaded_poll_get(state_->poll), AVAHI_CLIENT_NO_FAIL,
                         &State::onClient, state_.get(), &error);
    if (!client) {
        state_->tellAbsentOnce(avahi_strerror(error));
        return;
    }
    state_->client = client;
    avahi_threaded_poll_start(state_->poll);
}

AvahiServices::~AvahiServices() {
    if (!state_->poll) return;
    avahi_threaded_poll_stop(state_->poll);
    for (State::Browse* b : state_->browses) state_->endBrowse(*b);
    if (state_->client) avahi_client_free(state_->client);
    state_->client = nullptr;
    avahi_threaded_poll_free(state_->poll);
    state_->poll = nullptr;
}

std::unique_ptr<DiscoveryHandle> AvahiServices::browse(const std::string& type, Results onResults) {
    auto b = std::make_unique<State::Browse>();
    b->state = state_.get();
    b->type = type;
    b->onResults = std::move(onResults);
    {
        Locked lock(state_->poll);
        state_->browses.insert(b.get());
        state_->startBrowse(*b);
    }
    return std::make_unique<BrowseHandle>(state_, std::move(b));
}

std::unique_ptr<DiscoveryHandle> AvahiServices::resolve(const ServiceEndpoint& endpoint,
                                                        Resolved done) {
    auto job = std::make_unique<State::ResolveJob>();
    job->state = state_.get();
    job->endpoint = endpoint;
    job->done = std::move(done);
    {
        Locked lock(state_->poll);
        state_->jobs.insert(job.get());
        if (state_->client && state_->running)
            job->resolver = avahi_service_resolver_new(
                state_->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, endpoint.name.c_str(),
                endpoint.type.c_str(), domain, AVAHI_PROTO_INET, AvahiLookupFlags(0),
                &State::onJobResolved, job.get());
    }
    return std::make_unique<ResolveHandle>(state_, std::move(job));
}

std::optional<std::string> AvahiServices::computerName() const {
    Locked lock(state_->poll);
    return state_->hostName;
}

}  // namespace vt::discovery
