#include "airplay_tool/status_writer.h"

#include <unistd.h>

#include <cerrno>

namespace vt::airplay_tool {

namespace {

// The detail sits in double quotes on one line: quotes become single ones and
// line breaks blanks, so the app's field splitter and line splitter hold.
std::string oneLine(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '"')
            out += '\'';
        else if (c == '\n' || c == '\r')
            out += ' ';
        else
            out += c;
    }
    return out;
}

}  // namespace

void StatusWriter::write(int fd, const std::string& line) {
    std::lock_guard lock(mutex_);
    std::string text = line + "\n";
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

void StatusWriter::route(const std::string& protocol, const std::string& flow,
                         const std::string& timing, bool buffered) {
    write(outFd_, "[STATUS] route protocol=" + protocol + " flow=" + flow + " timing=" + timing +
                      " buffered=" + (buffered ? "1" : "0"));
}

void StatusWriter::latency(int leadMs, int64_t deviceMinFrames, int64_t deviceMaxFrames,
                           int deviceRenderMs, int warmLeadMs) {
    write(outFd_, "[STATUS] latency lead_ms=" + std::to_string(leadMs) +
                      " device_min_frames=" + std::to_string(deviceMinFrames) +
                      " device_max_frames=" + std::to_string(deviceMaxFrames) +
                      " device_render_ms=" + std::to_string(deviceRenderMs) +
                      " warm_lead_ms=" + std::to_string(warmLeadMs));
}

void StatusWriter::connected() {
    write(errFd_, "[STATUS] connected");
}

void StatusWriter::clockReadyNtp(int exchanges, int64_t readyAtUnixMs) {
    write(errFd_, "[STATUS] clock_ready mode=ntp state=ready streak_ms=0 exchanges=" +
                      std::to_string(exchanges) +
                      " ready_in_ms=0 ready_at_unix_ms=" + std::to_string(readyAtUnixMs));
}

void StatusWriter::clockReadyPtp(const std::string& state, int64_t streakMs, int exchanges,
                                 int64_t readyInMs, int64_t readyAtUnixMs) {
    write(errFd_, "[STATUS] clock_ready mode=ptp state=" + state + " streak_ms=" +
                      std::to_string(streakMs) + " exchanges=" + std::to_string(exchanges) +
                      " ready_in_ms=" + std::to_string(readyInMs) +
                      " ready_at_unix_ms=" + std::to_string(readyAtUnixMs));
}

void StatusWriter::started(int64_t requestedUnixMs, int64_t atUnixMs) {
    write(errFd_, "[STATUS] started requested_unix_ms=" + std::to_string(requestedUnixMs) +
                      " at_unix_ms=" + std::to_string(atUnixMs));
}

void StatusWriter::flushed() {
    write(errFd_, "[STATUS] flushed");
}
void StatusWriter::reanchor(int64_t shiftedFrames, int64_t totalShiftedFrames, int sampleRate) {
    write(errFd_, "[STATUS] REANCHOR shifted_frames=" + std::to_string(shiftedFrames) +
                      " total_shifted_frames=" + std::to_string(totalShiftedFrames) +
                      " sample_rate=" + std::to_string(sampleRate));
}
void StatusWriter::playing(bool playing, int64_t elapsedMs) {
    write(errFd_, std::string("[STATUS] ") + (playing ? "playing" : "paused") +
                      " elapsed_ms=" + std::to_string(elapsedMs));
}
void StatusWriter::eof() {
    write(errFd_, "[STATUS] eof");
}
void StatusWriter::stopped() {
    write(errFd_, "[STATUS] stopped");
}

std::string StatusWriter::errorLine(const std::string& code, int http, const std::string& detail) {
    return "[STATUS] error code=" + code + " http=" + std::to_string(http) + " detail=\"" +
           oneLine(detail) + "\"";
}

void StatusWriter::error(const std::string& code, int http, const std::string& detail) {
    write(errFd_, errorLine(code, http, detail));
    write(errFd_, "[ERROR] " + oneLine(detail));
}

void StatusWriter::ptpClock(const std::string& fields) {
    write(errFd_, "[STATUS] ptp_clock " + oneLine(fields));
}

void StatusWriter::say(const std::string& line) {
    write(outFd_, oneLine(line));
}

void StatusWriter::debug(const std::string& text) {
    write(errFd_, "[debug] " + oneLine(text));
}

}  // namespace vt::airplay_tool
