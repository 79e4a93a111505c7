// Base64 (standard alphabet, padded) for byte fields on the wire.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::remote {

std::string base64Encode(const std::vector<uint8_t>& bytes);
// Nothing unless the text is padded base64 of the standard alphabet, with no
// white space.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace vt::remote
