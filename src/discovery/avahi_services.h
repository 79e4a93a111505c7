// ServiceBrowser on Avahi: the avahi-client library talking to the system's
// avahi-daemon over the D-Bus system bus. Avahi's callbacks run on its own
// poll thread and hop to the main queue. Every service found is resolved at
// once (Avahi gives its TXT only by resolving), so results usually arrive
// with their address. With no avahi-daemon reachable the lists stay empty,
// the log says why once, and browsing begins by itself if the daemon comes.
#pragma once

#include <memory>

#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"

namespace vt::discovery {

class AvahiServices final : public ServiceBrowser {
  public:
    explicit AvahiServices(dispatch::MainQueue& main);
    ~AvahiServices() override;
    AvahiServices(const AvahiServices&) = delete;
    AvahiServices& operator=(const AvahiServices&) = delete;

    std::unique_ptr<DiscoveryHandle> browse(const std::string& type, Results onResults) override;
    std::unique_ptr<DiscoveryHandle> resolve(const ServiceEndpoint& endpoint,
                                             Resolved done) override;
    std::optional<std::string> computerName() const override;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace vt::discovery
