#include "event_channel.h"

#include <sys/socket.h>

#include "airplay_tool/hap/channel_cipher.h"

namespace vt::airplay_test {

namespace {

// A plist's worth of bytes; the sender answers without reading them.
constexpr std::string_view kCommandBody = "bplist00\xd1\x01\x02Qtype";
constexpr std::string_view kExpectedAnswer = "RTSP/1.0 200 OK\r\nCSeq: 1\r\n";

}  // namespace

void openEventChannel(ReceiverState& s, int fd) {
    // The sender's keys, the other way round.
    const hap::ChannelKeys sender = hap::eventChannelKeys(s.pairingSecret);
    s.eventSealer.emplace(sender.incoming);
    s.eventOpener.emplace(sender.outgoing);
    s.eventAnswers.clear();
    const std::string request =
        "POST /command RTSP/1.0\r\nCSeq: 1\r\nContent-Type: application/x-apple-binary-plist\r\n"
        "Content-Length: " +
        std::to_string(kCommandBody.size()) + "\r\n\r\n" + std::string(kCommandBody);
    std::string wire;
    s.eventSealer->seal(request, wire);
    if (send(fd, wire.data(), wire.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(wire.size()))
        s.violations.push_back("the event connection took no request");
}

bool eventChannelBytes(ReceiverState& s, std::span<const uint8_t> raw) {
    if (!s.eventOpener) return false;
    const std::string_view bytes(reinterpret_cast<const char*>(raw.data()), raw.size());
    if (s.eventOpener->append(bytes, s.eventAnswers) != hap::FrameOpener::State::ok) {
        s.violations.push_back("the event connection's answer does not decrypt");
        return false;
    }
    return true;
}

}  // namespace vt::airplay_test

namespace vt::airplay_test {

bool eventAnswered(const ReceiverState& s) {
    return s.eventAnswers.starts_with(kExpectedAnswer);
}

}  // namespace vt::airplay_test
