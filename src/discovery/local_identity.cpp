#include "discovery/local_identity.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstdio>

namespace vt::discovery {

namespace {
constexpr size_t macBytes = 6;
constexpr size_t macDigits = 2 * macBytes;
}  // namespace

std::string normaliseMac(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text)
        if (c != ':') out.push_back(char(std::toupper(static_cast<unsigned char>(c))));
    return out;
}

bool isMacShaped(std::string_view text) {
    const std::string mac = normaliseMac(text);
    if (mac.size() != macDigits) return false;
    for (char c : mac)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

LocalIdentity LocalIdentity::ofThisComputer() {
    LocalIdentity identity;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return identity;
    for (ifaddrs* i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr) continue;
        if (i->ifa_addr->sa_family == AF_INET) {
            char text[INET_ADDRSTRLEN] = {};
            const auto* in = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
            if (inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) identity.ipv4.insert(text);
        } else if (i->ifa_addr->sa_family == AF_PACKET) {
            const auto* ll = reinterpret_cast<const sockaddr_ll*>(i->ifa_addr);
            if (ll->sll_halen != macBytes) continue;
            char text[macDigits + 1] = {};
            for (size_t b = 0; b < macBytes; ++b)
                std::snprintf(text + 2 * b, 3, "%02X", unsigned(ll->sll_addr[b]));
            if (std::string(text) != "000000000000") identity.linkAddresses.insert(text);
        }
    }
    freeifaddrs(list);
    return identity;
}

}  // namespace vt::discovery
