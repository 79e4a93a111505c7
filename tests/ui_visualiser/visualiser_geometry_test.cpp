#include "ui/visualiser/visualiser_geometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

namespace vt::ui::visualiser {
namespace {

const SpectrumColours colours{{10, 20, 30, 255}, {1, 2, 3, 255}, {200, 200, 200, 255}};

float topOf(const std::vector<Vertex>& v, std::size_t quad) {
    return v[quad * 6].y;
}

TEST(SpectrumGeometry, BarsRiseFromTheFootLowBandsOnTheLeftCapsAbove) {
    std::vector<float> levels{0.5f, 1.0f, 0.0f};
    std::vector<float> peaks{0.75f, 1.0f, 0.25f};
    std::vector<Vertex> v;
    buildSpectrum(v, levels, peaks, 300, 100, colours);
    ASSERT_EQ(v.size(), 3u * 12u);  // a bar and a cap per band, drawn or empty

    EXPECT_FLOAT_EQ(topOf(v, 0), 50.0f);  // half height
    EXPECT_FLOAT_EQ(v[2].x - v[0].x, v[8].x - v[6].x);
    EXPECT_LT(v[0].x, v[12].x);                             // band 0 left of band 1
    EXPECT_FLOAT_EQ(topOf(v, 2), 0.0f);                     // full height reaches the top
    EXPECT_LT(topOf(v, 1), 25.0f);                          // cap sits above the peak line
    EXPECT_GE(topOf(v, 3), 0.0f);                           // a cap at the top stays inside
    for (int k = 0; k < 6; ++k) EXPECT_EQ(v[24 + k].a, 0);  // a silent bar is empty
    EXPECT_GT(v[30].a, 0);                                  // its falling mark still shows
    EXPECT_EQ(v[0].r, 6);  // a half bar's top is half way to the full colour
    EXPECT_EQ(v[1].r, 1);  // and its foot the base colour
}

TEST(ScopeGeometry, TriggerHoldsAPeriodicWaveStill) {
    // The same sine sampled at two phases starts on the same rising edge.
    std::vector<float> a(2048), b(2048);
    for (int n = 0; n < 2048; ++n) {
        a[n] = static_cast<float>(std::sin(2 * std::numbers::pi * n / 100.0 + 1.0));
        b[n] = static_cast<float>(std::sin(2 * std::numbers::pi * n / 100.0 + 2.5));
    }
    const std::size_t ta = scopeTrigger(a), tb = scopeTrigger(b);
    EXPECT_LT(a[ta - 1], 0.0f);
    EXPECT_GE(a[ta], 0.0f);
    EXPECT_NEAR(a[ta + 10], b[tb + 10], 0.07f);
    EXPECT_EQ(scopeTrigger(std::vector<float>(2048, 0.0f)), 0u);
}

TEST(ScopeGeometry, TraceCoversTheWidthAndStaysInside) {
    std::vector<float> s(2048);
    for (int n = 0; n < 2048; ++n) s[n] = n % 2 == 0 ? 2.0f : -2.0f;  // beyond full scale
    std::vector<Vertex> v;
    buildScope(v, s, 400, 100, 2, {255, 0, 0, 255});
    ASSERT_EQ(v.size(), 200u * 6u);
    EXPECT_FLOAT_EQ(v.front().x, 0.0f);
    EXPECT_FLOAT_EQ(v.back().x, 400.0f);
    for (const Vertex& p : v) {
        EXPECT_GE(p.y, 0.0f);
        EXPECT_LE(p.y, 100.0f);
    }
    // Silence is a flat line of the given thickness through the middle.
    buildScope(v, std::vector<float>(2048, 0.0f), 400, 100, 2, {255, 0, 0, 255});
    EXPECT_FLOAT_EQ(v[0].y, 49.0f);
    EXPECT_FLOAT_EQ(v[5].y, 51.0f);
}

}  // namespace
}  // namespace vt::ui::visualiser
