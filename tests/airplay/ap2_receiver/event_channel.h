// The receiver's end of the event connection: as a real receiver does, it
// asks the sender something there first (POST /command, what it can be told
// to do) and expects an answer to it.
#pragma once

#include <span>

#include "receiver_state.h"

namespace vt::airplay_test {

// The sender has just connected on `fd`: keyed from the session's pairing
// secret, our request goes out.
void openEventChannel(ReceiverState& s, int fd);
// Bytes the sender sent on it; false once they do not decrypt.
bool eventChannelBytes(ReceiverState& s, std::span<const uint8_t> raw);

// The sender answered our request, with its CSeq.
bool eventAnswered(const ReceiverState& s);

}  // namespace vt::airplay_test
