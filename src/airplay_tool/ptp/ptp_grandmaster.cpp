#include "airplay_tool/ptp/ptp_grandmaster.h"

#include <openssl/sha.h>

#include <cctype>
#include <cstdio>

namespace vt::airplay_tool::ptp {

namespace {

// The dataset AirPlay senders announce: a clock of class 6 within 100 ns.
constexpr uint8_t announcedClass = 6;
constexpr uint8_t announcedAccuracy = 0x21;
constexpr uint16_t announcedVariance = 0x436A;
constexpr uint8_t internalOscillator = 0xA0;
constexpr uint8_t locallyAdministered = 0x02;
// Peer-delay answers carry no interval of their own.
constexpr int8_t peerDelayLogInterval = 0x7F;

std::string hexDigits(const std::string& text) {
    std::string digits;
    for (char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
    return digits;
}

bool isMacShaped(const std::string& text) {
    if (text.size() != 17) return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (i % 3 == 2 ? text[i] != ':' && text[i] != '-'
                       : !std::isxdigit(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

}  // namespace

ClockIdentity clockIdentityFor(const std::string& deviceID) {
    ClockIdentity id{};
    const std::string digits = hexDigits(deviceID);
    auto byteAt = [&](size_t i) {
        return uint8_t(std::stoi(digits.substr(2 * i, 2), nullptr, 16));
    };
    if (isMacShaped(deviceID)) {
        id = {byteAt(0), byteAt(1), byteAt(2), 0xFF, 0xFE, byteAt(3), byteAt(4), byteAt(5)};
        return id;
    }
    if (digits.size() == 16 && digits.size() == deviceID.size()) {
        for (size_t i = 0; i < id.size(); ++i) id[i] = byteAt(i);
        return id;
    }
    unsigned char hash[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(deviceID.data()), deviceID.size(), hash);
    for (size_t i = 0; i < id.size(); ++i) id[i] = hash[i];
    id[0] |= locallyAdministered;
    return id;
}

std::string clockIdentityText(const ClockIdentity& id) {
    char text[17];
    for (size_t i = 0; i < id.size(); ++i) std::snprintf(text + 2 * i, 3, "%02x", id[i]);
    return std::string(text, 16);
}

int64_t clockIdentityNumber(const ClockIdentity& id) {
    uint64_t v = 0;
    for (uint8_t b : id) v = (v << 8) | b;
    return int64_t(v);
}

Grandmaster::Grandmaster(ClockIdentity identity, uint8_t transportSpecific)
    : transportSpecific_(transportSpecific) {
    port_.clock = identity;
    port_.port = 1;
}

Message Grandmaster::header(MessageType type, uint16_t sequence, int8_t logInterval) const {
    Message m;
    m.type = type;
    m.transportSpecific = transportSpecific_;
    m.domain = domain;
    m.source = port_;
    m.sequenceId = sequence;
    m.logInterval = logInterval;
    return m;
}

Message Grandmaster::announce(int64_t nowNs) {
    Message m = header(MessageType::announce, announceSequence_++, logAnnounceInterval);
    m.timestamp = Timestamp::fromNs(nowNs);
    m.announce.priority1 = 128;
    m.announce.quality = {announcedClass, announcedAccuracy, announcedVariance};
    m.announce.priority2 = 128;
    m.announce.grandmaster = port_.clock;
    m.announce.stepsRemoved = 0;
    m.announce.timeSource = internalOscillator;
    return m;
}

Message Grandmaster::sync() {
    Message m = header(MessageType::sync, syncSequence_++, logSyncInterval);
    m.flags = flag::twoStep;
    return m;
}

Message Grandmaster::followUp(const Message& sync, int64_t sentNs) const {
    Message m = header(MessageType::followUp, sync.sequenceId, logSyncInterval);
    m.timestamp = Timestamp::fromNs(sentNs);
    return m;
}

std::optional<Message> Grandmaster::answer(const Message& request, int64_t receivedNs) const {
    if (request.type != MessageType::delayReq || request.domain != domain) return std::nullopt;
    Message m = header(MessageType::delayResp, request.sequenceId, logDelayReqInterval);
    m.correction = request.correction;
    m.timestamp = Timestamp::fromNs(receivedNs);
    m.requesting = request.source;
    return m;
}

std::optional<Message> Grandmaster::answerPeerDelay(const Message& request,
                                                    int64_t receivedNs) const {
    if (request.type != MessageType::pdelayReq || request.domain != domain) return std::nullopt;
    Message m = header(MessageType::pdelayResp, request.sequenceId, peerDelayLogInterval);
    m.flags = flag::twoStep;
    m.timestamp = Timestamp::fromNs(receivedNs);
    m.requesting = request.source;
    return m;
}

Message Grandmaster::peerDelayFollowUp(const Message& request, int64_t sentNs) const {
    Message m = header(MessageType::pdelayRespFollowUp, request.sequenceId, peerDelayLogInterval);
    m.correction = request.correction;
    m.timestamp = Timestamp::fromNs(sentNs);
    m.requesting = request.source;
    return m;
}

}  // namespace vt::airplay_tool::ptp
