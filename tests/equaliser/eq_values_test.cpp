// The equaliser as values: kinds and their words, JSON with its defaults and
// clamps, sizing, flatness, the response curve and the suggested preamp.
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "core/eq_rt.h"
#include "equaliser/eq_band.h"
#include "equaliser/eq_kind.h"
#include "equaliser/eq_settings.h"

namespace vt::equaliser {
namespace {

using nlohmann::json;

TEST(EQKindTest, RawValuesAndIndicesMatchTheRealTimeSide) {
    const char* raws[] = {"off",     "peak",     "lowShelf", "highShelf",
                          "lowPass", "highPass", "notch",    "bandPass"};
    for (uint32_t i = 0; i < 8; ++i) {
        EXPECT_EQ(kindFromRaw(raws[i]), kindFromIndex(i));
        EXPECT_EQ(rawValue(*kindFromIndex(i)), raws[i]);
    }
    EXPECT_EQ(kindFromIndex(8), std::nullopt);
    EXPECT_EQ(kindFromRaw("Peak"), std::nullopt);
    EXPECT_EQ(index(EQKind::highShelf), RE_EQ_HIGH_SHELF);
    EXPECT_EQ(index(EQKind::bandPass), RE_EQ_BAND_PASS);
    // Gain only means something for the kinds that lift or cut.
    for (EQKind k : allKinds) EXPECT_EQ(usesGain(k), k >= EQKind::peak && k <= EQKind::highShelf);
    EXPECT_EQ(frequencyLabel(EQKind::lowShelf), "Corner");
    EXPECT_EQ(detail(EQKind::highPass),
              "Keeps the top, drops the bottom \u2014 for a speaker with no woofer");
}

TEST(EQBandTest, IdentityOnlyForOffOrAFlatGainKind) {
    EXPECT_TRUE((EQBand{EQKind::off, 100, 12, 1}).isIdentity());
    EXPECT_TRUE((EQBand{EQKind::highShelf, 100, 0, 1}).isIdentity());
    EXPECT_FALSE((EQBand{EQKind::peak, 100, 0.1, 1}).isIdentity());
    EXPECT_FALSE((EQBand{EQKind::lowPass, 100, 0, 1}).isIdentity());
}

TEST(EQBandTest, JsonUsesTheStoredKeysAndReadingRepairsBadFields) {
    const EQBand b{EQKind::highShelf, 9000, -3.5, 0.9};
    EXPECT_EQ(json(b),
              json::parse(R"({"kind":"highShelf","frequency":9000,"gainDb":-3.5,"q":0.9})"));
    EXPECT_EQ(json(b).get<EQBand>(), b);
    EXPECT_EQ(json::object().get<EQBand>(), (EQBand{EQKind::off, 1000, 0, 0.707}));
    EXPECT_EQ(json::parse(R"({"kind":"tilt","frequency":5,"gainDb":-60,"q":0})").get<EQBand>(),
              (EQBand{EQKind::off, 20, -24, 0.1}));
    EXPECT_EQ(json::parse(R"({"kind":"peak","frequency":96000,"gainDb":60,"q":100})").get<EQBand>(),
              (EQBand{EQKind::peak, 20000, 24, 18}));
    EXPECT_EQ(json::parse(R"({"kind":3,"frequency":"loud","gainDb":null,"q":[1]})").get<EQBand>(),
              EQBand{});
}

TEST(EQSettingsTest, DefaultIsTheFlatPresetDisabledAndFlatness) {
    EQSettings s;
    EXPECT_EQ(s, EQSettings::flat());
    EXPECT_FALSE(s.enabled);
    EXPECT_EQ(s.bands, EQSettings::flatBands());
    EXPECT_EQ(s.bands[5], (EQBand{EQKind::highShelf, 10000, 0, 0.707}));
    s.enabled = true;
    s.bands[3] = {EQKind::off, 500, 5, 1};
    EXPECT_TRUE(s.isFlat());
    s.preampDb = -1;
    EXPECT_FALSE(s.isFlat());
    s.preampDb = 0;
    s.bands[1].kind = EQKind::lowPass;
    EXPECT_FALSE(s.isFlat());
}

TEST(EQSettingsTest, SizedAndClampedGiveSixBandsInRange) {
    const EQBand odd{EQKind::notch, 50, 0, 9};
    const auto filled = EQSettings::sized({odd, odd});
    ASSERT_EQ(filled.size(), 6u);
    EXPECT_EQ(filled[1], odd);
    EXPECT_EQ(filled[2], EQSettings::flatBands()[2]);
    EXPECT_EQ(EQSettings::sized(std::vector<EQBand>(9, odd)), std::vector<EQBand>(6, odd));

    EQSettings s;
    s.preampDb = -100;
    s.bands = {{EQKind::peak, 3, 40, 0}, {static_cast<EQKind>(12), 500, 0, 1}};
    const EQSettings c = s.clamped();
    EXPECT_EQ(c.preampDb, -24);
    ASSERT_EQ(c.bands.size(), 6u);
    EXPECT_EQ(c.bands[0], (EQBand{EQKind::peak, 20, 24, 0.1}));
    EXPECT_EQ(c.bands[1].kind, EQKind::off);
    s.preampDb = std::nan("");
    EXPECT_EQ(s.clamped().preampDb, 0);
}

TEST(EQSettingsTest, JsonRoundTripsAndReadingRepairsWhatItCan) {
    EQSettings s;
    s.enabled = true;
    s.preampDb = -4.5;
    s.bands[2] = {EQKind::bandPass, 700, 0, 3};
    const json j = s;
    EXPECT_EQ(j["bands"].size(), 6u);
    EXPECT_EQ(json::parse(j.dump()).get<EQSettings>(), s);

    EXPECT_EQ(json::array().get<EQSettings>(), EQSettings{});
    EXPECT_EQ(json::parse(R"({"enabled":"yes","preampDb":"0","bands":{}})").get<EQSettings>(),
              EQSettings{});
    // Broken entries are skipped, the rest clamped, and the list made up to six.
    const auto r = json::parse(R"({"enabled":true,"preampDb":-40,"bands":[
        {"kind":"notch","frequency":60,"gainDb":0,"q":10}, 7, "x", null,
        {"kind":"peak","gainDb":3}]})")
                       .get<EQSettings>();
    EXPECT_TRUE(r.enabled);
    EXPECT_EQ(r.preampDb, -24);
    ASSERT_EQ(r.bands.size(), 6u);
    EXPECT_EQ(r.bands[0], (EQBand{EQKind::notch, 60, 0, 10}));
    EXPECT_EQ(r.bands[1], (EQBand{EQKind::peak, 1000, 3, 0.707}));
    EXPECT_EQ(r.bands[2], EQSettings::flatBands()[2]);
}

TEST(EQSettingsTest, ResponseIsPreampPlusBandsAndZeroWhenDisabled) {
    EQSettings s;
    s.preampDb = -3;
    s.bands[1] = {EQKind::peak, 1000, 6, 1};
    EXPECT_EQ(s.responseDb(1000, 48000), 0.0);
    s.enabled = true;
    EXPECT_NEAR(s.responseDb(1000, 48000), 3.0, 1e-9);
}

TEST(EQSettingsTest, SuggestedPreampCoversTheLargestLiftInWholeDecibels) {
    EQSettings s;
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    s.bands[2] = {EQKind::peak, 1000, 0.4, 1};
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    // A centre on one of the 121 points reaches exactly its gain; halves
    // round away from zero.
    s.bands[2] = {EQKind::peak, 20.0 * std::pow(1000.0, 0.5), 2.5, 1};
    EXPECT_EQ(s.suggestedPreampDb(48000), -3.0);
    s.bands[2].gainDb = 2.49;
    EXPECT_EQ(s.suggestedPreampDb(48000), -2.0);
    // Cuts never call for a lift, and the preamp plays no part.
    s.bands[2] = {EQKind::peak, 1000, -12, 1};
    s.preampDb = 10;
    EXPECT_EQ(s.suggestedPreampDb(48000), 0.0);
    // Boosts that add up beyond the range stop at its floor.
    s.bands[0] = {EQKind::lowShelf, 200, 24, 0.707};
    s.bands[1] = {EQKind::peak, 60, 24, 0.5};
    EXPECT_EQ(s.suggestedPreampDb(48000), -24.0);
}

}  // namespace
}  // namespace vt::equaliser
