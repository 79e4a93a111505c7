#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "engine/pcm16_quantizer.h"

namespace vt::engine {
namespace {

TEST(PCM16Quantizer, SilenceAndNonNumbersGiveZeroWithoutDrawingDither) {
    PCM16Quantizer q(42);
    const uint64_t before = q.state();
    EXPECT_EQ(q.quantize(0.0f), 0);
    EXPECT_EQ(q.quantize(-0.0f), 0);
    EXPECT_EQ(q.quantize(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(q.quantize(std::numeric_limits<float>::infinity()), 0);
    EXPECT_EQ(q.quantize(-std::numeric_limits<float>::infinity()), 0);
    EXPECT_EQ(q.state(), before);
}

TEST(PCM16Quantizer, ClampsAtFullScale) {
    PCM16Quantizer q;
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(q.quantize(1.5f), 32767);
        EXPECT_EQ(q.quantize(-1.5f), -32768);
        EXPECT_EQ(q.quantize(1e30f), 32767);
        int16_t nearTop = q.quantize(1.0f);
        EXPECT_GE(nearTop, 32766);
    }
}

TEST(PCM16Quantizer, DitherIsTriangularWithinOneStepAndUnbiased) {
    PCM16Quantizer q(7);
    const float x = 0.3f / 32767.0f;  // 0.3 of a step
    double sum = 0;
    int counts[3] = {0, 0, 0};
    const int n = 200000;
    for (int i = 0; i < n; ++i) {
        int v = q.quantize(x);
        ASSERT_GE(v, -1);
        ASSERT_LE(v, 1);
        ++counts[v + 1];
        sum += v;
    }
    EXPECT_NEAR(sum / n, 0.3, 0.01) << "the dither keeps the mean of the signal";
    EXPECT_GT(counts[0], 0) << "triangular dither reaches one step the other way";
    for (int i = 0; i < 1000; ++i) {
        float s = 0.5f * std::sin(static_cast<float>(i) * 0.01f);
        if (s == 0.0f) continue;
        EXPECT_LE(std::fabs(q.quantize(s) - s * 32767.0f), 1.5f);
    }
}

TEST(PCM16Quantizer, SameSeedSameOutputAndZeroSeedIsOne) {
    std::vector<float> in(512);
    for (size_t i = 0; i < in.size(); ++i) in[i] = 0.2f * std::sin(0.05f * static_cast<float>(i));
    std::vector<int16_t> a(in.size()), b(in.size()), c(in.size()), d(in.size());
    PCM16Quantizer(99).convert(in.data(), a.data(), in.size());
    PCM16Quantizer(99).convert(in.data(), b.data(), in.size());
    PCM16Quantizer(100).convert(in.data(), c.data(), in.size());
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
    PCM16Quantizer zero(0), one(1);
    zero.convert(in.data(), c.data(), in.size());
    one.convert(in.data(), d.data(), in.size());
    EXPECT_EQ(c, d);
}

TEST(PCM16Quantizer, TheBlockFormMatchesSampleBySample) {
    std::vector<float> in;
    for (int i = 0; i < 2000; ++i)
        in.push_back(std::sin(static_cast<float>(i) * 0.01f) * (i % 7 == 0 ? 0.0f : 1.2f));
    in.push_back(std::numeric_limits<float>::quiet_NaN());
    PCM16Quantizer one(0x9E3779B97F4A7C15ULL), block(0x9E3779B97F4A7C15ULL);
    std::vector<int16_t> out(in.size());
    block.convert(in.data(), out.data(), in.size());
    for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], one.quantize(in[i])) << i;
    EXPECT_EQ(block.state(), one.state());
}

}  // namespace
}  // namespace vt::engine
