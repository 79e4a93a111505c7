#include "guests/guest_routes.h"

#include <vector>

#include "guests/guest_link.h"

namespace vt::guests {

namespace {

bool allDigits(std::string_view s) {
    for (char c : s) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

bool isDottedQuad(std::string_view text) {
    int parts = 0;
    size_t start = 0;
    while (true) {
        const size_t dot = text.find('.', start);
        const std::string_view part = text.substr(
            start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
        if (part.empty() || part.size() > 3 || !allDigits(part) ||
            std::stoi(std::string(part)) > 255) {
            return false;
        }
        ++parts;
        if (dot == std::string_view::npos) break;
        start = dot + 1;
    }
    return parts == 4;
}

}  // namespace

bool isAllowed(std::optional<std::string_view> host, std::optional<std::string_view> origin,
               bool loopback) {
    if (!host) return false;
    std::string_view address = *host;
    if (const size_t colon = host->find(':'); colon != std::string_view::npos) {
        address = host->substr(0, colon);
        const std::string_view port = host->substr(colon + 1);
        if (port.empty() || port.size() > 5 || !allDigits(port) ||
            std::stol(std::string(port)) > 65535) {
            return false;
        }
    }
    if (!isDottedQuad(address)) return false;
    if (!loopback && address.substr(0, address.find('.')) == "127") return false;
    if (origin && *origin != "http://" + std::string(*host)) return false;
    return true;
}

bool isServableFileName(std::string_view name) {
    if (name.empty() || name.front() == '.' || name.find("..") != std::string_view::npos) {
        return false;
    }
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
        if (!ok) return false;
    }
    return true;
}

std::string contentType(std::string_view fileName) {
    const size_t dot = fileName.rfind('.');
    const std::string_view ext =
        dot == std::string_view::npos ? std::string_view{} : fileName.substr(dot + 1);
    if (ext == "html") return "text/html; charset=utf-8";
    if (ext == "js") return "text/javascript; charset=utf-8";
    if (ext == "css") return "text/css; charset=utf-8";
    if (ext == "ttf") return "font/ttf";
    if (ext == "woff2") return "font/woff2";
    if (ext == "txt") return "text/plain; charset=utf-8";
    if (ext == "png") return "image/png";
    return "application/octet-stream";
}

GuestRoute routeFor(const net::HTTPRequest& request) {
    GuestRoute route;
    if (request.method != "GET") return route;
    const std::string& path = request.path;
    if (path == "/" || path == "/join") {
        route.kind = GuestRoute::Kind::file;
        route.file = "index.html";
        return route;
    }
    constexpr std::string_view prefix = "/guest/";
    if (path.starts_with(prefix)) {
        const std::string_view rest = std::string_view(path).substr(prefix.size());
        const size_t slash = rest.find('/');
        if (slash != std::string_view::npos) {
            const std::string_view id = rest.substr(0, slash);
            const std::string_view what = rest.substr(slash + 1);
            if (GuestLink::isValidClientID(id)) {
                route.clientID = std::string(id);
                if (what == "sendspin" && request.isWebSocketUpgrade()) {
                    route.kind = GuestRoute::Kind::sendspin;
                    return route;
                }
                if (what == "status") {
                    route.kind = GuestRoute::Kind::status;
                    return route;
                }
                if (what == "party") {
                    route.kind = GuestRoute::Kind::party;
                    return route;
                }
                route.clientID.clear();
            }
        }
    }
    const std::string_view name = std::string_view(path).substr(path.empty() ? 0 : 1);
    if (!path.starts_with("/") || !isServableFileName(name)) return route;
    route.kind = GuestRoute::Kind::file;
    route.file = std::string(name);
    return route;
}

}  // namespace vt::guests
