#include "settings/config_paths.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace vt::settings {

namespace fs = std::filesystem;

namespace {

// Empty and relative values are ignored, as the XDG rules ask.
std::optional<fs::path> absoluteEnv(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    fs::path p(v);
    if (!p.is_absolute()) return std::nullopt;
    return p;
}

fs::path home() {
    if (auto h = absoluteEnv("HOME")) return *h;
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return fs::path("/tmp");
}

}  // namespace

fs::path configDir() {
    if (const char* v = std::getenv("VELLATONE_CONFIG_DIR"); v && *v) return fs::path(v);
    if (auto x = absoluteEnv("XDG_CONFIG_HOME")) return *x / "vellatone";
    return home() / ".config" / "vellatone";
}

fs::path dataDir() {
    if (const char* v = std::getenv("VELLATONE_DATA_DIR"); v && *v) return fs::path(v);
    if (auto x = absoluteEnv("XDG_DATA_HOME")) return *x / "vellatone";
    return home() / ".local" / "share" / "vellatone";
}

fs::path settingsFile() {
    return configDir() / "settings.json";
}

fs::path driftLogFile() {
    std::error_code ec;
    fs::path desktop = home() / "Desktop";
    if (fs::is_directory(desktop, ec)) return desktop / "vellatone-drift.csv";
    fs::path state =
        absoluteEnv("XDG_STATE_HOME").value_or(home() / ".local" / "state") / "vellatone";
    return state / "vellatone-drift.csv";
}

}  // namespace vt::settings
