// What marks a service as this computer's own: its interfaces' link-layer
// addresses and IPv4 addresses. Our own receiver (a shairport-sync on this
// machine, say) must never become an output that plays into itself.
#pragma once

#include <set>
#include <string>
#include <string_view>

namespace vt::discovery {

struct LocalIdentity {
    std::set<std::string> linkAddresses;  // normalised, "AABBCCDDEEFF"
    std::set<std::string> ipv4;           // dotted

    // From getifaddrs; empty sets when it fails, so that nothing is dropped
    // by address.
    static LocalIdentity ofThisComputer();
};

// Upper case, every ":" removed.
std::string normaliseMac(std::string_view text);
// Twelve hexadecimal digits once normalised.
bool isMacShaped(std::string_view text);

}  // namespace vt::discovery
