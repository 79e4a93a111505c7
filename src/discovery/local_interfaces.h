// This computer's IPv4 interfaces, for the check behind "AirPlay can’t
// connect": two interfaces on one subnet (Wi-Fi and Ethernet to the same
// router) leave it to the routing table which one a receiver's answers and
// our packets use, and they need not be the same.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vt::discovery {

struct LocalInterface {
    std::string name;
    uint32_t address = 0;  // host order
    uint32_t netmask = 0;  // host order
};

// Interfaces that are up, not loopback, with an IPv4 address (getifaddrs);
// empty when it fails.
std::vector<LocalInterface> localIPv4Interfaces();

// The interfaces that share a subnet with another interface, in the order
// given, each once; empty when none do.
std::vector<std::string> interfacesSharingASubnet(const std::vector<LocalInterface>& all);

}  // namespace vt::discovery
