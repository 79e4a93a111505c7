#include "airplay_tool/packet_backlog.h"

#include <algorithm>

namespace vt::airplay_tool {

PacketBacklog::PacketBacklog(size_t packetBytes)
    : packetBytes_(packetBytes), bytes_(packetBytes * kBacklogPackets) {}

void PacketBacklog::store(uint16_t seq, std::span<const uint8_t> packet) {
    std::lock_guard lock(mutex_);
    Slot& slot = slots_[seq % kBacklogPackets];
    slot.used = true;
    slot.seq = seq;
    slot.length = std::min(packet.size(), packetBytes_);
    std::copy_n(packet.begin(), slot.length,
                bytes_.begin() + (seq % kBacklogPackets) * packetBytes_);
}

std::vector<uint8_t> PacketBacklog::find(uint16_t seq) const {
    std::lock_guard lock(mutex_);
    const Slot& slot = slots_[seq % kBacklogPackets];
    if (!slot.used || slot.seq != seq) return {};
    auto first = bytes_.begin() + (seq % kBacklogPackets) * packetBytes_;
    return std::vector<uint8_t>(first, first + static_cast<ptrdiff_t>(slot.length));
}

}  // namespace vt::airplay_tool
