#include "remote/message_codec.h"

#include <array>
#include <utility>

#include "remote/wire_describe.h"

namespace vt::remote {
namespace {

// The parser keeps its own stack, but building, copying and printing a value
// recurse; a line like [[[[... must not reach them.
bool nestsTooDeeply(std::string_view line) {
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : line) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxNesting) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

std::string dumpLine(const wire::Out& json) {
    // A string field may hold bytes that are not UTF-8 (a device name, say);
    // they go out as U+FFFD rather than making the line unwritable.
    std::string line = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    line.push_back('\n');
    return line;
}

template <class Message>
wire::Out messageToJson(const Message& message) {
    return std::visit(
        [](const auto& c) {
            wire::Writer w;
            describe(w, c);
            wire::Out out = wire::Out::object();
            out[std::string(std::decay_t<decltype(c)>::wireKey)] = std::move(w.out);
            return out;
        },
        message.value);
}

template <class Message>
using CaseDecoder = Message (*)(const wire::In&);

template <class Message, class Case>
Message decodeCase(const wire::In& payload) {
    Case c{};
    wire::Reader r(payload);
    describe(r, c);
    return Message(std::move(c));
}

template <class Message, std::size_t... I>
constexpr auto caseTable(std::index_sequence<I...>) {
    using Value = typename Message::Value;
    return std::array<std::pair<std::string_view, CaseDecoder<Message>>, sizeof...(I)>{
        std::pair<std::string_view, CaseDecoder<Message>>{
            std::variant_alternative_t<I, Value>::wireKey,
            &decodeCase<Message, std::variant_alternative_t<I, Value>>}...};
}

template <class Message>
constexpr auto kCases =
    caseTable<Message>(std::make_index_sequence<std::variant_size_v<typename Message::Value>>());

// The decoder of the case this JSON names, or why there is none. Kept apart
// from decoding so that the common refusals cost no exception.
template <class Message>
CaseDecoder<Message> findCase(const wire::In& json, std::string& why) {
    if (!json.is_object()) {
        why = "A message is a JSON object.";
        return nullptr;
    }
    if (json.size() != 1) {
        why = "Invalid number of keys found, expected one.";
        return nullptr;
    }
    const auto entry = json.begin();
    for (const auto& [name, decode] : kCases<Message>) {
        if (name != entry.key()) continue;
        if (entry.value().is_object()) return decode;
        why = "The value of \"" + entry.key() + "\" is not an object.";
        return nullptr;
    }
    why = "Unknown message \"" + entry.key() + "\".";
    return nullptr;
}

template <class Message>
Message messageFromJson(const wire::In& json) {
    std::string why;
    const CaseDecoder<Message> decode = findCase<Message>(json, why);
    if (!decode) throw DecodeError(why);
    return decode(json.begin().value());
}

template <class Message>
std::optional<Message> tryDecode(std::string_view line) noexcept {
    try {
        if (nestsTooDeeply(line)) return std::nullopt;
        const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
        if (json.is_discarded()) return std::nullopt;
        std::string why;
        const CaseDecoder<Message> decode = findCase<Message>(json, why);
        if (!decode) return std::nullopt;
        return decode(json.begin().value());
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

template <class Message>
std::string_view keyOf(const Message& message) {
    return std::visit([](const auto& c) { return std::decay_t<decltype(c)>::wireKey; },
                      message.value);
}

}  // namespace

std::string_view PhoneMessage::key() const {
    return keyOf(*this);
}

std::string_view MacMessage::key() const {
    return keyOf(*this);
}

nlohmann::json parseLine(std::string_view line) {
    if (nestsTooDeeply(line)) throw DecodeError("The line nests too deeply.");
    nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
    if (json.is_discarded()) throw DecodeError("The line is not valid JSON.");
    return json;
}

nlohmann::ordered_json toJson(const PhoneMessage& message) {
    return messageToJson(message);
}

nlohmann::ordered_json toJson(const MacMessage& message) {
    return messageToJson(message);
}

PhoneMessage phoneMessageFromJson(const nlohmann::json& json) {
    return messageFromJson<PhoneMessage>(json);
}

MacMessage macMessageFromJson(const nlohmann::json& json) {
    return messageFromJson<MacMessage>(json);
}

std::string encode(const PhoneMessage& message) {
    return dumpLine(messageToJson(message));
}

std::string encode(const MacMessage& message) {
    return dumpLine(messageToJson(message));
}

PhoneMessage decodePhoneMessage(std::string_view line) {
    return phoneMessageFromJson(parseLine(line));
}

MacMessage decodeMacMessage(std::string_view line) {
    return macMessageFromJson(parseLine(line));
}

std::optional<PhoneMessage> tryDecodePhoneMessage(std::string_view line) noexcept {
    return tryDecode<PhoneMessage>(line);
}

std::optional<MacMessage> tryDecodeMacMessage(std::string_view line) noexcept {
    return tryDecode<MacMessage>(line);
}

}  // namespace vt::remote
