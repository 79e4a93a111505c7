// What the tray icon's menu lists, worked out from plain values so that it
// can be checked without a tray: the switch, one line per output with its
// state, then "Show window" and "Quit".
#pragma once

#include <string>
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
    enum class Kind { toggle, output, separator, showWindow, quit };
    Kind kind = Kind::separator;
    std::string text;
    bool checked = false;
    bool enabled = true;
    bool operator==(const TrayEntry&) const = default;
};

// A row's state in a word or two.
std::string trayRowState(const TrayRow& row, bool running);
std::vector<TrayEntry> trayMenu(bool running, const std::vector<TrayRow>& rows);
// The icon's tooltip.
std::string trayToolTip(bool running, int outputs);

}  // namespace vt::ui
