// Byte strings as the pairing code passes them around, and their hex text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt::hap {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(std::string_view text);
std::string toHex(const Bytes& bytes, bool upper = false);
// Nothing for an odd length or anything but hex digits.
std::optional<Bytes> fromHex(std::string_view hex);

inline Bytes concat(std::initializer_list<const Bytes*> parts) {
    Bytes out;
    for (const Bytes* p : parts) out.insert(out.end(), p->begin(), p->end());
    return out;
}

}  // namespace vt::hap
