// Where the program keeps its files, by the XDG base directory rules.
#pragma once

#include <filesystem>

namespace vt::settings {

// The settings folder: $VELLATONE_CONFIG_DIR, else $XDG_CONFIG_HOME/vellatone,
// else ~/.config/vellatone.
std::filesystem::path configDir();
// The folder for the file that stands in for the secret store:
// $VELLATONE_DATA_DIR, else $XDG_DATA_HOME/vellatone, else
// ~/.local/share/vellatone.
std::filesystem::path dataDir();
// configDir()/settings.json
std::filesystem::path settingsFile();
// The drift log: ~/Desktop/vellatone-drift.csv when that folder exists, else
// $XDG_STATE_HOME/vellatone/vellatone-drift.csv (~/.local/state by default).
std::filesystem::path driftLogFile();

}  // namespace vt::settings
