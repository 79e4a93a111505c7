#include "model/autostart.h"

#include <cctype>
#include <cstdlib>
#include <system_error>

#include "settings/atomic_file.h"

namespace vt::model {

namespace {

// The Exec key's quoting: a path with anything but plain characters goes in
// double quotes with ", `, $ and \ escaped and % doubled, and the key's own string escaping
// doubles every backslash once more.
std::string execArgument(const std::string& path) {
    bool plain = !path.empty();
    for (char c : path)
        plain = plain && (std::isalnum(static_cast<unsigned char>(c)) || c == '/' || c == '.' ||
                          c == '_' || c == '-' || c == '+');
    if (plain) return path;
    std::string quoted = "\"";
    for (char c : path) {
        if (c == '\n' || c == '\r') continue;
        if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
        // A lone % would start a field code.
        if (c == '%') quoted += '%';
        quoted += c;
    }
    quoted += '"';
    std::string value;
    for (char c : quoted) value += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return value;
}

}  // namespace

std::filesystem::path autostartDir() {
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/')
        return std::filesystem::path(config) / "autostart";
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home && *home ? home : "/") / ".config" / "autostart";
}

std::filesystem::path autostartFile(const std::filesystem::path& dir) {
    return dir / "vellatone.desktop";
}

std::string autostartEntry(const std::filesystem::path& program) {
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Vellatone\n"
           "Comment=Plays the sound of this computer on several outputs at once\n"
           "Exec=" +
           execArgument(program.string()) +
           " --login\n"
           "Icon=vellatone\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

std::optional<std::string> writeAutostart(const std::filesystem::path& dir,
                                          const std::filesystem::path& program) {
    std::string error;
    if (settings::writeFileAtomically(autostartFile(dir), autostartEntry(program), &error))
        return std::nullopt;
    return "Vellatone couldn’t be set to open at login: " + error;
}

std::optional<std::string> removeAutostart(const std::filesystem::path& dir) {
    std::error_code ec;
    std::filesystem::remove(autostartFile(dir), ec);
    if (!ec) return std::nullopt;
    return "Vellatone couldn’t stop opening at login: " + ec.message();
}

}  // namespace vt::model
