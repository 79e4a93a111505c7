// The equalisers reach the slot's audio, and their clip latches come back.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "engine_fixture.h"
#include "equaliser/eq_settings.h"

namespace vt::engine::test {
namespace {

class Equalisers : public EngineTest {
  protected:
    void SetUp() override {
        engine.start();
        engine.prepareAirPlaySlot(kSlot, 48000);
        engine.setVolume(kSlot, 1.0);
        t0 = pastSec(10);
        pushCapture(t0, 4.0, 0.1f);
        now = t0 + 1.0;
    }
    // Renders a quarter of a second and returns the last sample.
    float render() {
        std::vector<float> out(480 * 2);
        for (int i = 0; i < 25; ++i, now += 0.01)
            engine.renderAirPlayAt(kSlot, out.data(), 480, now);
        return out.back();
    }

    static constexpr int kSlot = 9;
    double t0 = 0, now = 0;
};

TEST_F(Equalisers, PreampsOfRowAndMasterMultiplyAndClipsAreLatched) {
    EXPECT_NEAR(render(), 0.1f, 1e-4);

    equaliser::EQSettings row;
    row.enabled = true;
    row.preampDb = 20 * std::log10(4.0);
    engine.setEQ(kSlot, row);
    EXPECT_NEAR(render(), 0.4f, 1e-3);
    EXPECT_FALSE(engine.takeEQClip(kSlot));

    equaliser::EQSettings master;
    master.enabled = true;
    master.preampDb = 20 * std::log10(3.0);
    engine.setMasterEQ(master);
    EXPECT_NEAR(render(), 1.2f, 1e-3);
    EXPECT_TRUE(engine.takeEQClip(kSlot));
    EXPECT_TRUE(engine.takeMasterEQClip());
    engine.setMasterEQ(equaliser::EQSettings::flat());
    EXPECT_NEAR(render(), 0.4f, 1e-3);
    engine.takeMasterEQClip();  // the glide down may still have clipped
    render();
    EXPECT_FALSE(engine.takeMasterEQClip()) << "the latch clears once taken";

    // A disabled equaliser does nothing whatever its values.
    row.enabled = false;
    engine.setEQ(kSlot, row);
    EXPECT_NEAR(render(), 0.1f, 1e-4);
    EXPECT_FALSE(engine.takeEQClip(20));
}

}  // namespace
}  // namespace vt::engine::test
