// The small local interface through which every sender shares the one PTP
// daemon: a Unix datagram socket, by default "vellatone-ptp.sock" in
// $XDG_RUNTIME_DIR. A sender asks with one short line and is answered with
// one line of fields:
//   "?"        the clock: clock_id=<16 hex> clock_number=<signed 64-bit>
//              mode=lead|follow state=probing|ready|stalled offset_ns=<n> peers=<n>
//   "? <ip>"   the same, plus heard=0|1 and exchanges=<n>: whether and how often
//              that receiver has sent us PTP messages
//   "R <ip>"   also send Announce, Sync and Follow_Up to that receiver by unicast
//   "U <ip>"   stop doing so
//   "F <ip>"   that receiver will not follow us: follow its clock instead
//              (every session then shares the receiver's clock)
// PTP time is CLOCK_REALTIME plus offset_ns (0 while we lead). Both sides
// read what the other sends as untrusted text, bounded in length.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vt::airplay_tool::ptp {

inline constexpr size_t sharedLineBytes = 256;

std::string defaultSharedSocketPath();

struct SharedRequest {
    enum class Kind { status, addPeer, removePeer, followPeer };
    Kind kind = Kind::status;
    std::optional<in_addr> peer;
};
std::optional<SharedRequest> parseSharedRequest(std::string_view line);
std::string sharedRequestLine(const SharedRequest& request);

struct SharedStatus {
    std::string clockID;  // 16 hex digits
    int64_t clockNumber = 0;
    std::string mode;   // "lead" or "follow"
    std::string state;  // "probing", "ready" or "stalled"
    int64_t offsetNs = 0;
    int peers = 0;
    std::optional<bool> heard;
    int exchanges = 0;  // with `heard`
    bool operator==(const SharedStatus&) const = default;
};
std::optional<SharedStatus> parseSharedStatus(std::string_view line);
std::string sharedStatusLine(const SharedStatus& status);

// Asks the daemon at `path`; nothing when no daemon answers within `timeoutMs`.
std::optional<SharedStatus> askSharedClock(const std::string& path, const SharedRequest& request,
                                           int timeoutMs);

}  // namespace vt::airplay_tool::ptp
