// Opening at login on a Linux desktop: an XDG autostart entry,
// $XDG_CONFIG_HOME/autostart/vellatone.desktop, whose command carries --login
// so that the program knows the session opened it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vt::model {

// $XDG_CONFIG_HOME/autostart, else ~/.config/autostart.
std::filesystem::path autostartDir();
std::filesystem::path autostartFile(const std::filesystem::path& dir);
// The whole desktop entry for `program`.
std::string autostartEntry(const std::filesystem::path& program);
// Nothing when it worked, else a sentence for the user.
std::optional<std::string> writeAutostart(const std::filesystem::path& dir,
                                          const std::filesystem::path& program);
std::optional<std::string> removeAutostart(const std::filesystem::path& dir);

}  // namespace vt::model
