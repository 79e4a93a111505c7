#include "airplay_tool/hap/tlv8.h"

#include <algorithm>

namespace vt::hap {

namespace {

constexpr size_t kMaxFragment = 255;
constexpr uint8_t kSeparator = 0xff;

}  // namespace

Tlv8& Tlv8::add(uint8_t type, Bytes value) {
    items_.push_back({type, std::move(value)});
    return *this;
}

const Bytes* Tlv8::find(uint8_t type) const {
    for (const Item& item : items_)
        if (item.type == type) return &item.value;
    return nullptr;
}

std::optional<uint8_t> Tlv8::byte(uint8_t type) const {
    const Bytes* value = find(type);
    if (!value || value->size() != 1) return std::nullopt;
    return (*value)[0];
}

Bytes Tlv8::encode() const {
    Bytes out;
    const Item* previous = nullptr;
    for (const Item& item : items_) {
        // Two items of one type in a row would read back as one value.
        if (previous && previous->type == item.type) {
            out.push_back(kSeparator);
            out.push_back(0);
        }
        size_t at = 0;
        do {
            const size_t n = std::min(kMaxFragment, item.value.size() - at);
            out.push_back(item.type);
            out.push_back(static_cast<uint8_t>(n));
            out.insert(out.end(), item.value.begin() + static_cast<std::ptrdiff_t>(at),
                       item.value.begin() + static_cast<std::ptrdiff_t>(at + n));
            at += n;
        } while (at < item.value.size());
        previous = &item;
    }
    return out;
}

std::optional<Tlv8> Tlv8::decode(const uint8_t* data, size_t size) {
    if (size > kMaxTlv8Bytes) return std::nullopt;
    Tlv8 out;
    bool continuing = false;  // the last item was a full fragment that may go on
    size_t at = 0;
    while (at < size) {
        if (size - at < 2) return std::nullopt;
        const uint8_t type = data[at];
        const size_t length = data[at + 1];
        at += 2;
        if (size - at < length) return std::nullopt;
        if (continuing && out.items_.back().type == type) {
            Bytes& value = out.items_.back().value;
            value.insert(value.end(), data + at, data + at + length);
        } else {
            out.items_.push_back({type, Bytes(data + at, data + at + length)});
        }
        continuing = length == kMaxFragment;
        at += length;
    }
    return out;
}

}  // namespace vt::hap
