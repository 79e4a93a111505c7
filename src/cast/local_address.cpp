#include "cast/local_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vt::cast {

std::optional<std::string> localAddressReaching(const std::string& host) {
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(9);  // a datagram socket's connect sends nothing
    if (inet_pton(AF_INET, host.c_str(), &remote.sin_addr) != 1) return std::nullopt;
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return std::nullopt;
    sockaddr_in local{};
    socklen_t length = sizeof local;
    std::optional<std::string> found;
    if (::connect(probe, reinterpret_cast<sockaddr*>(&remote), sizeof remote) == 0 &&
        ::getsockname(probe, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
        local.sin_addr.s_addr != htonl(INADDR_ANY)) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &local.sin_addr, text, sizeof text);
        found = text;
    }
    ::close(probe);
    return found;
}

}  // namespace vt::cast
