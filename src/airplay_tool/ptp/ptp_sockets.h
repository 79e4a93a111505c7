// The two PTP ports, 319 (event) and 320 (general), on UDP over IPv4, with
// software time stamps: the kernel's when it gives them (SO_TIMESTAMPING,
// taken as the packet passes the network device), else our own clock read
// right beside the send or the receive. Both ports are privileged: binding
// them needs root or CAP_NET_BIND_SERVICE, and only one process can hold them.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vt::airplay_tool::ptp {

// Nanoseconds of CLOCK_REALTIME, the clock every PTP time here is read from.
int64_t realtimeNs();

struct Datagram {
    std::vector<uint8_t> bytes;
    in_addr from{};
    int64_t receivedNs = 0;
};

class PtpSockets {
  public:
    enum class Failure { none, noPrivilege, inUse, other };

    // Binds both ports on every address, joins the PTP multicast group and
    // sends multicast out of the interface with `interfaceAddress` (any when
    // empty). On failure `why` says what went wrong in plain words.
    static std::optional<PtpSockets> open(const std::string& interfaceAddress, Failure& failure,
                                          std::string& why);
    PtpSockets(PtpSockets&& other) noexcept;
    PtpSockets& operator=(PtpSockets&&) = delete;
    ~PtpSockets();

    int eventFd() const { return event_; }
    int generalFd() const { return general_; }
    bool kernelTimestamps() const { return kernelStamps_; }

    // Sends on the event port and gives the time the packet left.
    // Multicast goes to the PTP group, or with `to` the peer-delay group.
    std::optional<int64_t> sendEvent(std::span<const uint8_t> bytes, in_addr to);
    bool sendGeneral(std::span<const uint8_t> bytes, in_addr to);
    // One datagram from `fd` (one of the two), or nothing when none waits.
    std::optional<Datagram> receive(int fd);

    static in_addr multicast();
    static in_addr peerDelayMulticast();

  private:
    PtpSockets(int event, int general, bool kernelStamps)
        : event_(event), general_(general), kernelStamps_(kernelStamps) {}
    std::optional<int64_t> transmitStamp();
    void dropStaleStamps();

    int event_ = -1;
    int general_ = -1;
    bool kernelStamps_ = false;
};

}  // namespace vt::airplay_tool::ptp
