// What the tray icon's menu lists, worked out from plain values so that it
// can be checked without a tray: the switch, one line per output with its
// state, then "Show window" and "Quit"; above them all, the track that
// plays, when there is one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vt::ui {

struct TrayRow {
    std::string name;
    bool connected = false;
    bool muted = false;
    bool disabled = false;
    bool guest = false;
};

struct TrayEntry {
    enum class Kind { track, toggle, output, separator, showWindow, quit };
    Kind kind = Kind::separator;
    std::string text;
    bool checked = false;
    bool enabled = true;
    bool operator==(const TrayEntry&) const = default;
};

// A name as a menu shows it letter for letter: a menu takes "&" for the mark
// of a keyboard shortcut and a tab for the start of the shortcut's text.
std::string trayMenuText(std::string_view name);
// A row's state in a word or two.
std::string trayRowState(const TrayRow& row, bool running);
// `track` is the title (and artist) of what plays, or empty.
std::vector<TrayEntry> trayMenu(bool running, const std::vector<TrayRow>& rows,
                                const std::string& track = {});
// The icon's tooltip.
std::string trayToolTip(bool running, int outputs, const std::string& track = {});

}  // namespace vt::ui
