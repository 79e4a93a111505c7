#include "alac_verbatim.h"

namespace vt::airplay_test {

namespace {

constexpr uint32_t kChannelPairElement = 1;
constexpr uint32_t kEndElement = 7;

class BitReader {
  public:
    explicit BitReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    std::optional<uint32_t> read(int bits) {
        uint32_t value = 0;
        for (int i = 0; i < bits; ++i) {
            if (position_ >= bytes_.size() * 8) return std::nullopt;
            const uint8_t byte = bytes_[position_ / 8];
            value = value << 1 | ((byte >> (7 - position_ % 8)) & 1u);
            ++position_;
        }
        return value;
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
};

}  // namespace

std::optional<std::vector<int16_t>> decodeVerbatimAlac(std::span<const uint8_t> frame,
                                                       size_t framesPerPacket) {
    BitReader bits(frame);
    const auto element = bits.read(3);
    const auto instance = bits.read(4);
    const auto unused = bits.read(12);
    const auto hasSize = bits.read(1);
    const auto shift = bits.read(2);
    const auto notCompressed = bits.read(1);
    if (element != kChannelPairElement || !instance || unused != 0u || !hasSize || shift != 0u ||
        notCompressed != 1u)
        return std::nullopt;
    size_t frames = framesPerPacket;
    if (*hasSize) {
        const auto count = bits.read(32);
        if (!count || *count == 0 || *count > framesPerPacket) return std::nullopt;
        frames = *count;
    }
    std::vector<int16_t> samples(frames * 2);
    for (int16_t& s : samples) {
        const auto value = bits.read(16);
        if (!value) return std::nullopt;
        s = static_cast<int16_t>(*value);
    }
    if (bits.read(3) != kEndElement) return std::nullopt;
    return samples;
}

}  // namespace vt::airplay_test
