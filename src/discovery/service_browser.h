// The seam between discovery's rules and the system's DNS-SD service: browse
// one service type, and resolve one service to an IPv4 address and port.
// Avahi stands behind it in the program, a scripted fake in tests. Every
// callback arrives on the main queue, and none arrives after its handle is
// gone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "discovery/txt_record.h"

namespace vt::discovery {

struct ServiceAddress {
    std::string host;  // dotted IPv4
    uint16_t port = 0;
    bool operator==(const ServiceAddress&) const = default;
};

// One service as browsing sees it. The TXT and the address are there when
// the backend has already read them (Avahi resolves every service it finds);
// otherwise they are empty.
struct ServiceResult {
    std::string name;  // the instance name, undivided
    TxtRecord txt;
    std::optional<ServiceAddress> address;
    bool operator==(const ServiceResult&) const = default;
};

struct ServiceEndpoint {
    std::string type;  // "_raop._tcp"
    std::string name;  // instance name
    bool operator==(const ServiceEndpoint&) const = default;
};

// Ends a browse or a resolve when destroyed.
class DiscoveryHandle {
  public:
    virtual ~DiscoveryHandle() = default;
};

class ServiceBrowser {
  public:
    // The whole current set of services of one type, each time it changes.
    using Results = std::function<void(const std::vector<ServiceResult>& results)>;
    // The service with its address, or nothing when it could not be resolved.
    using Resolved = std::function<void(const std::optional<ServiceResult>& result)>;

    virtual ~ServiceBrowser() = default;
    // Browses `type` in the domain "local".
    virtual std::unique_ptr<DiscoveryHandle> browse(const std::string& type, Results onResults) = 0;
    // Resolves one service to IPv4; `done` is called at most once.
    virtual std::unique_ptr<DiscoveryHandle> resolve(const ServiceEndpoint& endpoint,
                                                     Resolved done) = 0;
    // This computer's name as it is published on the network, once known.
    virtual std::optional<std::string> computerName() const = 0;
};

}  // namespace vt::discovery
