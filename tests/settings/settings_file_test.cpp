// The file under the settings: damaged files kept aside, atomic writes, and
// where the files live.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstdlib>

#include "settings/atomic_file.h"
#include "settings/config_paths.h"
#include "settings/settings.h"
#include "support/test_env.h"

namespace vt::settings {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using vt::test::readFile;
using vt::test::ScopedEnv;
using vt::test::TempDir;
using vt::test::writeFile;

std::vector<fs::path> entries(const fs::path& dir) {
    std::vector<fs::path> out;
    for (const auto& e : fs::directory_iterator(dir)) out.push_back(e.path());
    return out;
}

TEST(SettingsFile, AFileThatDoesNotParseIsKeptAsideAndDefaultsApply) {
    for (std::string damaged : {"{\"showInMenuBar\": false,", "[1, 2, 3]", ""}) {
        TempDir dir;
        writeFile(dir / "settings.json", damaged);
        Settings s(dir / "settings.json");
        EXPECT_TRUE(s.showInMenuBar()) << damaged;
        ASSERT_TRUE(s.setAsideAs()) << damaged;
        EXPECT_EQ(readFile(*s.setAsideAs()), damaged);
        EXPECT_NE(s.setAsideAs()->filename().string().find("settings.json.broken-"),
                  std::string::npos);
        EXPECT_FALSE(fs::exists(dir / "settings.json"));

        // The next write starts a good file; the damaged one stays.
        s.setHasSent(true);
        EXPECT_TRUE(Settings(dir / "settings.json").hasSent());
        EXPECT_TRUE(fs::exists(*s.setAsideAs()));
    }
}

// Valid JSON nested 100,000 deep once loaded, then brought the program down
// on its first save (the writer recursed through every level), on every launch.
TEST(SettingsFile, AFileNestedTooDeepOrTooLargeIsKeptAsideAndSavingWorks) {
    const std::string deep =
        "{\"appMixer\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}";
    const std::string huge = "{\"lastOutputUID\":\"" + std::string(kMaxJsonFileBytes, 'x') + "\"}";
    for (const std::string& damaged : {deep, huge}) {
        TempDir dir;
        writeFile(dir / "settings.json", damaged);
        Settings s(dir / "settings.json");
        ASSERT_TRUE(s.setAsideAs());
        EXPECT_EQ(fs::file_size(*s.setAsideAs()), damaged.size());
        EXPECT_TRUE(s.appMixer().is_null());
        s.setHasSent(true);
        Settings again(dir / "settings.json");
        EXPECT_FALSE(again.setAsideAs());
        EXPECT_TRUE(again.hasSent());
    }
    // Within the bounds a file still loads, strings with brackets included.
    TempDir dir;
    writeFile(dir / "settings.json", "{\"a\":" + std::string(kMaxJsonDepth - 1, '[') +
                                         std::string(kMaxJsonDepth - 1, ']') +
                                         ",\"b\":\"[[[[{{{{\\\"\"}");
    Settings s(dir / "settings.json");
    EXPECT_FALSE(s.setAsideAs());
    EXPECT_EQ(s.value("b"), "[[[[{{{{\"");
}

TEST(SettingsFile, TwoDamagedFilesInOneSecondBothSurvive) {
    TempDir dir;
    writeFile(dir / "settings.json", "first{");
    Settings a(dir / "settings.json");
    writeFile(dir / "settings.json", "second{");
    Settings b(dir / "settings.json");
    ASSERT_TRUE(a.setAsideAs() && b.setAsideAs());
    EXPECT_NE(*a.setAsideAs(), *b.setAsideAs());
    EXPECT_EQ(readFile(*a.setAsideAs()), "first{");
    EXPECT_EQ(readFile(*b.setAsideAs()), "second{");
}

TEST(SettingsFile, AFailedWriteLeavesTheOldFileIntact) {
    TempDir dir;
    Settings s(dir / "settings.json");
    s.setLastOutputUID("speakers");
    const std::string before = readFile(s.file());

    // A file size limit fails the write half way even for root, who may
    // write into any folder.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small = old;
    small.rlim_cur = before.size() + 16;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    s.setRoom(json{{"name", std::string(4096, 'x')}});
    setrlimit(RLIMIT_FSIZE, &old);

    EXPECT_NE(s.lastError(), "");
    EXPECT_EQ(readFile(s.file()), before);
    EXPECT_EQ(entries(dir.path()).size(), 1u) << "the temporary file is removed";
    // The value still holds for this run, and the next good write stores it.
    EXPECT_EQ(s.room()["name"].get<std::string>().size(), 4096u);
    s.setHasSent(true);
    EXPECT_EQ(s.lastError(), "");
    EXPECT_EQ(Settings(s.file()).room(), s.room());
}

TEST(SettingsFile, AWriteIntoAFolderThatCannotExistFails) {
    TempDir dir;
    writeFile(dir / "blocker", "a file where a folder should be");
    std::string error;
    EXPECT_FALSE(writeFileAtomically(dir / "blocker" / "settings.json", "{}", &error));
    EXPECT_NE(error, "");
    Settings s(dir / "blocker" / "settings.json");
    s.setHasSent(true);
    EXPECT_TRUE(s.hasSent());
    EXPECT_NE(s.lastError(), "");
}

TEST(SettingsFile, WritesMakeTheFolderPrivate) {
    TempDir dir;
    ASSERT_TRUE(writeFileAtomically(dir / "a" / "b" / "f.json", "{}"));
    EXPECT_EQ(fs::status(dir / "a" / "b").permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_EQ(fs::status(dir / "a" / "b" / "f.json").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST(ConfigPaths, FollowTheOverridesAndTheXdgRules) {
    TempDir dir;
    ScopedEnv home("HOME", dir.path().string());
    {
        ScopedEnv cfg("VELLATONE_CONFIG_DIR", "/srv/vt");
        EXPECT_EQ(settingsFile(), fs::path("/srv/vt/settings.json"));
    }
    ScopedEnv cfg("VELLATONE_CONFIG_DIR", std::nullopt);
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", "/etc/xdg-user");
        EXPECT_EQ(configDir(), fs::path("/etc/xdg-user/vellatone"));
    }
    {
        ScopedEnv xdg("XDG_CONFIG_HOME", "relative/path");
        EXPECT_EQ(configDir(), dir.path() / ".config" / "vellatone");
    }

    {
        ScopedEnv data("VELLATONE_DATA_DIR", std::nullopt);
        ScopedEnv xdg("XDG_DATA_HOME", std::nullopt);
        EXPECT_EQ(dataDir(), dir.path() / ".local/share/vellatone");
        ScopedEnv over("VELLATONE_DATA_DIR", "/srv/secrets");
        EXPECT_EQ(dataDir(), fs::path("/srv/secrets"));
    }

    ScopedEnv state("XDG_STATE_HOME", std::nullopt);
    EXPECT_EQ(driftLogFile(), dir.path() / ".local/state/vellatone/vellatone-drift.csv");
    fs::create_directory(dir / "Desktop");
    EXPECT_EQ(driftLogFile(), dir.path() / "Desktop" / "vellatone-drift.csv");
}

}  // namespace
}  // namespace vt::settings
