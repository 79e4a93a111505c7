#include "nowplaying/app_icon.h"

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <vector>

#include "nowplaying/artwork_stager.h"

namespace vt::nowplaying {

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxDesktopFileBytes = 64 * 1024;
constexpr size_t kMaxNameBytes = 255;

std::vector<fs::path> dataDirs() {
    std::vector<fs::path> dirs;
    if (const char* home = std::getenv("XDG_DATA_HOME"); home && *home == '/') {
        dirs.emplace_back(home);
    } else if (const char* h = std::getenv("HOME"); h && *h == '/') {
        dirs.push_back(fs::path(h) / ".local/share");
    }
    const char* list = std::getenv("XDG_DATA_DIRS");
    std::stringstream in(list && *list ? list : "/usr/local/share:/usr/share");
    std::string dir;
    while (std::getline(in, dir, ':'))
        if (!dir.empty() && dir[0] == '/') dirs.emplace_back(dir);
    return dirs;
}

// A name that stays one file name: no separators, no dots leading out.
bool plainName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxNameBytes && name.find('/') == std::string::npos &&
           name[0] != '.';
}

std::optional<std::string> iconKey(const std::string& desktopFile) {
    auto text = readSmallFile(desktopFile, kMaxDesktopFileBytes);
    if (!text) return std::nullopt;
    std::stringstream in(*text);
    std::string line;
    bool mainGroup = false;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '[') mainGroup = line == "[Desktop Entry]";
        if (mainGroup && line.rfind("Icon=", 0) == 0) return line.substr(5);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> appIconFile(const std::string& desktopEntry) {
    if (!plainName(desktopEntry)) return std::nullopt;
    const std::vector<fs::path> dirs = dataDirs();
    std::optional<std::string> icon;
    for (const fs::path& dir : dirs) {
        std::error_code ec;
        const fs::path file = dir / "applications" / (desktopEntry + ".desktop");
        if (fs::is_regular_file(file, ec) && (icon = iconKey(file.string()))) break;
    }
    if (!icon) return std::nullopt;
    std::error_code ec;
    if (!icon->empty() && (*icon)[0] == '/')
        return icon->ends_with(".png") && fs::is_regular_file(*icon, ec) ? icon : std::nullopt;
    if (!plainName(*icon)) return std::nullopt;
    static constexpr const char* sizes[] = {"512x512", "256x256", "128x128",
                                            "96x96",   "64x64",   "48x48"};
    for (const fs::path& dir : dirs) {
        for (const char* size : sizes) {
            const fs::path file = dir / "icons/hicolor" / size / "apps" / (*icon + ".png");
            if (fs::is_regular_file(file, ec)) return file.string();
        }
        const fs::path pixmap = dir / "pixmaps" / (*icon + ".png");
        if (fs::is_regular_file(pixmap, ec)) return pixmap.string();
    }
    return std::nullopt;
}

}  // namespace vt::nowplaying
