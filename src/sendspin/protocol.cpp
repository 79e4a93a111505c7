#include "sendspin/protocol.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "net/monotonic.h"

namespace vt::sendspin::SendspinProtocol {

namespace {

using nlohmann::json;

// nlohmann's default object is an ordered map, so keys come out sorted at every level.
std::string message(std::string_view type, json payload) {
    try {
        json root = json::object();
        root["type"] = std::string(type);
        root["payload"] = std::move(payload);
        return root.dump();
    } catch (const json::exception&) {
        return "{}";
    }
}

const json& emptyObject() {
    static const json empty = json::object();
    return empty;
}

const json& objectAt(const json& parent, const char* key) {
    if (!parent.is_object()) return emptyObject();
    const auto it = parent.find(key);
    return it != parent.end() && it->is_object() ? *it : emptyObject();
}

std::optional<std::string> stringAt(const json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::optional<double> numberAt(const json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto it = object.find(key);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    const double value = it->get<double>();
    return std::isfinite(value) ? std::optional(value) : std::nullopt;
}

// Integers are kept exactly as sent, since clients compare the echo with what
// they sent; fractions are cut towards zero and the rest held to 64 bits.
std::optional<int64_t> wholeNumber(const json& value) {
    if (value.is_number_unsigned()) {
        const uint64_t v = value.get<uint64_t>();
        return v > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                   ? std::numeric_limits<int64_t>::max()
                   : static_cast<int64_t>(v);
    }
    if (value.is_number_integer()) return value.get<int64_t>();
    if (value.is_number_float()) {
        const double v = std::trunc(value.get<double>());
        if (!(v > -9.2e18)) return std::numeric_limits<int64_t>::min();
        if (!(v < 9.2e18)) return std::numeric_limits<int64_t>::max();
        return static_cast<int64_t>(v);
    }
    return std::nullopt;
}

std::optional<int64_t> integerAt(const json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_number_integer()) return std::nullopt;
    return wholeNumber(*it);
}

bool isOurFormat(const json& format) {
    if (!format.is_object()) return false;
    const auto codec = stringAt(format, "codec");
    return codec == "pcm" && numberAt(format, "sample_rate") == sampleRate &&
           numberAt(format, "channels") == channels && numberAt(format, "bit_depth") == bitDepth;
}

// Clients put their formats in different places: the current "player@v1_support",
// older "player_support", or the payload itself. Any of them will do.
void scanFormats(const json& payload, ClientHello& hello) {
    const auto scanList = [&](const json& holder) {
        const auto it = holder.find("supported_formats");
        if (it == holder.end() || !it->is_array()) return;
        hello.listedFormats = true;
        for (const json& format : *it) {
            if (isOurFormat(format)) hello.supportsOurFormat = true;
        }
    };
    scanList(payload);
    for (const auto& [key, value] : payload.items()) {
        if (value.is_object() && key.ends_with("_support")) scanList(value);
    }
}

ClientHello parseHello(const json& payload) {
    ClientHello hello;
    hello.clientID = stringAt(payload, "client_id").value_or("");
    hello.name = stringAt(payload, "name").value_or("");
    const auto roles = payload.find("supported_roles");
    if (roles != payload.end() && roles->is_array()) {
        hello.supportedRoles.emplace();
        for (const json& role : *roles) {
            if (role.is_string()) hello.supportedRoles->push_back(role.get<std::string>());
        }
    }
    scanFormats(payload, hello);
    return hello;
}

// State comes at the top of the payload or inside "player", whole or as a delta.
ClientState parseState(const json& payload) {
    ClientState state;
    const json& player = objectAt(payload, "player");
    for (const json* source : {&payload, &player}) {
        if (auto word = stringAt(*source, "state")) state.player = word;
        const auto available = source->find("available");
        if (available != source->end() && available->is_boolean()) {
            state.available = available->get<bool>();
        }
        if (auto ms = numberAt(*source, "static_delay_ms")) state.staticDelayMs = ms;
        if (auto ms = numberAt(*source, "output_delay_ms")) state.outputDelayMs = ms;
    }
    return state;
}

}  // namespace

int64_t nowUs() {
    return net::monotonicUs();
}

std::string serverHello(std::string_view serverID, std::string_view name,
                        const std::optional<std::vector<std::string>>& clientRoles) {
    json roles = json::array();
    for (const char* role : {playerRole, metadataRole}) {
        if (!clientRoles ||
            std::find(clientRoles->begin(), clientRoles->end(), role) != clientRoles->end()) {
            roles.push_back(role);
        }
    }
    return message("server/hello", {{"active_roles", roles},
                                    {"connection_reason", "playback"},
                                    {"name", std::string(name)},
                                    {"server_id", std::string(serverID)},
                                    {"version", 1}});
}

std::string serverTime(int64_t clientTransmitted, int64_t received, int64_t transmitted) {
    return message("server/time", {{"client_transmitted", clientTransmitted},
                                   {"server_received", received},
                                   {"server_transmitted", transmitted}});
}

std::string streamStart(int rate, int channelCount, int depth, int64_t at) {
    return message("stream/start", {{"player",
                                     {{"bit_depth", depth},
                                      {"channels", channelCount},
                                      {"codec", "pcm"},
                                      {"sample_rate", rate}}},
                                    {"server_transmitted", at}});
}

std::string streamEnd() {
    return message("stream/end", {{"roles", json::array({"player"})}});
}

std::string serverState(std::string_view title, std::string_view artist, std::string_view album,
                        const std::optional<std::string>& artworkURL, int64_t at) {
    json metadata = {{"album", std::string(album)},
                     {"artist", std::string(artist)},
                     {"artwork_url", artworkURL ? json(*artworkURL) : json(nullptr)},
                     {"timestamp", at},
                     {"title", std::string(title)}};
    return message("server/state", {{"metadata", std::move(metadata)}});
}

std::string clientHello(std::string_view clientID, std::string_view name) {
    json format = {{"bit_depth", bitDepth},
                   {"channels", channels},
                   {"codec", "pcm"},
                   {"sample_rate", sampleRate}};
    json support = {{"buffer_capacity", 0x100000},
                    {"supported_commands", json::array()},
                    {"supported_formats", json::array({format})}};
    return message("client/hello", {{"client_id", std::string(clientID)},
                                    {"name", std::string(name)},
                                    {"player@v1_support", std::move(support)},
                                    {"supported_roles", json::array({playerRole, metadataRole})},
                                    {"version", 1}});
}

std::string clientTime(int64_t transmittedUs) {
    return message("client/time", {{"client_transmitted", transmittedUs}});
}

std::string clientGoodbye(std::string_view reason) {
    return message("client/goodbye", {{"reason", std::string(reason)}});
}

std::optional<ClientMessage> parse(std::string_view text) {
    const json root = json::parse(text, nullptr, false);
    if (!root.is_object()) return std::nullopt;
    const auto type = stringAt(root, "type");
    if (!type) return std::nullopt;
    const json& payload = objectAt(root, "payload");

    if (*type == "client/hello") return parseHello(payload);
    if (*type == "client/time") {
        const auto it = payload.find("client_transmitted");
        if (it == payload.end()) return std::nullopt;
        const auto value = wholeNumber(*it);
        if (!value) return std::nullopt;
        return ClientTime{*value};
    }
    if (*type == "client/state") return parseState(payload);
    if (*type == "client/goodbye") return ClientGoodbye{stringAt(payload, "reason")};
    return ClientOther{*type};
}

std::optional<std::string> formatRefusal(const ClientHello& hello) {
    if (hello.supportsOurFormat || !hello.listedFormats) return std::nullopt;
    return "[sendspin] client \"" + hello.clientID + "\" (" + hello.name +
           ") offers no pcm 48000 Hz 2-channel 16-bit format, which is all this server "
           "sends; it gets no stream";
}

std::optional<ServerMessage> parseServer(std::string_view text) {
    const json root = json::parse(text, nullptr, false);
    if (!root.is_object()) return std::nullopt;
    const auto type = stringAt(root, "type");
    if (!type) return std::nullopt;
    const json& payload = objectAt(root, "payload");

    if (*type == "server/time") {
        const auto t1 = integerAt(payload, "client_transmitted");
        const auto t2 = integerAt(payload, "server_received");
        const auto t3 = integerAt(payload, "server_transmitted");
        if (!t1 || !t2 || !t3) return std::nullopt;
        return ServerTime{*t1, *t2, *t3};
    }
    if (*type == "stream/start") {
        const json& player = objectAt(payload, "player");
        const auto intOr = [&](const char* key, int fallback) {
            const auto value = integerAt(player, key);
            if (!value || *value < std::numeric_limits<int>::min() ||
                *value > std::numeric_limits<int>::max()) {
                return fallback;
            }
            return static_cast<int>(*value);
        };
        return ServerStreamStart{intOr("sample_rate", sampleRate), intOr("channels", channels),
                                 intOr("bit_depth", bitDepth)};
    }
    if (*type == "server/state") {
        const json& metadata = objectAt(payload, "metadata");
        return ServerState{stringAt(metadata, "title"), stringAt(metadata, "artist"),
                           stringAt(metadata, "album"), stringAt(metadata, "artwork_url")};
    }
    if (*type == "server/hello") return ServerHello{};
    if (*type == "stream/end") return ServerStreamEnd{};
    return ServerOther{*type};
}

std::string audioChunk(int64_t playAtUs, std::span<const int16_t> pcm) {
    std::string out(9 + pcm.size() * 2, '\0');
    out[0] = static_cast<char>(audioChunkType);
    const auto stamp = static_cast<uint64_t>(playAtUs);
    for (int i = 0; i < 8; ++i) out[1 + i] = static_cast<char>(stamp >> (56 - 8 * i));
    for (size_t i = 0; i < pcm.size(); ++i) {
        const auto sample = static_cast<uint16_t>(pcm[i]);
        out[9 + 2 * i] = static_cast<char>(sample & 0xFF);
        out[10 + 2 * i] = static_cast<char>(sample >> 8);
    }
    return out;
}

std::optional<std::pair<int64_t, std::string_view>> parseAudioChunk(std::string_view data) {
    if (data.size() < 9 || static_cast<uint8_t>(data[0]) != audioChunkType) return std::nullopt;
    uint64_t stamp = 0;
    for (int i = 1; i <= 8; ++i) stamp = (stamp << 8) | static_cast<uint8_t>(data[i]);
    return std::pair{static_cast<int64_t>(stamp), data.substr(9)};
}

}  // namespace vt::sendspin::SendspinProtocol
