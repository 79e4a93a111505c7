// Where the AirPlay tool is: $VELLATONE_CLIAIRPLAY when it names an
// executable file, else "vellatone-airplay" beside the running program.
#pragma once

#include <filesystem>
#include <optional>

namespace vt::airplay {

struct AirPlayTool {
    static constexpr const char* programName = "vellatone-airplay";
    static std::optional<std::filesystem::path> binaryURL();
    static bool isAvailable() { return binaryURL().has_value(); }
};

}  // namespace vt::airplay
