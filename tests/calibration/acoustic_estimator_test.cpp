#include "calibration/acoustic_estimator.h"

#include <gtest/gtest.h>

#include <random>

#include "calibration/chirp.h"

namespace vt::calibration {
namespace {

constexpr FrequencyBand kBand{kMeasurementLowHz, kMeasurementHighHz};

// What a microphone hears in a simple room: the sweep at `directMs` and
// gain `direct`, one reflection `reflectionMs` later at gain `reflection`,
// and white noise. The phase transform answers a lone reflection of relative
// gain g (below 1) with an echo g/2 as far before the direct sound, so a
// reflection between about 0.3 and 1 of the direct sound would set the onset
// early by its own delay; real rooms spread their reflections thin, and these
// rooms keep theirs either weak or louder than the direct sound.
std::vector<float> room(const Chirp& sound, double directMs, float direct, double reflectionMs,
                        float reflection, float noise, unsigned seed = 7) {
    const double rate = sound.sampleRate;
    std::vector<float> out(static_cast<size_t>(rate * 1.5));
    std::mt19937 random(seed);
    std::normal_distribution<float> gauss(0.0f, noise);
    for (auto& s : out) s = gauss(random);
    auto add = [&](double ms, float gain) {
        const auto at = static_cast<size_t>(std::lround(ms / 1000.0 * rate));
        for (size_t i = 0; i < sound.samples.size() && at + i < out.size(); ++i)
            out[at + i] += gain * sound.samples[i];
    };
    add(directMs, direct);
    if (reflection != 0) add(directMs + reflectionMs, reflection);
    return out;
}

class AtRate : public testing::TestWithParam<double> {};

TEST_P(AtRate, FindsTheSweepInAnExactRecordingAtEitherPolarity) {
    const Chirp sound = Chirp::measurementSound(GetParam());
    std::vector<float> recording(sound.samples.size() * 3);
    std::copy(sound.samples.begin(), sound.samples.end(), recording.begin() + 1000);
    const auto plain = AcousticEstimator::arrival(sound.samples, recording, GetParam());
    ASSERT_TRUE(plain);
    EXPECT_NEAR(plain->seconds * GetParam(), 1000, 2);
    for (auto& s : recording) s = -s;
    const auto inverted = AcousticEstimator::arrival(sound.samples, recording, GetParam());
    ASSERT_TRUE(inverted);
    EXPECT_EQ(inverted->seconds, plain->seconds);
}

TEST_P(AtRate, TimesTwoSpeakersAgainstEachOtherThroughNoise) {
    const Chirp sound = Chirp::measurementSound(GetParam());
    const auto reference = room(sound, 120.0, 0.3f, 3.0, 0.06f, 0.05f, 1);
    const auto output = room(sound, 157.25, 0.2f, 5.0, 0.04f, 0.05f, 2);
    const auto m =
        AcousticEstimator::relativeLatency(sound.samples, reference, output, GetParam(), kBand);
    ASSERT_TRUE(m);
    EXPECT_NEAR(m->latencyMs, 37.25, 0.05);
    EXPECT_TRUE(m->trusted);
}

TEST_P(AtRate, ALouderReflectionDoesNotMoveTheArrival) {
    const Chirp sound = Chirp::measurementSound(GetParam());
    // A wall 4 ms behind the direct sound, louder than it: still a speaker.
    const auto near = room(sound, 200.0, 0.2f, 4.0, 0.35f, 0.02f);
    const auto found = AcousticEstimator::detectNearPeak(sound.samples, near, GetParam(), kBand);
    ASSERT_TRUE(found);
    EXPECT_NEAR(found->seconds * 1000.0, 200.0, 0.1);
    EXPECT_NEAR(found->spreadMs, 4.0, 0.1);
    EXPECT_GT(found->strength, AcousticEstimator::minimumStrength);

    // 20 ms behind and louder: the peak is the room, the onset still the
    // speaker, and the measurement is not to be trusted.
    const auto far = room(sound, 200.0, 0.2f, 20.0, 0.35f, 0.02f);
    const auto reference = room(sound, 150.0, 0.3f, 2.0, 0.05f, 0.02f);
    const auto m =
        AcousticEstimator::relativeLatency(sound.samples, reference, far, GetParam(), kBand);
    ASSERT_TRUE(m);
    // A clean, loud arrival rings with side lobes of about a quarter of its
    // peak a few samples either side (the band ends sharply at 8.8 kHz); at
    // 15 % the first of them may already count, a fifth of a ms early.
    EXPECT_NEAR(m->latencyMs, 50.0, 0.25);
    EXPECT_NEAR(m->reflectionSpreadMs, 20.0, 0.1);
    EXPECT_FALSE(m->trusted);
}

INSTANTIATE_TEST_SUITE_P(Rates, AtRate, testing::Values(48000.0, 44100.0));

TEST(AcousticEstimator, GivesNothingRatherThanAGuess) {
    const Chirp sound = Chirp::measurementSound(48000);
    const std::vector<float> silence(48000, 0.0f);
    EXPECT_FALSE(AcousticEstimator::arrival(sound.samples, silence, 48000));
    EXPECT_FALSE(AcousticEstimator::detectNearPeak(sound.samples, silence, 48000, kBand));
    const std::vector<float> shortRecording(sound.samples.begin(), sound.samples.end());
    EXPECT_FALSE(AcousticEstimator::arrival(sound.samples, shortRecording, 48000));
    const auto heard = room(sound, 100.0, 0.3f, 0, 0, 0.01f);
    EXPECT_FALSE(AcousticEstimator::relativeLatency(sound.samples, heard, silence, 48000, kBand));
}

}  // namespace
}  // namespace vt::calibration
