#include "app/guest_root.h"

#include <cstdlib>
#include <system_error>

namespace vt::app {

namespace fs = std::filesystem;

fs::path guestPageRoot() {
    if (const char* v = std::getenv("VELLATONE_GUEST_ROOT"); v && *v) return fs::path(v);
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const fs::path bin = exe.parent_path();
        // build/bin/vellatone in a checkout, or bin/vellatone of an install.
        for (const fs::path& candidate :
             {bin / ".." / ".." / "web" / "guest", bin / ".." / "share" / "vellatone" / "guest"}) {
            if (fs::is_regular_file(candidate / "index.html", ec))
                return fs::weakly_canonical(candidate, ec);
        }
    }
    return fs::path(VELLATONE_SOURCE_DIR) / "web" / "guest";
}

}  // namespace vt::app
