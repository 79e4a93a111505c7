#include "airplay_tool/alac_frame.h"

#include <algorithm>

namespace vt::airplay_tool {

namespace {

// MSB-first bit writer over a zeroed buffer.
class BitWriter {
  public:
    explicit BitWriter(std::span<uint8_t> out) : out_(out) {}
    void put(uint32_t value, int bits) {
        for (int i = bits - 1; i >= 0; --i) {
            if ((value >> i) & 1u) out_[bit_ >> 3] |= static_cast<uint8_t>(0x80u >> (bit_ & 7));
            ++bit_;
        }
    }

  private:
    std::span<uint8_t> out_;
    size_t bit_ = 0;
};

constexpr uint32_t kChannelPairElement = 1;
constexpr uint32_t kEndElement = 7;

}  // namespace

void packAlacStereo16(std::span<const int16_t> interleaved,
                      std::span<uint8_t, kAlacFrameBytes> out) {
    std::fill(out.begin(), out.end(), uint8_t{0});
    BitWriter w(out);
    w.put(kChannelPairElement, 3);
    w.put(0, 4);   // element instance
    w.put(0, 12);  // unused
    w.put(0, 1);   // no sample count: the packet holds the full 352 frames
    w.put(0, 2);   // no uncompressed byte shift
    w.put(1, 1);   // verbatim samples follow
    const size_t given = std::min(interleaved.size() / 2, kFramesPerPacket);
    for (size_t f = 0; f < kFramesPerPacket; ++f) {
        const bool have = f < given;
        w.put(have ? static_cast<uint16_t>(interleaved[2 * f]) : 0u, 16);
        w.put(have ? static_cast<uint16_t>(interleaved[2 * f + 1]) : 0u, 16);
    }
    w.put(kEndElement, 3);
}

}  // namespace vt::airplay_tool
