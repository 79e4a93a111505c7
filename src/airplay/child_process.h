// A child program with its three standard streams on pipes, started with
// posix_spawn. The parent writes to `stdinFd` and reads `stdoutFd` and
// `stderrFd`; all three are the caller's to close.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vt::airplay {

struct ChildProcess {
    pid_t pid = -1;
    int stdinFd = -1, stdoutFd = -1, stderrFd = -1;
};

// Starts `argv[0]` with `argv` and `env` (each "NAME=value"). On failure
// nothing runs, no descriptor is left open, and `error` says why.
std::optional<ChildProcess> spawnChild(const std::vector<std::string>& argv,
                                       const std::vector<std::string>& env, std::string& error);

// This process's environment with `overrides` set (replacing inherited
// values) and `defaults` set only where nothing was inherited.
std::vector<std::string> environmentWith(
    const std::vector<std::pair<std::string, std::string>>& overrides,
    const std::vector<std::pair<std::string, std::string>>& defaults);

}  // namespace vt::airplay
