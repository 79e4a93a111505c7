// RTSP/1.0 requests as we write them and responses as a receiver sends them.
// A response is read by a bounded, incremental reader so that a hostile or
// broken receiver can make us neither grow without limit nor misread a body.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::airplay_tool {

inline constexpr const char* kRtspVersion = "RTSP/1.0";
// HomeKit accessories speak the same messages as HTTP.
inline constexpr const char* kHttpVersion = "HTTP/1.1";

struct RtspRequest {
    std::string method;
    std::string uri;
    std::vector<std::pair<std::string, std::string>> headers;  // in order, as written
    std::string body;
    std::string version = kRtspVersion;

    void add(std::string name, std::string value) {
        headers.emplace_back(std::move(name), std::move(value));
    }
    // The text on the wire; Content-Length is added when there is a body.
    std::string serialize() const;
};

struct RtspResponse {
    int status = 0;
    std::string reason;
    std::vector<std::pair<std::string, std::string>> headers;  // names lower-cased
    std::string body;

    // The first header of this name (case-insensitive), if any.
    std::optional<std::string> header(std::string_view name) const;
};

inline constexpr size_t kMaxRtspHeadBytes = 16 * 1024;
inline constexpr size_t kMaxRtspHeaders = 64;
inline constexpr size_t kMaxRtspBodyBytes = 256 * 1024;
inline constexpr size_t kMaxChunkLineBytes = 256;

// Nothing for anything but "<version> <3 digits> <reason>" followed by
// "Name: value" lines.
std::optional<RtspResponse> parseRtspResponseHead(std::string_view head,
                                                  std::string_view version = kRtspVersion);

class RtspResponseReader {
  public:
    enum class State { needMore, complete, malformed };

    explicit RtspResponseReader(std::string version = kRtspVersion)
        : version_(std::move(version)) {}

    // Adds bytes; once complete, the response and any bytes past it are kept.
    State append(std::string_view bytes);
    State state() const { return state_; }
    const RtspResponse& response() const { return response_; }
    std::string_view leftover() const { return leftover_; }

  private:
    State readChunks();

    std::string version_;
    bool chunked_ = false;
    bool trailers_ = false;
    size_t chunkLeft_ = 0;
    State state_ = State::needMore;
    std::string buffer_;
    bool haveHead_ = false;
    size_t bodyLength_ = 0;
    RtspResponse response_;
    std::string leftover_;
};

}  // namespace vt::airplay_tool
