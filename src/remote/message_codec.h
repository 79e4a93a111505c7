// Messages to and from lines of the remote link.
//
//   std::string line = encode(PhoneMessage::SetVolume{2, 0.5});
//   // {"setVolume":{"slot":2,"volume":0.5}}\n
//   PhoneMessage m = decodePhoneMessage(R"({"setEQEnabled":{"_0":true}})");
//   if (auto* on = m.get<PhoneMessage::SetEQEnabled>()) ...
//
// A line that does not decode throws DecodeError; the link should then end.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "remote/decode_error.h"
#include "remote/mac_message.h"
#include "remote/phone_message.h"

namespace vt::remote {

// The message's JSON followed by one newline.
std::string encode(const PhoneMessage& message);
std::string encode(const MacMessage& message);

// One line, without its newline.
PhoneMessage decodePhoneMessage(std::string_view line);
MacMessage decodeMacMessage(std::string_view line);
std::optional<PhoneMessage> tryDecodePhoneMessage(std::string_view line) noexcept;
std::optional<MacMessage> tryDecodeMacMessage(std::string_view line) noexcept;

// The same at the JSON level, for callers that hold parsed JSON already.
nlohmann::ordered_json toJson(const PhoneMessage& message);
nlohmann::ordered_json toJson(const MacMessage& message);
PhoneMessage phoneMessageFromJson(const nlohmann::json& json);
MacMessage macMessageFromJson(const nlohmann::json& json);

// Parses one line as JSON with the limits every line from a peer is held to
// (nesting at most maxNesting deep). Throws DecodeError.
inline constexpr int maxNesting = 64;
nlohmann::json parseLine(std::string_view line);

}  // namespace vt::remote
