#include "app/control_path.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace vt::app {

std::filesystem::path controlSocketPath() {
    if (const char* p = std::getenv("VELLATONE_CONTROL_SOCKET"); p && *p) return p;
    if (const char* r = std::getenv("XDG_RUNTIME_DIR"); r && *r)
        return std::filesystem::path(r) / "vellatone" / "control.sock";
    return std::filesystem::path("/tmp") / ("vellatone-" + std::to_string(::getuid())) /
           "control.sock";
}

}  // namespace vt::app
