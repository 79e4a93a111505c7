// The real-time side: publishing, per-block updates, glides, the active
// flags that make a flat equaliser free, and the band sequence lock.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "core/eq_rt.h"

namespace {

constexpr double kRate = 48000;

re_eq_coeffs design(uint32_t kind, double sr, double f, double g, double q) {
    re_eq_coeffs c;
    re_eq_coefficients(kind, &c.b0, &c.b1, &c.b2, &c.a1, &c.a2, sr, f, g, q);
    return c;
}

bool same(const re_eq_coeffs& x, const re_eq_coeffs& y) {
    return x.b0 == y.b0 && x.b1 == y.b1 && x.b2 == y.b2 && x.a1 == y.a1 && x.a2 == y.a2;
}

bool isIdentity(const re_eq_coeffs& c) {
    return same(c, re_eq_coeffs{});
}

bool cleared(const re_eq_live_band& b) {
    return b.s1[0] == 0 && b.s1[1] == 0 && b.s2[0] == 0 && b.s2[1] == 0;
}

float signal(int n) {
    return 0.5f * static_cast<float>(std::sin(n * 0.05) + 0.3 * std::sin(n * 0.71));
}

re_eq_coeffs blend(const re_eq_coeffs& a, const re_eq_coeffs& b, double t) {
    return {a.b0 + (b.b0 - a.b0) * t, a.b1 + (b.b1 - a.b1) * t, a.b2 + (b.b2 - a.b2) * t,
            a.a1 + (b.a1 - a.a1) * t, a.a2 + (b.a2 - a.a2) * t};
}

// A plain transposed direct form II, the independent model of one section.
struct Reference {
    double s1 = 0, s2 = 0;
    float step(float xf, const re_eq_coeffs& c) {
        const double x = xf;
        const double y = c.b0 * x + s1;
        s1 = s2 + c.b1 * x - c.a1 * y;
        s2 = c.b2 * x - c.a2 * y;
        return static_cast<float>(y);
    }
};

class EqRuntime : public ::testing::Test {
  protected:
    std::unique_ptr<re_eq> eq = std::make_unique<re_eq>();

    void enable(int band, uint32_t kind, double f, double g, double q) {
        re_eq_publish_enabled(eq.get(), true);
        re_eq_publish_band(eq.get(), band, kind, f, g, q);
        re_eq_update(eq.get(), kRate);
    }
    void run(int frames, int from = 0, std::vector<float>* outLeft = nullptr) {
        for (int n = from; n < from + frames; ++n) {
            float l = signal(n), r = -signal(n);
            re_eq_apply(eq.get(), &l, &r);
            if (outLeft) outLeft->push_back(l);
        }
    }
    bool passesUntouched() {
        float l = 0.25f, r = -0.75f;
        re_eq_apply(eq.get(), &l, &r);
        return l == 0.25f && r == -0.75f;
    }
};

TEST_F(EqRuntime, ADisabledEqualiserIsInactiveAndLeavesSamplesAlone) {
    re_eq_publish_band(eq.get(), 0, RE_EQ_PEAK, 1000, 6, 1);
    re_eq_publish_preamp_db(eq.get(), -6);
    re_eq_update(eq.get(), kRate);
    EXPECT_EQ(eq->active, 0);
    EXPECT_TRUE(passesUntouched());
}

TEST_F(EqRuntime, AChangeGlidesSamplePerSampleOver480Samples) {
    enable(0, RE_EQ_PEAK, 500, 9, 2);
    const re_eq_coeffs first = design(RE_EQ_PEAK, kRate, 500, 9, 2);
    const re_eq_coeffs second = design(RE_EQ_LOW_PASS, kRate, 3000, 0, 0.707);
    std::vector<float> out;
    run(600, 0, &out);  // the first design glides in from the identity
    re_eq_publish_band(eq.get(), 0, RE_EQ_LOW_PASS, 3000, 0, 0.707);
    re_eq_update(eq.get(), kRate);
    run(1200, 600, &out);

    Reference ref;
    for (int n = 0; n < 1800; ++n) {
        re_eq_coeffs c = second;
        if (n < 480)
            c = blend(re_eq_coeffs{}, first, 1.0 - (480.0 - n) / 480.0);
        else if (n < 600)
            c = first;
        else if (n < 1080)
            c = blend(first, second, 1.0 - (480.0 - (n - 600)) / 480.0);
        ASSERT_EQ(out[n], ref.step(signal(n), c)) << "sample " << n;
    }
}

TEST_F(EqRuntime, AChangeDuringAGlideStartsFromTheCoefficientsInUse) {
    enable(0, RE_EQ_PEAK, 500, 9, 2);
    run(120);
    re_eq_publish_band(eq.get(), 0, RE_EQ_PEAK, 500, -9, 2);
    re_eq_update(eq.get(), kRate);
    EXPECT_TRUE(same(eq->live[0].start,
                     blend(re_eq_coeffs{}, design(RE_EQ_PEAK, kRate, 500, 9, 2), 120.0 / 480.0)));
    EXPECT_EQ(eq->live[0].ramp, RE_EQ_RAMP);
}

TEST_F(EqRuntime, SectionsRunInOrderEachReadingThe32BitResultOfTheLast) {
    enable(1, RE_EQ_HIGH_SHELF, 4000, -5, 0.707);
    enable(4, RE_EQ_PEAK, 300, 7, 3);
    re_eq_reset_state(eq.get());
    const re_eq_coeffs shelf = design(RE_EQ_HIGH_SHELF, kRate, 4000, -5, 0.707);
    const re_eq_coeffs peak = design(RE_EQ_PEAK, kRate, 300, 7, 3);
    Reference refL[2], refR[2];
    for (int n = 0; n < 2000; ++n) {
        float l = signal(n), r = signal(n + 77);
        re_eq_apply(eq.get(), &l, &r);
        ASSERT_EQ(l, refL[1].step(refL[0].step(signal(n), shelf), peak)) << n;
        ASSERT_EQ(r, refR[1].step(refR[0].step(signal(n + 77), shelf), peak)) << n;
    }
}

TEST_F(EqRuntime, DisablingFadesToNothingAndThenCostsNothing) {
    re_eq_publish_preamp_db(eq.get(), -6);
    enable(1, RE_EQ_LOW_SHELF, 200, 6, 0.707);
    run(1000);
    re_eq_publish_enabled(eq.get(), false);
    re_eq_update(eq.get(), kRate);
    EXPECT_TRUE(isIdentity(eq->live[1].target));
    EXPECT_EQ(eq->live[1].ramp, RE_EQ_RAMP);
    EXPECT_EQ(eq->preampTarget, 1.0f);
    run(479, 1000);
    re_eq_update(eq.get(), kRate);
    EXPECT_EQ(eq->active, 1) << "one sample of the glide is still to come";
    run(1, 1479);
    re_eq_update(eq.get(), kRate);
    EXPECT_EQ(eq->active, 0);
    EXPECT_TRUE(cleared(eq->live[1]));
    EXPECT_TRUE(passesUntouched());
}

TEST_F(EqRuntime, AGainZeroPeakGoesInactiveAndClearsItsState) {
    enable(3, RE_EQ_PEAK, 100, 6, 1);
    run(2000);
    EXPECT_FALSE(cleared(eq->live[3]));
    enable(3, RE_EQ_PEAK, 100, 0, 1);
    EXPECT_EQ(eq->live[3].active, 1);  // still gliding away
    run(480, 2000);
    re_eq_update(eq.get(), kRate);
    EXPECT_EQ(eq->live[3].active, 0);
    EXPECT_TRUE(cleared(eq->live[3]));
    EXPECT_EQ(eq->active, 0);
}

TEST_F(EqRuntime, RateChangesAndTheSwitchRedesignWithoutANewPublication) {
    re_eq_publish_band(eq.get(), 0, RE_EQ_NOTCH, 60, 0, 10);
    re_eq_update(eq.get(), kRate);
    EXPECT_TRUE(isIdentity(eq->live[0].target));
    re_eq_publish_enabled(eq.get(), true);
    re_eq_update(eq.get(), kRate);
    EXPECT_TRUE(same(eq->live[0].target, design(RE_EQ_NOTCH, kRate, 60, 0, 10)));
    run(480);
    re_eq_update(eq.get(), kRate + 0.4);  // within half a hertz: the same rate
    EXPECT_EQ(eq->live[0].ramp, 0u);
    re_eq_update(eq.get(), 44100);
    EXPECT_EQ(eq->live[0].ramp, RE_EQ_RAMP);
    EXPECT_TRUE(same(eq->live[0].target, design(RE_EQ_NOTCH, 44100, 60, 0, 10)));
}

TEST_F(EqRuntime, PreampIsClampedAndGlidesLinearlyToItsExactValue) {
    re_eq_publish_preamp_db(eq.get(), -60);
    EXPECT_FLOAT_EQ(eq->preamp.load(), 0.06309573444801933f);
    re_eq_publish_preamp_db(eq.get(), 60);
    EXPECT_FLOAT_EQ(eq->preamp.load(), 15.848932f);
    re_eq_publish_preamp_db(eq.get(), std::nan(""));
    EXPECT_EQ(eq->preamp.load(), 1.0f);

    re_eq_publish_enabled(eq.get(), true);
    re_eq_publish_preamp_db(eq.get(), 20 * std::log10(0.5));
    re_eq_update(eq.get(), kRate);
    const float target = eq->preamp.load();
    for (int n = 0; n < 480; ++n) {
        float l = 1.0f, r = -1.0f;
        re_eq_apply(eq.get(), &l, &r);
        ASSERT_NEAR(l, n == 479 ? target : 1.0f + (target - 1.0f) * n / 480.0f, 1e-6f) << n;
        ASSERT_EQ(r, -l);
    }
    EXPECT_EQ(eq->preampCurrent, target);
}

TEST_F(EqRuntime, ResetZeroesMemoryAndFinishesGlides) {
    re_eq_publish_preamp_db(eq.get(), -3);
    enable(0, RE_EQ_PEAK, 1000, 6, 1);
    run(100);
    re_eq_reset_state(eq.get());
    EXPECT_EQ(eq->live[0].ramp, 0u);
    EXPECT_TRUE(same(eq->live[0].start, eq->live[0].target));
    EXPECT_TRUE(cleared(eq->live[0]));
    EXPECT_EQ(eq->preampRamp, 0u);
    EXPECT_EQ(eq->preampCurrent, eq->preampTarget);
}

TEST_F(EqRuntime, FilterMemoryDecaysToExactZeroNotDenormals) {
    enable(0, RE_EQ_LOW_PASS, 200, 0, 0.707);
    re_eq_reset_state(eq.get());
    float l = 1.0f, r = 1.0f;
    re_eq_apply(eq.get(), &l, &r);
    for (int n = 0; n < 48000; ++n) {
        l = r = 0.0f;
        re_eq_apply(eq.get(), &l, &r);
    }
    EXPECT_TRUE(cleared(eq->live[0]));
}

TEST_F(EqRuntime, ClipLatchAndBandsOutOfRange) {
    EXPECT_EQ(re_eq_take_clip(eq.get()), 0);
    re_eq_note_clip(eq.get());
    EXPECT_EQ(re_eq_take_clip(eq.get()), 1);
    EXPECT_EQ(re_eq_take_clip(eq.get()), 0);
    re_eq_publish_band(eq.get(), 6, RE_EQ_PEAK, 1000, 6, 1);
    re_eq_publish_band(eq.get(), -1, RE_EQ_PEAK, 1000, 6, 1);
    for (const auto& p : eq->pub) EXPECT_EQ(p.seq.load(), 0u);
}

TEST_F(EqRuntime, ARecordBeingWrittenIsLeftForTheNextBlock) {
    enable(0, RE_EQ_PEAK, 1000, 6, 1);
    const re_eq_coeffs before = eq->live[0].target;
    // A writer stopped half way: the sequence is odd and the kind already new.
    auto& p = eq->pub[0];
    p.seq.store(p.seq.load() + 1);
    p.kind.store(RE_EQ_HIGH_PASS);
    re_eq_update(eq.get(), 44100);
    EXPECT_TRUE(same(eq->live[0].target, before));
    p.frequency.store(300);
    p.seq.store(p.seq.load() + 1);
    re_eq_update(eq.get(), 44100);
    EXPECT_TRUE(same(eq->live[0].target, design(RE_EQ_HIGH_PASS, 44100, 300, 6, 1)));
}

TEST(EqSeqlock, TheReaderNeverDesignsATornRecord) {
    auto eq = std::make_unique<re_eq>();
    re_eq_publish_enabled(eq.get(), true);
    const re_eq_coeffs a = design(RE_EQ_PEAK, kRate, 1000, 6, 1);
    const re_eq_coeffs b = design(RE_EQ_LOW_SHELF, kRate, 150, -4, 0.5);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
            if (i & 1)
                re_eq_publish_band(eq.get(), 0, RE_EQ_LOW_SHELF, 150, -4, 0.5);
            else
                re_eq_publish_band(eq.get(), 0, RE_EQ_PEAK, 1000, 6, 1);
        }
    });
    // Run until the reader has followed the writer back and forth many times;
    // the deadline only guards against a starved writer on a busy machine.
    int changes = 0;
    re_eq_coeffs last;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (long i = 0; changes < 200 && !::testing::Test::HasFailure(); ++i) {
        re_eq_update(eq.get(), kRate);
        const re_eq_coeffs& t = eq->live[0].target;
        if (!same(t, last)) ++changes;
        last = t;
        EXPECT_TRUE(isIdentity(t) || same(t, a) || same(t, b)) << "torn at " << i;
        if ((i & 1023) == 0 && std::chrono::steady_clock::now() > deadline) break;
    }
    stop = true;
    writer.join();
    EXPECT_GE(changes, 200);
}

}  // namespace
