// The encrypted channel that follows pairing on the same TCP connection:
// each frame is a 2-byte little-endian length n (at most 1024), n bytes of
// ChaCha20-Poly1305 ciphertext and the 16-byte tag, with the two length
// bytes as associated data. Each direction has its own key and its own
// 64-bit frame counter, which is the nonce (after four zero bytes).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "airplay_tool/hap/bytes.h"

namespace vt::hap {

inline constexpr size_t kMaxFramePlainBytes = 1024;
inline constexpr size_t kFrameLengthBytes = 2;

struct ChannelKeys {
    Bytes outgoing;  // what we send
    Bytes incoming;  // what the receiver sends
};

// The RTSP connection's keys, from the pairing's shared secret.
ChannelKeys controlChannelKeys(const Bytes& secret);
// The event connection's: the receiver writes there with its "read" key.
ChannelKeys eventChannelKeys(const Bytes& secret);

class FrameSealer {
  public:
    explicit FrameSealer(Bytes key) : key_(std::move(key)) {}
    // The frames that carry these bytes, appended to `out`.
    void seal(std::string_view plain, std::string& out);

  private:
    Bytes key_;
    uint64_t counter_ = 0;
};

// Frames as they come off the socket, in pieces of any size. Only one
// frame is ever held; a frame that claims more than 1024 bytes, or whose
// tag does not match, breaks the channel for good.
class FrameOpener {
  public:
    enum class State { ok, broken };

    explicit FrameOpener(Bytes key) : key_(std::move(key)) {}
    // Appends what the complete frames among these bytes carry to `plain`.
    State append(std::string_view bytes, std::string& plain);
    State state() const { return state_; }

  private:
    size_t frameLength() const;  // of the frame begun, once its length is in

    Bytes key_;
    uint64_t counter_ = 0;
    std::string frame_;
    State state_ = State::ok;
};

Bytes counterNonce(uint64_t counter);

}  // namespace vt::hap
