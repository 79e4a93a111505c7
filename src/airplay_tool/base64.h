// Base64 through OpenSSL, in the forms AirPlay 1 uses.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vt::airplay_tool {

// Without the trailing "=" padding, as receivers' SDP readers expect.
std::string base64Unpadded(std::span<const uint8_t> bytes);
// Accepts padded or unpadded text; nothing for other characters.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace vt::airplay_tool
