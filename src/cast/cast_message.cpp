#include "cast/cast_message.h"

#include "net/text.h"

namespace vt::cast {
namespace {

constexpr int kWireVarint = 0;
constexpr int kWireLengthDelimited = 2;
constexpr int kFieldSource = 2;
constexpr int kFieldDestination = 3;
constexpr int kFieldNamespace = 4;
constexpr int kFieldPayloadText = 6;
// A 64-bit value needs at most ten groups of seven bits.
constexpr int kMaxVarintBytes = 10;

void appendText(std::string& out, uint8_t tag, std::string_view text) {
    out.push_back(static_cast<char>(tag));
    appendVarint(out, text.size());
    out.append(text);
}

std::optional<uint64_t> readVarint(std::string_view data, size_t& at) {
    uint64_t value = 0;
    for (int i = 0; i < kMaxVarintBytes; ++i) {
        if (at >= data.size()) return std::nullopt;
        const auto byte = static_cast<uint8_t>(data[at++]);
        value |= static_cast<uint64_t>(byte & 0x7F) << (7 * i);
        if ((byte & 0x80) == 0) return value;
    }
    return std::nullopt;
}

}  // namespace

void appendVarint(std::string& out, uint64_t value) {
    while (value >= 0x80) {
        out.push_back(static_cast<char>((value & 0x7F) | 0x80));
        value >>= 7;
    }
    out.push_back(static_cast<char>(value));
}

nlohmann::json CastMessage::json() const {
    auto parsed = nlohmann::json::parse(payload, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object()) return nlohmann::json::object();
    return parsed;
}

std::string CastMessage::type() const {
    const auto object = json();
    const auto it = object.find("type");
    if (it == object.end() || !it->is_string()) return {};
    return it->get<std::string>();
}

std::string CastMessage::encoded() const {
    std::string out;
    out.reserve(source.size() + destination.size() + nameSpace.size() + payload.size() + 24);
    out.push_back(0x08);  // protocol version CASTV2_1_0
    appendVarint(out, 0);
    appendText(out, 0x12, source);
    appendText(out, 0x1A, destination);
    appendText(out, 0x22, nameSpace);
    out.push_back(0x28);  // payload type: text
    appendVarint(out, 0);
    appendText(out, 0x32, payload);
    return out;
}

std::string CastMessage::framed() const {
    const std::string body = encoded();
    const auto n = static_cast<uint32_t>(body.size());
    std::string out;
    out.reserve(body.size() + 4);
    out.push_back(static_cast<char>(n >> 24));
    out.push_back(static_cast<char>(n >> 16));
    out.push_back(static_cast<char>(n >> 8));
    out.push_back(static_cast<char>(n));
    out += body;
    return out;
}

std::optional<CastMessage> CastMessage::decode(std::string_view data) {
    CastMessage message;
    size_t at = 0;
    while (at < data.size()) {
        const auto key = readVarint(data, at);
        if (!key) return std::nullopt;
        const auto wireType = static_cast<int>(*key & 0x7);
        const uint64_t field = *key >> 3;
        if (wireType == kWireVarint) {
            if (!readVarint(data, at)) return std::nullopt;
            continue;
        }
        if (wireType != kWireLengthDelimited) return std::nullopt;
        const auto length = readVarint(data, at);
        if (!length || *length > data.size() - at) return std::nullopt;
        const std::string_view bytes = data.substr(at, static_cast<size_t>(*length));
        at += static_cast<size_t>(*length);
        std::string* into = nullptr;
        switch (field) {
            case kFieldSource:
                into = &message.source;
                break;
            case kFieldDestination:
                into = &message.destination;
                break;
            case kFieldNamespace:
                into = &message.nameSpace;
                break;
            case kFieldPayloadText:
                into = &message.payload;
                break;
            default:
                break;
        }
        if (!into) continue;
        if (!net::isValidUtf8(bytes)) return std::nullopt;
        into->assign(bytes);
    }
    return message;
}

}  // namespace vt::cast
