// The tool's status lines, the only thing the app reads of it. Which lines go
// to standard output and which to standard error is part of the contract, and
// each line is written whole in one call so that no two threads interleave.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace vt::airplay_tool {

// Error codes the app tells apart.
namespace error_code {
inline constexpr const char* authRequired = "auth_required";
inline constexpr const char* authFailed = "auth_failed";
inline constexpr const char* connectFailed = "connect_failed";
inline constexpr const char* startFailed = "start_failed";
inline constexpr const char* disconnected = "disconnected";
inline constexpr const char* badArguments = "bad_arguments";
inline constexpr const char* unsupported = "unsupported";
// The PTP daemon could not take its ports: no privilege, or another holds them.
inline constexpr const char* ptpNoPrivilege = "ptp_no_privilege";
inline constexpr const char* ptpPorts = "ptp_ports";
}  // namespace error_code

class StatusWriter {
  public:
    // File descriptors to write to: the process's own by default.
    explicit StatusWriter(int outFd = 1, int errFd = 2) : outFd_(outFd), errFd_(errFd) {}

    void route(const std::string& protocol, const std::string& flow, const std::string& timing,
               bool buffered);
    void latency(int leadMs, int64_t deviceMinFrames, int64_t deviceMaxFrames, int deviceRenderMs,
                 int warmLeadMs);
    void connected();
    void clockReadyNtp(int exchanges, int64_t readyAtUnixMs);
    void clockReadyPtp(const std::string& state, int64_t streakMs, int exchanges, int64_t readyInMs,
                       int64_t readyAtUnixMs);
    void started(int64_t requestedUnixMs, int64_t atUnixMs);
    void flushed();
    // `[STATUS] REANCHOR`: late audio moved the time line forward.
    void reanchor(int64_t shiftedFrames, int64_t totalShiftedFrames, int sampleRate);
    // `[STATUS] playing elapsed_ms=` or `[STATUS] paused elapsed_ms=`.
    void playing(bool playing, int64_t elapsedMs);
    void eof();
    void stopped();
    // `[STATUS] error code=... http=... detail="..."` and then `[ERROR] detail`.
    // http is 0 when no HTTP answer was involved.
    void error(const std::string& code, int http, const std::string& detail);
    // `[STATUS] ptp_clock <fields>`: the shared PTP clock's mode and state.
    void ptpClock(const std::string& fields);
    void debug(const std::string& text);
    // A line on standard output as it stands: pairing's prompt and credentials.
    void say(const std::string& line);

    static std::string errorLine(const std::string& code, int http, const std::string& detail);

  private:
    void write(int fd, const std::string& line);

    int outFd_;
    int errFd_;
    std::mutex mutex_;
};

}  // namespace vt::airplay_tool
