// One message of the Cast control channel: the CastMessage protocol buffer as
// TVs speak it, always with a text payload. Encoding writes every field in a
// fixed order; decoding is bounded by the frame it is given and accepts a
// message with fields missing or with fields it does not know.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace vt::cast {

inline constexpr std::string_view kSenderID = "sender-0";
inline constexpr std::string_view kReceiverID = "receiver-0";
inline constexpr std::string_view kHeartbeatNamespace = "urn:x-cast:com.google.cast.tp.heartbeat";
inline constexpr std::string_view kConnectionNamespace = "urn:x-cast:com.google.cast.tp.connection";
inline constexpr std::string_view kReceiverNamespace = "urn:x-cast:com.google.cast.receiver";
inline constexpr std::string_view kMediaNamespace = "urn:x-cast:com.google.cast.media";

struct CastMessage {
    std::string source;
    std::string destination;
    std::string nameSpace;
    std::string payload;  // JSON text

    // The payload as a JSON object; an empty object when it is not one.
    nlohmann::json json() const;
    // The payload's "type", or empty.
    std::string type() const;

    std::string encoded() const;
    // The encoded message behind its 4-byte big-endian length.
    std::string framed() const;
    // Nothing for an unknown wire type, a length past the end, a varint that
    // runs on, or a text field that is not UTF-8.
    static std::optional<CastMessage> decode(std::string_view data);

    bool operator==(const CastMessage&) const = default;
};

void appendVarint(std::string& out, uint64_t value);

}  // namespace vt::cast
