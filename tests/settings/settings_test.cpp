#include "settings/settings.h"

#include <gtest/gtest.h>

#include "settings/bounded_text.h"
#include "support/test_env.h"

namespace vt::settings {
namespace {

using nlohmann::json;
using vt::test::TempDir;
using vt::test::writeFile;

TEST(Settings, FreshInstallGivesEveryDefaultAndWritesNothing) {
    TempDir dir;
    Settings s(dir / "settings.json");
    EXPECT_TRUE(s.showInMenuBar());
    EXPECT_TRUE(s.syncSlowSpeakers());
    EXPECT_FALSE(s.openAtLogin());
    EXPECT_FALSE(s.visualiserHidden());
    EXPECT_FALSE(s.hasSent());
    EXPECT_FALSE(s.debugLog());
    EXPECT_EQ(s.appearance(), Appearance::automatic);
    EXPECT_EQ(s.playbackMode(), delay::PlaybackMode::together);
    EXPECT_EQ(s.visualiserStyle(), VisualiserStyle::sheets);
    EXPECT_EQ(s.masterVolume(), 1.0);
    EXPECT_EQ(s.masterEQ(), equaliser::EQSettings::flat());
    EXPECT_EQ(s.driverName(), "Vellatone");
    EXPECT_EQ(s.outputCount(), 0);
    EXPECT_EQ(s.loadOutput(0), OutputSettings{});
    EXPECT_TRUE(s.memory().empty());
    EXPECT_FALSE(s.pendingRestoreUID());
    EXPECT_FALSE(s.lastOutputUID());
    EXPECT_FALSE(s.mainWindowTab());
    EXPECT_TRUE(s.room().is_null());
    EXPECT_TRUE(s.appMixer().is_null());
    EXPECT_FALSE(std::filesystem::exists(s.file()));
    EXPECT_EQ(s.lastError(), "");
}

TEST(Settings, EveryValueSurvivesARestart) {
    TempDir dir;
    OutputSettings row;
    row.deviceUID = "alsa_output.usb";
    row.deviceName = "USB Speakers";
    row.delayMs = 120;
    row.volume = 0.4;
    row.eq.enabled = true;
    row.eq.preampDb = -3;
    RememberedOutput memo;
    memo.delayMs = -250;
    memo.latencySource = LatencySource::tapped;
    equaliser::EQSettings master = equaliser::EQSettings::flat();
    master.enabled = true;
    master.preampDb = 2;
    {
        Settings s(dir / "settings.json");
        s.setOutputCount(2);
        s.saveOutput(1, row);
        s.rememberOutput(memo, "uid:x");
        s.setCustomName("Kitchen", "uid:x");
        s.dismissMeasureHint("air:1");
        s.setPendingRestoreUID("speakers");
        s.setLastOutputUID("speakers");
        s.setAppearance(Appearance::dark);
        s.setShowInMenuBar(false);
        s.setOpenAtLogin(true);
        s.setPlaybackMode(delay::PlaybackMode::instant);
        s.setSyncSlowSpeakers(false);
        s.setVisualiserStyle(VisualiserStyle::dolphins);
        s.setVisualiserHidden(true);
        s.setMasterVolume(0);
        s.setMasterEQ(master);
        s.setMainWindowTab("Apps");
        s.setHasSent(true);
        s.setDriverName("My Loopback");
        s.setDebugLog(true);
        s.setRoom(json{{"width", 5}});
        s.setAppMixer(json{{"apps", json::array()}});
        s.setValue("airplayDeviceID", "AA:BB");
        EXPECT_EQ(s.lastError(), "");
    }
    Settings s(dir / "settings.json");
    EXPECT_EQ(s.outputCount(), 2);
    EXPECT_EQ(s.loadOutput(1), row);
    EXPECT_EQ(s.loadOutput(0), OutputSettings{});
    EXPECT_EQ(s.rememberedOutput("uid:x"), memo);
    EXPECT_EQ(s.customName("uid:x"), "Kitchen");
    EXPECT_TRUE(s.measureHintDismissed("air:1"));
    EXPECT_FALSE(s.measureHintDismissed("air:2"));
    EXPECT_EQ(s.pendingRestoreUID(), "speakers");
    EXPECT_EQ(s.lastOutputUID(), "speakers");
    EXPECT_EQ(s.appearance(), Appearance::dark);
    EXPECT_FALSE(s.showInMenuBar());
    EXPECT_TRUE(s.openAtLogin());
    EXPECT_EQ(s.playbackMode(), delay::PlaybackMode::instant);
    EXPECT_FALSE(s.syncSlowSpeakers());
    EXPECT_EQ(s.visualiserStyle(), VisualiserStyle::dolphins);
    EXPECT_TRUE(s.visualiserHidden());
    EXPECT_EQ(s.masterVolume(), 0.0);
    EXPECT_EQ(s.masterEQ(), master);
    EXPECT_EQ(s.mainWindowTab(), "Apps");
    EXPECT_TRUE(s.hasSent());
    EXPECT_EQ(s.driverName(), "My Loopback");
    EXPECT_TRUE(s.debugLog());
    EXPECT_EQ(s.room(), (json{{"width", 5}}));
    EXPECT_EQ(s.appMixer(), (json{{"apps", json::array()}}));
    EXPECT_EQ(s.value("airplayDeviceID"), "AA:BB");

    // The records are nested JSON, not strings of JSON.
    json onDisk = json::parse(vt::test::readFile(s.file()));
    EXPECT_TRUE(onDisk["output1"].is_object());
    EXPECT_TRUE(onDisk["outputMemory"]["uid:x"].is_object());
    EXPECT_EQ(onDisk["playbackMode"], "Instant");
    EXPECT_EQ(onDisk["visualiserStyle"], "Dolphins");
}

TEST(Settings, ClearingOptionalKeysRemovesThem) {
    TempDir dir;
    Settings s(dir / "settings.json");
    s.setPendingRestoreUID("speakers");
    s.setPendingRestoreUID(std::nullopt);
    s.setMainWindowTab("Apps");
    s.setMainWindowTab(std::nullopt);
    s.setValue("airplayNTP", true);
    s.setValue("airplayNTP", json());
    json onDisk = json::parse(vt::test::readFile(s.file()));
    EXPECT_FALSE(onDisk.contains("pendingRestoreUID"));
    EXPECT_FALSE(onDisk.contains("mainWindowTab"));
    EXPECT_FALSE(onDisk.contains("airplayNTP"));
}

TEST(Settings, StoredValuesAreReadTolerantly) {
    TempDir dir;
    writeFile(dir / "settings.json", R"({
        "playbackMode": "Sometimes", "visualiserStyle": "Lava", "appearance": 3,
        "showInMenuBar": "yes", "syncSlowSpeakers": 0, "masterVolume": 7,
        "outputCount": 1e9, "driverName": "", "masterEQ": "flat",
        "pendingRestoreUID": 12, "measureHintDismissed": [1, "uid:a", null]
    })");
    Settings s(dir / "settings.json");
    EXPECT_EQ(s.playbackMode(), delay::PlaybackMode::together);
    EXPECT_EQ(s.visualiserStyle(), VisualiserStyle::sheets);
    EXPECT_EQ(s.appearance(), Appearance::automatic);
    EXPECT_TRUE(s.showInMenuBar());
    EXPECT_TRUE(s.syncSlowSpeakers());
    EXPECT_EQ(s.masterVolume(), 1.0);
    EXPECT_EQ(s.outputCount(), Settings::maxOutputCount);
    EXPECT_EQ(s.driverName(), "Vellatone");
    EXPECT_EQ(s.masterEQ(), equaliser::EQSettings::flat());
    EXPECT_FALSE(s.pendingRestoreUID());
    EXPECT_TRUE(s.measureHintDismissed("uid:a"));

    writeFile(dir / "other.json", R"({"outputCount": -4, "driverName": "", "masterVolume": -1})");
    Settings t(dir / "other.json");
    EXPECT_EQ(t.outputCount(), 0);
    EXPECT_EQ(t.driverName(), "Vellatone");
    EXPECT_EQ(t.masterVolume(), 0.0);
    t.setDriverName("");
    EXPECT_EQ(json::parse(vt::test::readFile(t.file()))["driverName"], "Vellatone");
}

TEST(Settings, OutputMemoryKeepsGoodEntriesAndRecoversFromDamage) {
    TempDir dir;
    writeFile(dir / "settings.json",
              R"({"outputMemory": {"uid:a": {"delayMs": 30}, "uid:b": "junk"}})");
    Settings s(dir / "settings.json");
    auto mem = s.memory();
    ASSERT_EQ(mem.size(), 1u);
    EXPECT_EQ(mem["uid:a"].delayMs, 30);
    EXPECT_FALSE(s.rememberedOutput("uid:b"));

    s.forgetOutput("uid:a");
    EXPECT_FALSE(s.rememberedOutput("uid:a"));
    s.forgetOutput("uid:nobody");  // nothing to forget is fine

    writeFile(dir / "broken.json", R"({"outputMemory": "not a map"})");
    Settings t(dir / "broken.json");
    EXPECT_TRUE(t.memory().empty());
    RememberedOutput r;
    r.volume = 0.5;
    t.rememberOutput(r, "cast:tv");
    EXPECT_EQ(t.rememberedOutput("cast:tv"), r);
}

TEST(Settings, CustomNamesAndMeasureHints) {
    TempDir dir;
    Settings s(dir / "settings.json");
    s.setCustomName("Den", "uid:a");
    s.setCustomName("Hall", "uid:b");
    s.setCustomName("", "uid:a");
    s.setCustomName(std::nullopt, "uid:b");
    s.setCustomName(std::nullopt, "uid:never");
    EXPECT_FALSE(s.customName("uid:a"));
    EXPECT_FALSE(s.customName("uid:b"));

    s.dismissMeasureHint("uid:a");
    s.dismissMeasureHint("uid:a");
    EXPECT_EQ(json::parse(vt::test::readFile(s.file()))["measureHintDismissed"],
              json::array({"uid:a"}));
}

// A rename of 60,000 characters was stored as it came, and sent in every
// state message after.
TEST(Settings, NamesAreKeptToALengthAStripCanShow) {
    TempDir dir;
    const std::string endless(60'000, 'n');
    const std::string accented = std::string(kMaxNameCharacters - 1, 'a') + "\xC3\xA9\xC3\xA9";
    writeFile(dir / "settings.json",
              json{{"outputNames", {{"uid:a", endless}}},
                   {"output0", {{"deviceUID", "a"}, {"deviceName", endless}}}}
                  .dump());
    Settings s(dir / "settings.json");
    EXPECT_EQ(s.customName("uid:a"), std::string(kMaxNameCharacters, 'n'));
    EXPECT_EQ(s.loadOutput(0).deviceName, std::string(kMaxNameCharacters, 'n'));
    s.setCustomName(accented, "uid:b");
    // Cut by characters, never inside one.
    EXPECT_EQ(s.customName("uid:b"), std::string(kMaxNameCharacters - 1, 'a') + "\xC3\xA9");
    OutputSettings described;
    described.deviceName = endless;  // as a sound server may describe a sink
    s.saveOutput(1, described);
    EXPECT_EQ(json::parse(vt::test::readFile(s.file()))["output1"]["deviceName"],
              std::string(kMaxNameCharacters, 'n'));
    EXPECT_EQ(json::parse(vt::test::readFile(s.file()))["outputNames"]["uid:b"],
              *s.customName("uid:b"));
}

}  // namespace
}  // namespace vt::settings
