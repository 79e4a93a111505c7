#include "airplay_tool/ptp/ptp_message.h"

namespace vt::airplay_tool::ptp {

namespace {

constexpr int64_t nsPerSecond = 1'000'000'000;
constexpr uint64_t maxSeconds = (uint64_t(1) << 48) - 1;
constexpr size_t timestampBytes = 10;
constexpr size_t portIdentityBytes = 10;
constexpr size_t announceBodyBytes = 30;

uint8_t controlField(MessageType type) {
    switch (type) {
        case MessageType::sync:
            return 0;
        case MessageType::delayReq:
            return 1;
        case MessageType::followUp:
            return 2;
        case MessageType::delayResp:
            return 3;
        default:
            return 5;
    }
}

bool carriesRequester(MessageType type) {
    return type == MessageType::delayResp || type == MessageType::pdelayResp ||
           type == MessageType::pdelayRespFollowUp;
}

class Reader {
  public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    uint64_t number(size_t width) {
        uint64_t v = 0;
        for (size_t i = 0; i < width; ++i) v = (v << 8) | bytes_[at_ + i];
        at_ += width;
        return v;
    }
    void skip(size_t n) { at_ += n; }
    void at(size_t offset) { at_ = offset; }
    ClockIdentity clock() {
        ClockIdentity c;
        for (auto& b : c) b = bytes_[at_++];
        return c;
    }
    PortIdentity port() {
        PortIdentity p;
        p.clock = clock();
        p.port = uint16_t(number(2));
        return p;
    }
    std::optional<Timestamp> timestamp() {
        Timestamp t;
        t.seconds = number(6);
        t.nanoseconds = uint32_t(number(4));
        if (t.nanoseconds >= nsPerSecond) return std::nullopt;
        return t;
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t at_ = 0;
};

class Writer {
  public:
    // At most 8 bytes wide.
    void number(uint64_t v, size_t width) {
        for (size_t i = width; i-- > 0;) out.push_back(uint8_t(v >> (8 * i)));
    }
    void zeros(size_t n) { out.insert(out.end(), n, 0); }
    void clock(const ClockIdentity& c) { out.insert(out.end(), c.begin(), c.end()); }
    void port(const PortIdentity& p) {
        clock(p.clock);
        number(p.port, 2);
    }
    void timestamp(const Timestamp& t) {
        number(t.seconds & maxSeconds, 6);
        number(t.nanoseconds, 4);
    }
    std::vector<uint8_t> out;
};

}  // namespace

Timestamp Timestamp::fromNs(int64_t ns) {
    if (ns < 0) return {};
    return {uint64_t(ns / nsPerSecond), uint32_t(ns % nsPerSecond)};
}

int64_t Timestamp::toNs() const {
    // Far beyond any clock this runs against; kept from overflowing all the same.
    const uint64_t s = seconds > uint64_t(INT64_MAX / nsPerSecond - 1)
                           ? uint64_t(INT64_MAX / nsPerSecond - 1)
                           : seconds;
    return int64_t(s) * nsPerSecond + nanoseconds;
}

std::optional<size_t> bodyBytes(MessageType type) {
    switch (type) {
        case MessageType::sync:
        case MessageType::delayReq:
        case MessageType::followUp:
            return timestampBytes;
        case MessageType::delayResp:
        case MessageType::pdelayReq:  // its second half is reserved
        case MessageType::pdelayResp:
        case MessageType::pdelayRespFollowUp:
            return timestampBytes + portIdentityBytes;
        case MessageType::announce:
            return announceBodyBytes;
        default:
            return std::nullopt;
    }
}

std::optional<Message> parseMessage(std::span<const uint8_t> datagram) {
    if (datagram.size() < headerBytes) return std::nullopt;
    Reader r(datagram);
    Message m;
    const uint8_t first = uint8_t(r.number(1));
    m.transportSpecific = first >> 4;
    const uint8_t type = first & 0x0F;
    if ((r.number(1) & 0x0F) != ptpVersion) return std::nullopt;
    const size_t length = size_t(r.number(2));
    if (length < headerBytes || length > datagram.size()) return std::nullopt;
    switch (type) {
        case 0x0:
        case 0x1:
        case 0x2:
        case 0x3:
        case 0x8:
        case 0x9:
        case 0xA:
        case 0xB:
        case 0xC:
        case 0xD:
            m.type = MessageType(type);
            break;
        default:
            return std::nullopt;
    }
    m.domain = uint8_t(r.number(1));
    r.skip(1);
    m.flags = uint16_t(r.number(2));
    m.correction = int64_t(r.number(8));
    r.skip(4);
    m.source = r.port();
    m.sequenceId = uint16_t(r.number(2));
    r.skip(1);  // controlField: obsolete, the type decides
    m.logInterval = int8_t(r.number(1));
    const auto body = bodyBytes(m.type);
    if (!body) return m;
    if (length < headerBytes + *body) return std::nullopt;
    const auto stamp = r.timestamp();
    if (!stamp) return std::nullopt;
    m.timestamp = *stamp;
    if (carriesRequester(m.type)) m.requesting = r.port();
    if (m.type == MessageType::announce) {
        AnnounceBody& a = m.announce;
        a.currentUtcOffset = int16_t(r.number(2));
        r.skip(1);
        a.priority1 = uint8_t(r.number(1));
        a.quality.clockClass = uint8_t(r.number(1));
        a.quality.accuracy = uint8_t(r.number(1));
        a.quality.variance = uint16_t(r.number(2));
        a.priority2 = uint8_t(r.number(1));
        a.grandmaster = r.clock();
        a.stepsRemoved = uint16_t(r.number(2));
        a.timeSource = uint8_t(r.number(1));
    }
    return m;
}

std::vector<uint8_t> encodeMessage(const Message& m) {
    const size_t length = headerBytes + bodyBytes(m.type).value_or(0);
    Writer w;
    w.out.reserve(length);
    w.number(uint8_t((m.transportSpecific << 4) | (uint8_t(m.type) & 0x0F)), 1);
    w.number(ptpVersion, 1);
    w.number(length, 2);
    w.number(m.domain, 1);
    w.number(0, 1);
    w.number(m.flags, 2);
    w.number(uint64_t(m.correction), 8);
    w.number(0, 4);
    w.port(m.source);
    w.number(m.sequenceId, 2);
    w.number(controlField(m.type), 1);
    w.number(uint8_t(m.logInterval), 1);
    if (!bodyBytes(m.type)) return w.out;
    w.timestamp(m.timestamp);
    if (carriesRequester(m.type)) w.port(m.requesting);
    if (m.type == MessageType::pdelayReq) w.zeros(portIdentityBytes);
    if (m.type == MessageType::announce) {
        const AnnounceBody& a = m.announce;
        w.number(uint16_t(a.currentUtcOffset), 2);
        w.number(0, 1);
        w.number(a.priority1, 1);
        w.number(a.quality.clockClass, 1);
        w.number(a.quality.accuracy, 1);
        w.number(a.quality.variance, 2);
        w.number(a.priority2, 1);
        w.clock(a.grandmaster);
        w.number(a.stepsRemoved, 2);
        w.number(a.timeSource, 1);
    }
    return w.out;
}

}  // namespace vt::airplay_tool::ptp
