// What the guest server decides about a request before touching any state:
// whether it may be answered at all, and which endpoint it names.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "net/http_request.h"

namespace vt::guests {

// Guards the port against a hostile web page that reaches it through a name
// re-bound to this machine: only a bare dotted quad, and an Origin (if any)
// that is that same address. Loopback names are refused unless allowed.
bool isAllowed(std::optional<std::string_view> host, std::optional<std::string_view> origin,
               bool loopback);

// A plain file name of the page's one flat folder, or nothing.
bool isServableFileName(std::string_view name);
std::string contentType(std::string_view fileName);

struct GuestRoute {
    enum class Kind { file, sendspin, status, party, notFound };
    Kind kind = Kind::notFound;
    std::string clientID;  // sendspin, status, party
    std::string file;      // file
};

// Only GET is served. A bad client id, or "/sendspin" without an upgrade,
// falls back to a file name, which then cannot be served.
GuestRoute routeFor(const net::HTTPRequest& request);

}  // namespace vt::guests
