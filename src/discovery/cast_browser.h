// The Google Cast devices on the network ("_googlecast._tcp"), kept as the
// AirPlay browser keeps receivers: resolved to IPv4 and port, unresolved ones
// tried again every 5 seconds, sorted by name. A device is known by its TXT
// id, so a renamed TV stays the same device, and a change of what it plays
// reaches the list without a new resolve. Main queue only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "discovery/cast_device.h"
#include "discovery/resolver_table.h"
#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"

namespace vt::discovery {

class CastBrowser {
  public:
    static constexpr double sweepSeconds = 5.0;
    static constexpr const char* castType = "_googlecast._tcp";

    CastBrowser(ServiceBrowser& services, dispatch::MainQueue& main);

    void start();
    void stop();

    const std::vector<CastDevice>& devices() const { return devices_; }
    std::function<void(const std::vector<CastDevice>&)> onChange;

  private:
    void handle(const std::vector<ServiceResult>& results);
    void resolve(const std::string& id);
    void resolveUnresolved();
    void publish();

    ServiceBrowser& services_;
    dispatch::MainQueue& main_;
    ResolverTable resolvers_;
    std::unique_ptr<DiscoveryHandle> browser_;
    std::unique_ptr<dispatch::TimerHandle> sweep_;
    std::map<std::string, CastDevice> found_;
    std::map<std::string, ServiceEndpoint> endpoints_;
    std::vector<CastDevice> devices_;
};

}  // namespace vt::discovery
