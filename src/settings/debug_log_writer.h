// Appends the engine's drift log (one CSV line per telemetry tick while the
// "debugLog" setting is on) to a file, off the calling thread: lines are
// handed to a serial queue, which opens the file on first use and gives up
// for good on the first failure, so a full disk costs nothing after it.
#pragma once

#include <filesystem>
#include <memory>
#include <span>
#include <string>

namespace vt::dispatch {
class SerialQueue;
}

namespace vt::settings {

class DebugLogWriter {
  public:
    // The log at its usual place (driftLogFile()).
    DebugLogWriter();
    explicit DebugLogWriter(std::filesystem::path file);
    // Finishes the queued lines and closes the file.
    ~DebugLogWriter();
    DebugLogWriter(const DebugLogWriter&) = delete;
    DebugLogWriter& operator=(const DebugLogWriter&) = delete;

    const std::filesystem::path& file() const { return file_; }

    // Any thread (never a real-time one: it allocates). A newline is added
    // when the line has none.
    void append(std::string line);
    // Closes the file; the next append opens it again (and makes a new one if
    // it was deleted meanwhile). A writer that gave up stays given up.
    void close();
    // Blocks until every line handed over so far has been dealt with.
    void flush();
    // True once a failure made the writer stop trying.
    bool givenUp() const;

  private:
    struct State;
    std::filesystem::path file_;
    std::shared_ptr<State> state_;
    std::unique_ptr<dispatch::SerialQueue> queue_;
};

struct DriftSample {
    double ppm = 0;
    double fillErrorMs = 0;
};

// One line of the drift log: the Unix time, then each row's ppm and fill
// error as whole numbers, separated by commas.
std::string driftLine(double unixSeconds, std::span<const DriftSample> rows);

}  // namespace vt::settings
