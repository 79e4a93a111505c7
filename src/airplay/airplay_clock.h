// The one PTP daemon every AirPlay 2 sender shares: the AirPlay tool run with
// --ptp-daemon, started by the first sender that needs it and stopped with
// the engine or to recover a clock that receivers refuse. Only one process
// can hold the PTP ports, so a daemon left behind by a crash of this program
// is ended before a new one starts.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vt::airplay {

// What the supervisor needs of the daemon; tests stand in for it.
class SharedClock {
  public:
    virtual ~SharedClock() = default;
    virtual bool isRunning() = 0;
    // Starts the daemon unless it runs; whether it runs afterwards.
    virtual bool ensureRunning(const std::filesystem::path& binary,
                               const std::optional<std::string>& interface,
                               const std::string& deviceID) = 0;
    virtual void stop() = 0;
};

class AirPlayClock final : public SharedClock {
  public:
    // A daemon that lives this long (12 polls of 50 ms) has taken its ports.
    static constexpr int livenessPolls = 12;
    static constexpr int orphanPolls = 20;
    static constexpr int stopPolls = 10;
    static constexpr int pollIntervalMs = 50;

    static AirPlayClock& shared();
    ~AirPlayClock() override;

    bool isRunning() override;
    // Blocks up to about 1.6 s: the orphans' end and the new daemon's first 600 ms.
    bool ensureRunning(const std::filesystem::path& binary,
                       const std::optional<std::string>& interface,
                       const std::string& deviceID) override;
    void stop() override;
    // The running daemon's process id, for tests.
    std::optional<pid_t> pid();

  private:
    bool aliveLocked();
    void reapOrphans(const std::filesystem::path& binary);

    std::mutex lock_;
    pid_t process_ = -1;
    std::vector<pid_t> ending_;  // stopped, but slow to end
};

}  // namespace vt::airplay
