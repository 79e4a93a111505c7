// A connected pair of stream sockets for driving one end of a connection by hand.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace vt::net::testing {

struct SocketPair {
    int ours = -1;
    int theirs = -1;
    SocketPair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            ours = fds[0];
            theirs = fds[1];
        }
    }
    ~SocketPair() {
        if (ours >= 0) ::close(ours);
        if (theirs >= 0) ::close(theirs);
    }
    // Everything the peer wrote until it shut down.
    std::string drainTheirs() const {
        std::string all;
        char chunk[4096];
        while (true) {
            const ssize_t n = recv(theirs, chunk, sizeof chunk, 0);
            if (n <= 0) return all;
            all.append(chunk, static_cast<size_t>(n));
        }
    }
};

}  // namespace vt::net::testing
