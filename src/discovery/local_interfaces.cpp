#include "discovery/local_interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>

namespace vt::discovery {

std::vector<LocalInterface> localIPv4Interfaces() {
    std::vector<LocalInterface> out;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return out;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || !i->ifa_netmask || !i->ifa_name) continue;
        if (i->ifa_addr->sa_family != AF_INET) continue;
        if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
        const auto* address = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
        const auto* mask = reinterpret_cast<const sockaddr_in*>(i->ifa_netmask);
        out.push_back({i->ifa_name, ntohl(address->sin_addr.s_addr), ntohl(mask->sin_addr.s_addr)});
    }
    freeifaddrs(list);
    return out;
}

std::vector<std::string> interfacesSharingASubnet(const std::vector<LocalInterface>& all) {
    std::vector<std::string> out;
    for (const LocalInterface& a : all)
        for (const LocalInterface& b : all) {
            // Two addresses of one interface are still one way out; a
            // point-to-point link (all ones) has no subnet to share.
            if (a.name == b.name || a.netmask != b.netmask || a.netmask == 0xFFFFFFFFu) continue;
            if ((a.address & a.netmask) != (b.address & b.netmask)) continue;
            if (std::find(out.begin(), out.end(), a.name) == out.end()) out.push_back(a.name);
        }
    return out;
}

}  // namespace vt::discovery
