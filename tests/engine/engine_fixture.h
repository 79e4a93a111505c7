// An engine on the scripted sound server, a virtual main queue and a work
// queue the test releases by hand, with every callback recorded.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "core/ring_engine.h"
#include "dispatch/test_queues.h"
#include "dispatch/virtual_main_queue.h"
#include "engine/multi_output_engine.h"
#include "platform/fake/fake_audio_backend.h"

namespace vt::engine::test {

class EngineTest : public ::testing::Test {
  protected:
    EngineTest() {
        engine.onSlotStateChanged = [this](int slot, bool open) {
            states.emplace_back(slot, open);
        };
        engine.onSlotFailed = [this](int slot, int status) { failures.emplace_back(slot, status); };
    }

    // Lets every open in flight finish and its completion reach the main thread.
    void settle() {
        while (work.runAll() > 0 || main.drain() > 0) {
        }
    }

    void openSlot(int slot, const std::string& uid) {
        engine.setOutputDevice(slot, uid);
        settle();
        ASSERT_TRUE(engine.isOpen(slot));
    }

    // Capture blocks of a constant value with host times on the real clock's
    // past, so that the timed path sees presentation times it can serve.
    void pushCapture(double startSec, double seconds, float value = 0.1f) {
        std::vector<float> block(480 * 2, value);
        for (int i = 0; i < static_cast<int>(seconds * 100); ++i) {
            ASSERT_TRUE(fake.pushCapture(block.data(), 480, startSec + i * 0.01));
        }
    }

    double pastSec(double secondsAgo) const {
        return re_engine_host_now_sec(engine.ringEngine()) - secondsAgo;
    }

    platform::FakeAudioBackend fake;
    dispatch::VirtualMainQueue main;
    dispatch::ManualWorkQueue work;
    std::vector<std::pair<int, bool>> states;
    std::vector<std::pair<int, int>> failures;
    MultiOutputEngine engine{fake, main, work};
};

}  // namespace vt::engine::test
