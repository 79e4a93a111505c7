// The biquad designs against the Audio EQ Cookbook's known responses, the
// bounds the design enforces, and the response function against a direct
// evaluation of the transfer function.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include "core/eq_rt.h"

namespace {

re_eq_coeffs design(uint32_t kind, double sr, double f, double g, double q) {
    re_eq_coeffs c;
    re_eq_coefficients(kind, &c.b0, &c.b1, &c.b2, &c.a1, &c.a2, sr, f, g, q);
    return c;
}

void expectSame(const re_eq_coeffs& x, const re_eq_coeffs& y) {
    EXPECT_EQ(x.b0, y.b0);
    EXPECT_EQ(x.b1, y.b1);
    EXPECT_EQ(x.b2, y.b2);
    EXPECT_EQ(x.a1, y.a1);
    EXPECT_EQ(x.a2, y.a2);
}

bool isIdentity(const re_eq_coeffs& c) {
    return c.b0 == 1 && c.b1 == 0 && c.b2 == 0 && c.a1 == 0 && c.a2 == 0;
}

// |H(e^jw)| in dB straight from the coefficients, as an independent check.
double directDb(const re_eq_coeffs& c, double sr, double at) {
    const std::complex<double> z1 = std::polar(1.0, -2.0 * std::numbers::pi * at / sr);
    const std::complex<double> z2 = z1 * z1;
    const auto h = (c.b0 + c.b1 * z1 + c.b2 * z2) / (1.0 + c.a1 * z1 + c.a2 * z2);
    return 10.0 * std::log10(std::max(std::norm(h), 1e-12));
}

double mag(uint32_t kind, double f, double g, double q, double at, double sr = 48000) {
    return re_eq_band_magnitude_db(kind, sr, f, g, q, at);
}

TEST(EqDesign, PeakReachesItsGainAtTheCentreAndNothingFarAway) {
    for (double sr : {44100.0, 48000.0, 96000.0}) {
        EXPECT_NEAR(mag(RE_EQ_PEAK, 1000, 6, 1, 1000, sr), 6.0, 1e-9);
        EXPECT_NEAR(mag(RE_EQ_PEAK, 1000, -12, 4, 1000, sr), -12.0, 1e-9);
        EXPECT_NEAR(mag(RE_EQ_PEAK, 1000, 6, 4, 20, sr), 0.0, 0.01);
    }
}

TEST(EqDesign, ShelvesReachTheirGainOnTheirSideAndHalfAtTheCorner) {
    EXPECT_NEAR(mag(RE_EQ_LOW_SHELF, 100, 6, 0.707, 0), 6.0, 1e-9);
    EXPECT_NEAR(mag(RE_EQ_LOW_SHELF, 100, 6, 0.707, 100), 3.0, 1e-9);
    EXPECT_NEAR(mag(RE_EQ_LOW_SHELF, 100, 6, 0.707, 24000), 0.0, 1e-9);
    EXPECT_NEAR(mag(RE_EQ_HIGH_SHELF, 5000, -9, 0.707, 24000), -9.0, 1e-9);
    EXPECT_NEAR(mag(RE_EQ_HIGH_SHELF, 5000, -9, 0.707, 5000), -4.5, 1e-9);
    EXPECT_NEAR(mag(RE_EQ_HIGH_SHELF, 5000, -9, 0.707, 0), 0.0, 1e-9);
}

TEST(EqDesign, PassesAreThreeDecibelsDownAtTheCornerWithButterworthQ) {
    const double q = std::numbers::sqrt2 / 2;
    EXPECT_NEAR(mag(RE_EQ_LOW_PASS, 1000, 0, q, 1000), -3.0103, 1e-3);
    EXPECT_NEAR(mag(RE_EQ_LOW_PASS, 1000, 0, q, 0), 0.0, 1e-9);
    EXPECT_LT(mag(RE_EQ_LOW_PASS, 1000, 0, q, 10000), -38.0);  // two poles: 12 dB an octave
    EXPECT_NEAR(mag(RE_EQ_HIGH_PASS, 1000, 0, q, 1000), -3.0103, 1e-3);
    EXPECT_NEAR(mag(RE_EQ_HIGH_PASS, 1000, 0, q, 24000), 0.0, 1e-9);
    EXPECT_LT(mag(RE_EQ_HIGH_PASS, 1000, 0, q, 100), -38.0);
    // The response of a zero is floored, not minus infinity.
    EXPECT_NEAR(mag(RE_EQ_LOW_PASS, 1000, 0, q, 24000), -120.0, 1e-6);
}

TEST(EqDesign, NotchRemovesItsCentreAndBandPassPeaksAtUnity) {
    EXPECT_LT(mag(RE_EQ_NOTCH, 60, 0, 10, 60), -100.0);
    EXPECT_NEAR(mag(RE_EQ_NOTCH, 60, 0, 10, 1000), 0.0, 0.01);
    EXPECT_NEAR(mag(RE_EQ_BAND_PASS, 2000, 0, 2, 2000), 0.0, 1e-9);
    EXPECT_LT(mag(RE_EQ_BAND_PASS, 2000, 0, 2, 200), -20.0);
}

TEST(EqDesign, ResponseAgreesWithTheTransferFunctionForEveryKind) {
    for (uint32_t kind = RE_EQ_PEAK; kind <= RE_EQ_BAND_PASS; ++kind) {
        const re_eq_coeffs c = design(kind, 44100, 700, 5, 1.3);
        for (double at : {30.0, 300.0, 700.0, 2500.0, 15000.0}) {
            EXPECT_NEAR(mag(kind, 700, 5, 1.3, at, 44100), directDb(c, 44100, at), 1e-9)
                << "kind " << kind << " at " << at;
        }
    }
}

TEST(EqDesign, IdentityForOffUnknownAndFlatGainKinds) {
    EXPECT_TRUE(isIdentity(design(RE_EQ_OFF, 48000, 1000, 6, 1)));
    EXPECT_TRUE(isIdentity(design(8, 48000, 1000, 6, 1)));
    EXPECT_TRUE(isIdentity(design(RE_EQ_PEAK, 48000, 1000, 0, 1)));
    EXPECT_TRUE(isIdentity(design(RE_EQ_LOW_SHELF, 48000, 1000, 0, 1)));
    EXPECT_TRUE(isIdentity(design(RE_EQ_HIGH_SHELF, 48000, 1000, 0, 1)));
    // Gain plays no part in the pass, notch and band-pass forms.
    EXPECT_FALSE(isIdentity(design(RE_EQ_LOW_PASS, 48000, 1000, 0, 1)));
    EXPECT_FALSE(isIdentity(design(RE_EQ_NOTCH, 48000, 1000, 0, 1)));
    EXPECT_EQ(mag(RE_EQ_OFF, 1000, 6, 1, 1000), 0.0);
}

TEST(EqDesign, ValuesOutsideTheBoundsAreDesignedAtTheBounds) {
    // A band never approaches Nyquist: 0.45 of the rate.
    expectSame(design(RE_EQ_LOW_PASS, 48000, 30000, 0, 0.707),
               design(RE_EQ_LOW_PASS, 48000, 21600, 0, 0.707));
    expectSame(design(RE_EQ_PEAK, 96000, 45000, 3, 1), design(RE_EQ_PEAK, 96000, 43200, 3, 1));
    expectSame(design(RE_EQ_PEAK, 48000, 5, 3, 1), design(RE_EQ_PEAK, 48000, 20, 3, 1));
    expectSame(design(RE_EQ_PEAK, 48000, 1000, 3, 0), design(RE_EQ_PEAK, 48000, 1000, 3, 0.1));
    expectSame(design(RE_EQ_PEAK, 48000, 1000, 3, 100), design(RE_EQ_PEAK, 48000, 1000, 3, 18));
    expectSame(design(RE_EQ_PEAK, 48000, 1000, 60, 1), design(RE_EQ_PEAK, 48000, 1000, 24, 1));
    expectSame(design(RE_EQ_LOW_SHELF, 48000, 1000, -60, 1),
               design(RE_EQ_LOW_SHELF, 48000, 1000, -24, 1));
    // An unusable rate is taken as 48 kHz.
    expectSame(design(RE_EQ_PEAK, 0, 1000, 3, 1), design(RE_EQ_PEAK, 48000, 1000, 3, 1));
    expectSame(design(RE_EQ_PEAK, -5, 1000, 3, 1), design(RE_EQ_PEAK, 48000, 1000, 3, 1));
}

TEST(EqDesign, ResponseFrequencyIsHeldBetweenZeroAndNyquist) {
    EXPECT_EQ(mag(RE_EQ_LOW_SHELF, 100, 6, 0.707, -50), mag(RE_EQ_LOW_SHELF, 100, 6, 0.707, 0));
    EXPECT_EQ(mag(RE_EQ_HIGH_SHELF, 5000, 6, 0.707, 90000),
              mag(RE_EQ_HIGH_SHELF, 5000, 6, 0.707, 24000));
}

}  // namespace
