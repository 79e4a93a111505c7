// The AirPlay receivers on the network, kept up to date: "_airplay._tcp" and
// "_raop._tcp" watched at once and merged under one id, each resolved to an
// IPv4 address and port, this computer's own receiver left out, sorted by
// name. A receiver that does not resolve stays in the list without a host and
// is tried again every 5 seconds. Main queue only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "discovery/airplay_receiver.h"
#include "discovery/local_identity.h"
#include "discovery/resolver_table.h"
#include "discovery/service_browser.h"
#include "dispatch/main_queue.h"

namespace vt::discovery {

class AirPlayBrowser {
  public:
    static constexpr double sweepSeconds = 5.0;
    static constexpr const char* airplayType = "_airplay._tcp";
    static constexpr const char* raopType = "_raop._tcp";

    AirPlayBrowser(ServiceBrowser& services, dispatch::MainQueue& main,
                   std::function<LocalIdentity()> identity = &LocalIdentity::ofThisComputer);

    // Does nothing when already browsing.
    void start();
    // Forgets everything found.
    void stop();
    // Someone acts on a row still waiting: resolve afresh now.
    void retryUnresolved() { resolveUnresolved(true); }

    const std::vector<AirPlayReceiver>& receivers() const { return receivers_; }
    // Called with the list whenever it changes.
    std::function<void(const std::vector<AirPlayReceiver>&)> onChange;

    // "<MAC>@<device name>" gives the device name; any other name is itself.
    static std::string idOf(const std::string& rawName);

  private:
    void handle(const std::string& type, const std::vector<ServiceResult>& results);
    void resolve(const std::string& id);
    void resolveUnresolved(bool force);
    bool isThisComputer(const AirPlayReceiver& receiver, const LocalIdentity& own);
    void publish();

    ServiceBrowser& services_;
    dispatch::MainQueue& main_;
    std::function<LocalIdentity()> identity_;
    ResolverTable resolvers_;
    std::vector<std::unique_ptr<DiscoveryHandle>> browsers_;
    std::unique_ptr<dispatch::TimerHandle> sweep_;
    std::map<std::string, AirPlayReceiver> found_;
    std::map<std::string, ServiceEndpoint> endpoints_;
    std::map<std::string, std::set<std::string>> advertised_;  // per service type
    std::map<std::string, std::string> rawNames_;
    std::optional<std::string> computerName_;
    std::vector<AirPlayReceiver> receivers_;
};

// Sorts by name, ignoring case, as a person reads a list.
bool namesInOrder(const std::string& a, const std::string& b);

}  // namespace vt::discovery
