// The window's preferences in the model: read at launch with their defaults,
// kept between runs, and opening at login as an autostart entry that is
// written, removed, and reported when it cannot be.
#include <sys/stat.h>

#include "model/autostart.h"
#include "model_fixture.h"
#include "support/test_env.h"

namespace vt::model::test {
namespace {

class PreferencesTest : public ModelTest {
  protected:
    std::filesystem::path autostart() const { return dir / "autostart"; }
};

TEST_F(PreferencesTest, ChoicesStartAtTheirDefaultsAndAreKeptForTheNextLaunch) {
    AppModel& m = launch();
    EXPECT_EQ(m.appearance(), settings::Appearance::automatic);
    EXPECT_TRUE(m.showInMenuBar());
    EXPECT_FALSE(m.openAtLogin());
    EXPECT_FALSE(m.loginItemError());
    EXPECT_EQ(m.visualiserStyle(), settings::VisualiserStyle::sheets);
    EXPECT_FALSE(m.visualiserHidden());

    m.setAutostartPlace(autostart(), "/usr/bin/vellatone");
    m.setAppearance(settings::Appearance::dark);
    m.setShowInMenuBar(false);
    m.setOpenAtLogin(true);
    m.setVisualiserStyle(settings::VisualiserStyle::scope);
    m.setVisualiserHidden(true);

    AppModel& again = launch();
    EXPECT_EQ(again.appearance(), settings::Appearance::dark);
    EXPECT_FALSE(again.showInMenuBar());
    EXPECT_TRUE(again.openAtLogin());
    EXPECT_EQ(again.visualiserStyle(), settings::VisualiserStyle::scope);
    EXPECT_TRUE(again.visualiserHidden());
}

TEST_F(PreferencesTest, OpeningAtLoginWritesAnEntryThatMarksTheLaunchAndRemovesItAgain) {
    AppModel& m = launch();
    m.setAutostartPlace(autostart(), "/opt/vellatone/bin/vellatone");
    m.setOpenAtLogin(true);
    const std::string entry = vt::test::readFile(autostartFile(autostart()));
    EXPECT_NE(entry.find("[Desktop Entry]\n"), std::string::npos);
    EXPECT_NE(entry.find("\nType=Application\n"), std::string::npos);
    EXPECT_NE(entry.find("\nExec=/opt/vellatone/bin/vellatone --login\n"), std::string::npos);

    m.setOpenAtLogin(false);
    EXPECT_FALSE(std::filesystem::exists(autostartFile(autostart())));
    EXPECT_FALSE(m.openAtLogin());
    EXPECT_FALSE(m.loginItemError());
    // Turning off what is already off is no error.
    m.setOpenAtLogin(false);
    EXPECT_FALSE(m.loginItemError());
}

TEST_F(PreferencesTest, AnUnwritableFolderLeavesThePreferenceOffWithASentence) {
    AppModel& m = launch();
    // A plain file where the folder should be cannot be written into, even
    // by root.
    std::ofstream(dir / "blocked") << "x";
    m.setAutostartPlace(dir / "blocked" / "autostart", "/usr/bin/vellatone");
    m.setOpenAtLogin(true);
    EXPECT_FALSE(m.openAtLogin());
    ASSERT_TRUE(m.loginItemError());
    EXPECT_EQ(m.loginItemError()->rfind("Vellatone couldn’t be set to open at login", 0), 0u);

    m.setAutostartPlace(autostart(), "/usr/bin/vellatone");
    m.setOpenAtLogin(true);
    EXPECT_TRUE(m.openAtLogin());
    EXPECT_FALSE(m.loginItemError());
}

TEST(AutostartEntry, QuotesAPathThatTheDesktopWouldOtherwiseSplitOrExpand) {
    EXPECT_NE(autostartEntry("/usr/bin/vellatone").find("Exec=/usr/bin/vellatone --login\n"),
              std::string::npos);
    // Space: quoted. $ and ": escaped for the command line, and that
    // backslash escaped again for the key's string value. %: doubled.
    const std::string entry = autostartEntry("/home/a b/$x\"y/100%/vellatone");
    EXPECT_NE(entry.find("Exec=\"/home/a b/\\\\$x\\\\\"y/100%%/vellatone\" --login\n"),
              std::string::npos)
        << entry;
    // A newline in a path cannot break the entry into a second key.
    const std::string broken = autostartEntry("/tmp/x\nExec=evil");
    EXPECT_EQ(broken.find("\nExec=evil"), std::string::npos);
}

TEST(AutostartEntry, FollowsXdgConfigHome) {
    vt::test::ScopedEnv config("XDG_CONFIG_HOME", "/somewhere/config");
    EXPECT_EQ(autostartDir(), std::filesystem::path("/somewhere/config/autostart"));
    // Relative values are to be ignored.
    vt::test::ScopedEnv relative("XDG_CONFIG_HOME", "relative");
    EXPECT_NE(autostartDir(), std::filesystem::path("relative/autostart"));
}

}  // namespace
}  // namespace vt::model::test
