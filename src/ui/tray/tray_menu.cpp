#include "ui/tray/tray_menu.h"

namespace vt::ui {

std::string trayRowState(const TrayRow& row, bool running) {
    if (row.disabled) return "Off";
    if (row.muted) return "Muted";
    if (!running) return "Ready";
    return row.connected ? "Playing" : "Connecting";
}

std::string trayMenuText(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    for (const char c : name) {
        if (c == '&')
            out += "&&";
        else if (c == '\t' || c == '\n' || c == '\r')
            out += ' ';
        else
            out += c;
    }
    return out;
}

std::vector<TrayEntry> trayMenu(bool running, const std::vector<TrayRow>& rows,
                                const std::string& track) {
    using Kind = TrayEntry::Kind;
    std::vector<TrayEntry> menu;
    if (!track.empty()) {
        menu.push_back({Kind::track, trayMenuText(track), false, false});
        menu.push_back({Kind::separator, "", false, true});
    }
    menu.push_back({Kind::toggle, running ? "Playing to your outputs" : "Start playing", running,
                    !rows.empty() || running});
    menu.push_back({Kind::separator, "", false, true});
    if (rows.empty()) menu.push_back({Kind::output, "No outputs yet", false, false});
    for (const TrayRow& row : rows)
        // Outputs are lines to read, not commands: they stay greyed so that a
        // click does nothing unexpected.
        menu.push_back({Kind::output,
                        trayMenuText(row.name) + " \u2014 " + trayRowState(row, running), false,
                        false});
    menu.push_back({Kind::separator, "", false, true});
    menu.push_back({Kind::showWindow, "Show window", false, true});
    menu.push_back({Kind::quit, "Quit", false, true});
    return menu;
}

std::string trayToolTip(bool running, int outputs, const std::string& track) {
    std::string tip = running ? "Vellatone: playing to " + std::to_string(outputs) +
                                    (outputs == 1 ? " output" : " outputs")
                              : "Vellatone: stopped";
    if (!track.empty()) tip += "\n" + track;
    return tip;
}

}  // namespace vt::ui
