// The image of last resort for a track without artwork: the playing
// application's icon, found through its desktop entry in the XDG data
// folders and the hicolor theme, as a PNG.
#pragma once

#include <optional>
#include <string>

namespace vt::nowplaying {

std::optional<std::string> appIconFile(const std::string& desktopEntry);

}  // namespace vt::nowplaying
