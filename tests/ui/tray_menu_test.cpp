// The tray menu's entries from plain values: the switch first, each output
// with its state, then "Show window" and "Quit".
#include "ui/tray/tray_menu.h"

#include <gtest/gtest.h>

namespace vt::ui {
namespace {

using Kind = TrayEntry::Kind;

TEST(TrayMenu, ListsTheSwitchEachOutputWithItsStateThenShowAndQuit) {
    std::vector<TrayRow> rows = {{"Living", true, false, false, false},
                                 {"Kitchen", false, false, false, false},
                                 {"Den", true, true, false, false},
                                 {"Garage", false, false, true, false}};
    const std::vector<TrayEntry> menu = trayMenu(true, rows);
    ASSERT_EQ(menu.size(), 9u);
    EXPECT_EQ(menu[0].kind, Kind::toggle);
    EXPECT_TRUE(menu[0].checked);
    EXPECT_TRUE(menu[0].enabled);
    EXPECT_EQ(menu[1].kind, Kind::separator);
    EXPECT_EQ(menu[2].text, "Living \u2014 Playing");
    EXPECT_EQ(menu[3].text, "Kitchen \u2014 Connecting");
    EXPECT_EQ(menu[4].text, "Den \u2014 Muted");
    EXPECT_EQ(menu[5].text, "Garage \u2014 Off");
    for (int i = 2; i < 6; ++i) EXPECT_FALSE(menu[size_t(i)].enabled) << i;
    EXPECT_EQ(menu[6].kind, Kind::separator);
    EXPECT_EQ(menu[7].kind, Kind::showWindow);
    EXPECT_EQ(menu[7].text, "Show window");
    EXPECT_EQ(menu[8].kind, Kind::quit);
    EXPECT_EQ(menu[8].text, "Quit");
}

TEST(TrayMenu, StoppedWithoutOutputsOffersNothingToStart) {
    const std::vector<TrayEntry> menu = trayMenu(false, {});
    EXPECT_FALSE(menu[0].checked);
    EXPECT_FALSE(menu[0].enabled);
    EXPECT_EQ(menu[2].text, "No outputs yet");
    // Stopped rows are ready, whatever their connection was.
    EXPECT_EQ(trayRowState({"Living", true, false, false, false}, false), "Ready");
    // A menu that shows the same thing compares equal, so it is not rebuilt.
    EXPECT_EQ(trayMenu(false, {}), menu);
}

TEST(TrayMenu, ToolTipCountsTheOutputs) {
    EXPECT_EQ(trayToolTip(false, 3), "Vellatone: stopped");
    EXPECT_EQ(trayToolTip(true, 1), "Vellatone: playing to 1 output");
    EXPECT_EQ(trayToolTip(true, 2), "Vellatone: playing to 2 outputs");
    // The track heads the menu as a line to read, and ends the tooltip.
    EXPECT_EQ(trayToolTip(false, 0, "Song \u00b7 Band"), "Vellatone: stopped\nSong \u00b7 Band");
    const auto menu = trayMenu(false, {}, "Rock & Roll");
    EXPECT_EQ(menu[0], (TrayEntry{TrayEntry::Kind::track, "Rock && Roll", false, false}));
    EXPECT_EQ(menu[1].kind, TrayEntry::Kind::separator);
}

TEST(TrayMenu, AGuestsNameIsShownLetterForLetter) {
    // A menu reads "&" as a shortcut mark and a tab as the start of a shortcut.
    const auto menu = trayMenu(true, {{"Tom & Jerry\t<b>x</b>", true, false, false, true}});
    EXPECT_EQ(menu[2].text, "Tom && Jerry <b>x</b> \u2014 Playing");
}

}  // namespace
}  // namespace vt::ui
