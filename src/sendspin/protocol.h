// The Sendspin messages this system speaks: JSON text and one binary audio
// frame. No state and no I/O. The host is always the server; the client half
// serves the phone side.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace vt::sendspin::SendspinProtocol {

inline constexpr uint8_t audioChunkType = 4;
inline constexpr double clientHeadroomMs = 200.0;
inline constexpr int sampleRate = 48'000;
inline constexpr int channels = 2;
inline constexpr int bitDepth = 16;
inline constexpr int framesPerChunk = 480;
inline constexpr const char* playerRole = "player@v1";
inline constexpr const char* metadataRole = "metadata@v1";

// Microseconds on the host's monotonic clock: every stamp on the wire.
int64_t nowUs();

struct ClientHello {
    std::string clientID;
    std::string name;
    // As the client listed them; nothing when it sent no list.
    std::optional<std::vector<std::string>> supportedRoles;
    // Whether pcm/48000/2/16 appears in any list of supported formats it sent.
    bool supportsOurFormat = false;
    // Whether the client sent any list of formats at all.
    bool listedFormats = false;
};
struct ClientTime {
    int64_t clientTransmitted = 0;
};
struct ClientState {
    std::optional<std::string> player;  // the player's state word
    std::optional<bool> available;
    std::optional<double> staticDelayMs;
    std::optional<double> outputDelayMs;
};
struct ClientGoodbye {
    std::optional<std::string> reason;
};
struct ClientOther {
    std::string type;
};
using ClientMessage =
    std::variant<ClientHello, ClientTime, ClientState, ClientGoodbye, ClientOther>;

struct ServerTime {
    int64_t clientTransmitted = 0;
    int64_t serverReceived = 0;
    int64_t serverTransmitted = 0;
};
struct ServerStreamStart {
    int sampleRate = 48'000;
    int channels = 2;
    int bitDepth = 16;
};
struct ServerState {
    std::optional<std::string> title, artist, album, artworkURL;
};
struct ServerOther {
    std::string type;
};
struct ServerHello {};
struct ServerStreamEnd {};
using ServerMessage = std::variant<ServerTime, ServerStreamStart, ServerState, ServerOther,
                                   ServerHello, ServerStreamEnd>;

// Server to client. `clientRoles` narrows the roles we activate to those the
// client offered; nothing activates both.
std::string serverHello(std::string_view serverID, std::string_view name,
                        const std::optional<std::vector<std::string>>& clientRoles = std::nullopt);
std::string serverTime(int64_t clientTransmitted, int64_t received, int64_t transmitted);
std::string streamStart(int sampleRate, int channels, int bitDepth, int64_t at);
std::string streamEnd();
std::string serverState(std::string_view title, std::string_view artist, std::string_view album,
                        const std::optional<std::string>& artworkURL, int64_t at);

// Client to server.
std::string clientHello(std::string_view clientID, std::string_view name);
std::string clientTime(int64_t transmittedUs);
std::string clientGoodbye(std::string_view reason);

std::optional<ClientMessage> parse(std::string_view text);

// Why a client that said hello can have no stream, as a log line; nothing when it
// listed pcm, 48000 Hz, 2 channels, 16 bits (or listed no formats at all, as
// our own clients may).
std::optional<std::string> formatRefusal(const ClientHello& hello);
std::optional<ServerMessage> parseServer(std::string_view text);

// Play-at stamp big-endian, samples little-endian.
std::string audioChunk(int64_t playAtUs, std::span<const int16_t> pcm);
std::optional<std::pair<int64_t, std::string_view>> parseAudioChunk(std::string_view data);

}  // namespace vt::sendspin::SendspinProtocol
