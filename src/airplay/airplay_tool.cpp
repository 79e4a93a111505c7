#include "airplay/airplay_tool.h"

#include <unistd.h>

#include <cstdlib>
#include <system_error>

namespace vt::airplay {

namespace {
bool executable(const std::filesystem::path& p) {
    std::error_code ec;
    return std::filesystem::is_regular_file(p, ec) && ::access(p.c_str(), X_OK) == 0;
}
}  // namespace

std::optional<std::filesystem::path> AirPlayTool::binaryURL() {
    if (const char* chosen = std::getenv("VELLATONE_CLIAIRPLAY"); chosen && executable(chosen))
        return std::filesystem::path(chosen);
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return std::nullopt;
    const auto beside = self.parent_path() / programName;
    if (executable(beside)) return beside;
    return std::nullopt;
}

}  // namespace vt::airplay
