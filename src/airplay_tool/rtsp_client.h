// One RTSP connection to a receiver: numbered requests, one answer each, and
// the Digest password answered once the receiver asks for it.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "airplay_tool/digest_auth.h"
#include "airplay_tool/hap/channel_cipher.h"
#include "airplay_tool/rtsp_message.h"

namespace vt::airplay_tool {

struct RtspResult {
    std::optional<RtspResponse> response;  // nothing when the connection failed
    std::string error;                     // why, when there is no response
    bool triedPassword = false;            // the answer came to a request with our password
};

class RtspClient {
  public:
    // Connects within `timeoutMs`; nothing and `error` set on failure.
    static std::unique_ptr<RtspClient> connect(const std::string& host, int port, int timeoutMs,
                                               std::string& error);
    ~RtspClient();
    RtspClient(const RtspClient&) = delete;
    RtspClient& operator=(const RtspClient&) = delete;

    // Headers every request carries (User-Agent, DACP-ID, ...), after CSeq.
    void addCommonHeader(std::string name, std::string value);
    void setPassword(std::string password) { password_ = std::move(password); }
    // kHttpVersion for a peer that speaks HTTP rather than RTSP.
    void setVersion(std::string version) { version_ = std::move(version); }
    // From now on every byte each way is framed and encrypted with these keys.
    void encrypt(const hap::ChannelKeys& keys);

    // Sends and waits up to `timeoutMs` for the answer. A 401 with a Digest
    // challenge is answered with the password, once, when there is one.
    RtspResult request(RtspRequest request, int timeoutMs);

    int fd() const { return fd_; }
    // When the last request went out (the connection's opening before any).
    std::chrono::steady_clock::time_point lastRequestTime() const { return lastRequest_; }
    const std::string& localIP() const { return localIP_; }
    const std::string& peerIP() const { return peerIP_; }
    // Reads what the receiver sent unasked; false when it closed the connection.
    bool drainUnsolicited();
    // The same, keeping the plain bytes that arrived in `plain`.
    bool drainUnsolicited(std::string& plain);
    // Sends bytes that answer no request of ours (our answers to a receiver's
    // requests), sealed when the channel is encrypted; false when it is lost.
    bool sendUnasked(std::string_view text);

  private:
    explicit RtspClient(int fd);
    RtspResult exchange(const RtspRequest& request, int timeoutMs);
    // Writes `text`, sealed when the channel is encrypted; the error when it cannot.
    std::optional<std::string> sendAll(std::string_view text);
    // The plain bytes of what arrived; false when the channel is broken.
    bool received(std::string_view raw, std::string& plain);

    int fd_ = -1;
    int cseq_ = 0;
    std::string localIP_;
    std::string peerIP_;
    std::string password_;
    std::string version_ = kRtspVersion;
    std::optional<DigestChallenge> challenge_;
    std::vector<std::pair<std::string, std::string>> common_;
    std::string pending_;  // bytes past the last answer
    std::optional<hap::FrameSealer> sealer_;
    std::optional<hap::FrameOpener> opener_;
    std::chrono::steady_clock::time_point lastRequest_ = std::chrono::steady_clock::now();
};

}  // namespace vt::airplay_tool
