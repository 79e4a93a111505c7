#include "guests/guest_link.h"

#include <map>

#include "net/http_request.h"
#include "net/listen_port.h"
#include "net/text.h"

namespace vt::guests {

namespace {

bool isHostChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-';
}

struct SplitURL {
    std::string scheme;
    std::string authority;
    std::string path;
    std::map<std::string, std::string> query;
};

// Just enough of URL syntax for the forms we hand out ourselves.
std::optional<SplitURL> splitURL(std::string_view url) {
    const size_t colon = url.find("://");
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    SplitURL out;
    out.scheme = net::toLowerAscii(url.substr(0, colon));
    std::string_view rest = url.substr(colon + 3);
    if (const size_t hash = rest.find('#'); hash != std::string_view::npos) {
        rest = rest.substr(0, hash);
    }
    const size_t end = rest.find_first_of("/?");
    out.authority = std::string(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end);
    // The request parser already knows how to split and decode a query.
    auto parsed =
        net::HTTPRequest::parse("GET " + std::string(rest.empty() ? "/" : rest) + " HTTP/1.1\r\n");
    if (!parsed) return std::nullopt;
    out.path = rest.empty() ? "" : parsed->path;
    out.query = std::move(parsed->query);
    return out;
}

// "host" or "host:port"; the port is nothing when absent.
bool splitAuthority(std::string_view authority, std::string& host,
                    std::optional<std::optional<uint16_t>>& port) {
    const size_t colon = authority.rfind(':');
    if (colon == std::string_view::npos) {
        host = std::string(authority);
        port = std::optional<uint16_t>{};
        return true;
    }
    host = std::string(authority.substr(0, colon));
    const std::string_view digits = authority.substr(colon + 1);
    if (digits.empty() || digits.find('+') != std::string_view::npos) return false;
    port = net::parsePort(digits);
    return port->has_value();
}

}  // namespace

std::string GuestLink::joinURL() const {
    return "http://" + host + ":" + std::to_string(port) + "/join";
}

std::string GuestLink::appURL() const {
    return "vellatone://guest?host=" + host + "&port=" + std::to_string(port);
}

std::string GuestLink::universalURL() const {
    return std::string("https://") + universalHost + "/guest?host=" + host +
           "&port=" + std::to_string(port);
}

std::string GuestLink::socketURL(std::string_view clientID) const {
    return "ws://" + host + ":" + std::to_string(port) + "/guest/" + std::string(clientID) +
           "/sendspin";
}

std::string GuestLink::statusURL(std::string_view clientID) const {
    return "http://" + host + ":" + std::to_string(port) + "/guest/" + std::string(clientID) +
           "/status";
}

std::optional<GuestLink> GuestLink::fromAppURL(std::string_view url) {
    auto split = splitURL(url);
    if (!split) return std::nullopt;
    const std::string authority = net::toLowerAscii(split->authority);
    const bool app = split->scheme == "vellatone" && authority == "guest";
    const bool universal =
        split->scheme == "https" && authority == universalHost && split->path == "/guest";
    if (!app && !universal) return std::nullopt;
    auto host = split->query.find("host");
    if (host == split->query.end() || host->second.empty()) return std::nullopt;
    GuestLink link{host->second, defaultPort};
    if (auto port = split->query.find("port"); port != split->query.end()) {
        if (auto value = net::parsePort(port->second); value && *value != 0) link.port = *value;
    }
    return link;
}

std::optional<GuestLink> GuestLink::fromJoinURL(std::string_view url) {
    auto split = splitURL(url);
    if (!split || split->scheme != "http" || split->path != "/join") return std::nullopt;
    std::string host;
    std::optional<std::optional<uint16_t>> port;
    if (!splitAuthority(split->authority, host, port)) return std::nullopt;
    if (host.empty()) return std::nullopt;
    for (char c : host) {
        if (!isHostChar(c)) return std::nullopt;
    }
    return GuestLink{host, port->value_or(80)};
}

bool GuestLink::isValidClientID(std::string_view id) {
    if (id.size() < 8 || id.size() > 64) return false;
    for (char c : id) {
        const bool ok =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        if (!ok) return false;
    }
    return true;
}

}  // namespace vt::guests
