// The resolves in flight for one browser, at most one per id, each given up
// after 6 seconds so that the next sweep starts it afresh.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"

namespace vt::discovery {

class ResolverTable {
  public:
    static constexpr double timeoutSeconds = 6.0;

    ResolverTable(ServiceBrowser& services, dispatch::MainQueue& main)
        : services_(services), main_(main) {}

    // Does nothing while a resolve for `id` runs. `found` is called on the
    // main queue with the service once it resolves to an address.
    void resolve(const std::string& id, const ServiceEndpoint& endpoint,
                 std::function<void(const ServiceResult&)> found);
    void cancel(const std::string& id) { running_.erase(id); }
    void clear() { running_.clear(); }
    bool isRunning(const std::string& id) const { return running_.count(id) > 0; }

  private:
    struct Running {
        std::unique_ptr<DiscoveryHandle> handle;
        std::unique_ptr<dispatch::TimerHandle> timeout;
    };
    ServiceBrowser& services_;
    dispatch::MainQueue& main_;
    std::map<std::string, Running> running_;
};

}  // namespace vt::discovery
