#include "airplay_tool/hap/channel_cipher.h"

#include <algorithm>

#include "airplay_tool/hap/hap_crypto.h"

namespace vt::hap {

namespace {

constexpr size_t kCounterOffset = 4;

}  // namespace

ChannelKeys controlChannelKeys(const Bytes& secret) {
    return {hkdfSha512(secret, "Control-Salt", "Control-Write-Encryption-Key"),
            hkdfSha512(secret, "Control-Salt", "Control-Read-Encryption-Key")};
}

ChannelKeys eventChannelKeys(const Bytes& secret) {
    return {hkdfSha512(secret, "Events-Salt", "Events-Read-Encryption-Key"),
            hkdfSha512(secret, "Events-Salt", "Events-Write-Encryption-Key")};
}

Bytes counterNonce(uint64_t counter) {
    Bytes nonce(kChachaNonceBytes, 0);
    for (size_t i = 0; i < sizeof counter; ++i)
        nonce[kCounterOffset + i] = static_cast<uint8_t>(counter >> (8 * i));
    return nonce;
}

void FrameSealer::seal(std::string_view plain, std::string& out) {
    size_t at = 0;
    do {
        const size_t n = std::min(kMaxFramePlainBytes, plain.size() - at);
        const Bytes length{static_cast<uint8_t>(n & 0xff), static_cast<uint8_t>(n >> 8)};
        const Bytes text(plain.begin() + static_cast<std::ptrdiff_t>(at),
                         plain.begin() + static_cast<std::ptrdiff_t>(at + n));
        const Bytes sealed = chachaSeal(key_, counterNonce(counter_++), length, text);
        out.append(length.begin(), length.end());
        out.append(sealed.begin(), sealed.end());
        at += n;
    } while (at < plain.size());
}

FrameOpener::State FrameOpener::append(std::string_view bytes, std::string& plain) {
    while (state_ == State::ok && !bytes.empty()) {
        const size_t need = frame_.size() < kFrameLengthBytes
                                ? kFrameLengthBytes
                                : kFrameLengthBytes + frameLength() + kChachaTagBytes;
        const size_t take = std::min(need - frame_.size(), bytes.size());
        frame_.append(bytes.substr(0, take));
        bytes.remove_prefix(take);
        // A length past the limit is refused as soon as it is read.
        if (frame_.size() == kFrameLengthBytes && frameLength() > kMaxFramePlainBytes)
            return state_ = State::broken;
        if (frame_.size() < need || need == kFrameLengthBytes) continue;

        const Bytes length(frame_.begin(), frame_.begin() + kFrameLengthBytes);
        const Bytes sealed(frame_.begin() + kFrameLengthBytes, frame_.end());
        auto opened = chachaOpen(key_, counterNonce(counter_++), length, sealed);
        if (!opened) return state_ = State::broken;
        plain.append(opened->begin(), opened->end());
        frame_.clear();
    }
    return state_;
}

size_t FrameOpener::frameLength() const {
    return static_cast<uint8_t>(frame_[0]) | static_cast<size_t>(static_cast<uint8_t>(frame_[1]))
                                                 << 8;
}

}  // namespace vt::hap
