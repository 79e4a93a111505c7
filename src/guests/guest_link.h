// Where the guest server can be reached, in every form the address travels
// in: the page a phone opens, the phone app's link, the public link that
// forwards to either, and the per-guest endpoints.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vt::guests {

struct GuestLink {
    static constexpr uint16_t defaultPort = 7766;
    static constexpr uint16_t closeRemoved = 4001;
    static constexpr uint16_t closeFull = 4002;
    static constexpr const char* universalHost = "join.vellatone.app";

    std::string host;
    uint16_t port = defaultPort;

    std::string joinURL() const;
    std::string appURL() const;
    std::string universalURL() const;
    std::string socketURL(std::string_view clientID) const;
    std::string statusURL(std::string_view clientID) const;

    // "vellatone://guest?host=..&port=.." or the universal form.
    static std::optional<GuestLink> fromAppURL(std::string_view url);
    // "http://host[:port]/join".
    static std::optional<GuestLink> fromJoinURL(std::string_view url);

    static bool isValidClientID(std::string_view id);

    bool operator==(const GuestLink&) const = default;
};

}  // namespace vt::guests
