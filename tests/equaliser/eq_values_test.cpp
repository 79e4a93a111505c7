// The equaliser as values: kinds and their words, JSON with its defaults and
// clamps, sizing, flatness, the response curve and the suggested preamp.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "core/eq_rt.h"
#include "equaliser/eq_band.h"
#include "equaliser/eq_kind.h"
#include "equaliser/eq_settings.h"
#include "equaliser/eq_target.h"

namespace vt::equaliser {
namespace {

using nlohmann::json;

TEST(EQKindTest, RawValuesIndicesAndWordsAreFixed) {
    const char* raws[] = {"off",     "peak",     "lowShelf", "highShelf",
                          "lowPass", "highPass", "notch",    "bandPass"};
    for (uint32_t i = 0; i < 8; ++i) {
        const EQKind k = *kindFromIndex(i);
        EXPECT_EQ(rawValue(k), raws[i]);
        EXPECT_EQ(kindFromRaw(raws[i]), k);
        EXPECT_EQ(index(k), i);
    }
    EXPECT_EQ(kindFromIndex(8), std::nullopt);
    EXPECT_EQ(kindFromRaw("Peak"), std::nullopt);
    // The real-time side takes the same indices.
    EXPECT_EQ(index(EQKind::highShelf), RE_EQ_HIGH_SHELF);
    EXPECT_EQ(index(EQKind::bandPass), RE_EQ_BAND_PASS);

    EXPECT_EQ(title(EQKind::lowShelf), "Low shelf");
    EXPECT_EQ(frequencyLabel(EQKind::lowShelf), "Corner");
    EXPECT_EQ(frequencyLabel(EQKind::notch), "Centre");
    EXPECT_EQ(detail(EQKind::highPass),
              "Keeps the top, drops the bottom \u2014 for a speaker with no woofer");
    EXPECT_EQ(detail(EQKind::notch), "Takes out one narrow frequency, for a hum or a whistle");
    EXPECT_EQ(title(EQKind::bandPass), "Band pass");
    int gainKinds = 0, qKinds = 0;
    for (EQKind k : allKinds) {
        gainKinds += usesGain(k);
        qKinds += usesQ(k);
    }
    EXPECT_EQ(gainKinds, 3);
    EXPECT_EQ(qKinds, 7);
    EXPECT_TRUE(usesGain(EQKind::highShelf));
    EXPECT_FALSE(usesGain(EQKind::lowPass));
    EXPECT_FALSE(usesQ(EQKind::off));
}

TEST(EQBandTest, IdentityOnlyForOffOrAFlatGainKind) {
    EXPECT_TRUE(EQBand{}.isIdentity());
    EXPECT_TRUE((EQBand{EQKind::off, 100, 12, 1}).isIdentity());
    EXPECT_TRUE((EQBand{EQKind::highShelf, 100, 0, 1}).isIdentity());
    EXPECT_FALSE((EQBand{EQKind::peak, 100, 0.1, 1}).isIdentity());
    EXPECT_FALSE((EQBand{EQKind::lowPass, 100, 0, 1}).isIdentity());
    EXPECT_FALSE((EQBand{EQKind::notch, 100, 0, 1}).isIdentity());
}

TEST(EQBandTest, JsonRoundTripsWithTheStoredKeys) {
    const EQBand b{EQKind::highShelf, 9000, -3.5, 0.9};
    const json j = b;
    EXPECT_EQ(j, json::parse(R"({"kind":"highShelf","frequency":9000,"gainDb":-3.5,"q":0.9})"));
    EXPECT_EQ(j.get<EQBand>(), b);
}

TEST(EQBandTest, ReadingTakesDefaultsClampsAndTreatsUnknownKindsAsOff) {
    EXPECT_EQ(json::object().get<EQBand>(), EQBand{});
    EXPECT_EQ(json("peak").get<EQBand>(), EQBand{});
    const EQBand d = EQBand{};
    EXPECT_EQ(d.frequency, 1000);
    EXPECT_EQ(d.gainDb, 0);
    EXPECT_EQ(d.q, 0.707);

    const auto low =
        json::parse(R"({"kind":"tilt","frequency":5,"gainDb":-60,"q":0})").get<EQBand>();
    EXPECT_EQ(low, (EQBand{EQKind::off, 20, -24, 0.1}));
    const auto high =
        json::parse(R"({"kind":"peak","frequency":96000,"gainDb":60,"q":100})").get<EQBand>();
    EXPECT_EQ(high, (EQBand{EQKind::peak, 20000, 24, 18}));
    const auto mistyped =
        json::parse(R"({"kind":3,"frequency":"loud","gainDb":null,"q":[1]})").get<EQBand>();
    EXPECT_EQ(mistyped, EQBand{});
}

TEST(EQSettingsTest, DefaultsAndFlatAreTheFlatPresetDisabled) {
    const EQSettings s;
    EXPECT_FALSE(s.enabled);
    EXPECT_EQ(s.preampDb, 0);
    ASSERT_EQ(s.bands.size(), EQSettings::bandCount);
    EXPECT_EQ(s.bands, EQSettings::flatBands());
    EXPECT_EQ(EQSettings::flat(), s);
    EXPECT_TRUE(s.isFlat());
    EXPECT_EQ(EQSettings::flatBands()[0], (EQBand{EQKind::lowShelf, 80, 0, 0.707}));
    EXPECT_EQ(EQSettings::flatBands()[5], (EQBand{EQKind::highShelf, 10000, 0, 0.707}));
}

TEST(EQSettingsTest, SizedCutsOrFillsFromTheFlatBandsAtTheMissingPositions) {
    const EQBand odd{EQKind::notch, 50, 0, 9};
    const auto filled = EQSettings::sized({odd, odd});
    ASSERT_EQ(filled.size(), 6u);
    EXPECT_EQ(filled[1], odd);
    EXPECT_EQ(filled[2], EQSettings::flatBands()[2]);
    EXPECT_EQ(filled[5], EQSettings::flatBands()[5]);
    const auto cut = EQSettings::sized(std::vector<EQBand>(9, odd));
    EXPECT_EQ(cut, std::vector<EQBand>(6, odd));
}

TEST(EQSettingsTest, ClampedIsSafeToPublish) {
    EQSettings s;
    s.preampDb = -100;
    s.bands = {{EQKind::peak, 3, 40, 0}, {static_cast<EQKind>(12), 500, 0, 1}};
    const EQSettings c = s.clamped();
    EXPECT_EQ(c.preampDb, -24);
    ASSERT_EQ(c.bands.size(), 6u);
    EXPECT_EQ(c.bands[0], (EQBand{EQKind::peak, 20, 24, 0.1}));
    EXPECT_EQ(c.bands[1].kind, EQKind::off);
    EXPECT_EQ(c.bands[4], EQSettings::flatBands()[4]);
    s.preampDb = std::nan("");
    EXPECT_EQ(s.clamped().preampDb, 0);
}

TEST(EQSettingsTest, FlatnessNeedsNoPreampAndOnlyIdentityBands) {
    EQSettings s;
    s.enabled = true;
    EXPECT_TRUE(s.isFlat());
    s.bands[3].kind = EQKind::off;
    s.bands[3].gainDb = 5;
    EXPECT_TRUE(s.isFlat());
    s.preampDb = -1;
    EXPECT_FALSE(s.isFlat());
    s.preampDb = 0;
    s.bands[1].kind = EQKind::lowPass;
    EXPECT_FALSE(s.isFlat());
}

TEST(EQSettingsTest, JsonReadingRepairsWhatItCan) {
    EXPECT_EQ(json::array().get<EQSettings>(), EQSettings{});
    EXPECT_EQ(json::object().get<EQSettings>(), EQSettings{});
    const auto s = json::parse(R"({"enabled":true,"preampDb":-40,"bands":[
        {"kind":"notch","frequency":60,"gainDb":0,"q":10}, 7, "x", null,
        {"kind":"peak","gainDb":3}]})")
                       .get<EQSettings>();
    EXPECT_TRUE(s.enabled);
    EXPECT_EQ(s.preampDb, -24);
    ASSERT_EQ(s.bands.size(), 6u);
    EXPECT_EQ(s.bands[0], (EQBand{EQKind::notch, 60, 0, 10}));
    EXPECT_EQ(s.bands[1], (EQBand{EQKind::peak, 1000, 3, 0.707}));
    EXPECT_EQ(s.bands[2], EQSettings::flatBands()[2]);

    const auto wrong = json::parse(R"({"enabled":"yes","preampDb":"0","bands":{}})");
    EXPECT_EQ(wrong.get<EQSettings>(), EQSettings{});
}

TEST(EQSettingsTest, JsonRoundTrips) {
    EQSettings s;
    s.enabled = true;
    s.preampDb = -4.5;
    s.bands[2] = {EQKind::bandPass, 700, 0, 3};
    const json j = s;
    EXPECT_TRUE(j.contains("enabled") && j.contains("preampDb") && j.contains("bands"));
    EXPECT_EQ(j["bands"].size(), 6u);
    EXPECT_EQ(json::parse(j.dump()).get<EQSettings>(), s);
}

TEST(EQSettingsTest, ResponseIsPreampPlusBandsAndZeroWhenDisabled) {
    EQSettings s;
    s.preampDb = -3;
    s.bands[1] = {EQKind::peak, 1000, 6, 1};
    EXPECT_EQ(s.responseDb(1000, 48000), 0.0);
    s.enabled = true;
    EXPECT_NEAR(s.responseDb(1000, 48000), 3.0, 1e-9);
    EXPECT_NEAR(s.bands[1].magnitudeDb(1000, 48000), 6.0, 1e-9);
}

TEST(EQSettingsTest, SuggestedPreampCoversTheLargestLift) {
    EQSettings s;
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    s.bands[2] = {EQKind::peak, 1000, 0.4, 1};
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    s.bands[2] = {EQKind::peak, 1000, 3.6, 1};
    EXPECT_EQ(s.suggestedPreampDb(48000), -4.0);
    // Cuts never call for a lift, and the preamp and the switch play no part.
    s.bands[2] = {EQKind::peak, 1000, -12, 1};
    s.preampDb = 10;
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    // Two boosts that add up beyond the range stop at its floor.
    s.bands[0] = {EQKind::lowShelf, 200, 24, 0.707};
    s.bands[1] = {EQKind::peak, 60, 24, 0.5};
    EXPECT_EQ(s.suggestedPreampDb(48000), -24.0);
}

TEST(EQSettingsTest, SuggestedPreampRoundsHalvesAwayFromZero) {
    // A peak whose centre sits on one of the 121 points reaches exactly its gain.
    const double f = 20.0 * std::pow(1000.0, 60 / 120.0);
    EQSettings s;
    s.bands[2] = {EQKind::peak, f, 2.5, 1};
    EXPECT_EQ(s.suggestedPreampDb(48000), -3.0);
    s.bands[2].gainDb = 2.49;
    EXPECT_EQ(s.suggestedPreampDb(48000), -2.0);
}

TEST(EQTargetTest, RowsAndMasterAreDistinct) {
    EXPECT_TRUE(EQTarget::master().isMaster());
    EXPECT_EQ(EQTarget::master().rowIndex(), std::nullopt);
    EXPECT_EQ(EQTarget::row(3).rowIndex(), 3u);
    EXPECT_FALSE(EQTarget::row(0).isMaster());
    EXPECT_NE(EQTarget::row(0), EQTarget::master());
    EXPECT_EQ(EQTarget::row(2), EQTarget::row(2));
}

}  // namespace
}  // namespace vt::equaliser
