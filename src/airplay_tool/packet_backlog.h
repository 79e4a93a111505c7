// The last packets sent, by sequence number, so a receiver's resend request
// can be answered with the very bytes it missed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace vt::airplay_tool {

// About four seconds of 352-frame packets.
inline constexpr size_t kBacklogPackets = 512;

class PacketBacklog {
  public:
    explicit PacketBacklog(size_t packetBytes);
    void store(uint16_t seq, std::span<const uint8_t> packet);
    // A copy of the packet with this number, or empty when it has gone or never was.
    std::vector<uint8_t> find(uint16_t seq) const;

  private:
    struct Slot {
        bool used = false;
        uint16_t seq = 0;
        size_t length = 0;
    };
    size_t packetBytes_;
    mutable std::mutex mutex_;
    std::array<Slot, kBacklogPackets> slots_{};
    std::vector<uint8_t> bytes_;
};

}  // namespace vt::airplay_tool
