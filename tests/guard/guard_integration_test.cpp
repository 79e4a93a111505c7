// Taking and giving back the default sink on a real sound server: a private
// PulseAudio with two speakers and another program playing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "guard/crash_recovery.h"
#include "guard/output_restorer.h"
#include "platform/pulse/pulse_backend.h"
#include "support/private_pulse.h"

namespace vt::guard {
namespace {

template <class F>
bool eventually(F done, double seconds = 5.0) {
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return done();
}

// Another program playing silence to the default sink.
struct Player {
    pid_t pid = -1;
    Player() {
        pid = fork();
        if (pid == 0) {
            execlp("paplay", "paplay", "--raw", "--client-name=GuardTestPlayer", "/dev/zero",
                   static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Player() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

bool silence(void*, float* frames, uint32_t count, double, double) {
    std::fill_n(frames, 2 * static_cast<size_t>(count), 0.0f);
    return true;
}

class GuardIntegration : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(pulse.running()) << pulse.error();
        ASSERT_EQ(pulse.run("pactl set-default-sink speakers"), 0);
        char tmpl[] = "/tmp/vt-guard-it-XXXXXX";
        dir = ::mkdtemp(tmpl);
        settings = std::make_unique<settings::Settings>(dir / "settings.json");
        backend = std::make_unique<platform::PulseBackend>();
        ASSERT_TRUE(backend->connected());
    }
    void TearDown() override {
        backend.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    std::optional<platform::SinkInputInfo> playerStream() {
        for (auto& in : backend->sinkInputs())
            if (!in.ours && in.properties["application.name"] == "GuardTestPlayer") return in;
        return std::nullopt;
    }
    bool playerOn(const std::string& sink) {
        auto s = backend->sinkByName(sink);
        auto in = playerStream();
        return s && in && in->sink == s->id;
    }
    std::string defaultSinkByPactl() {
        std::string out;
        pulse.run("pactl get-default-sink", &out);
        while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
        return out;
    }

    support::PrivatePulse pulse{{"speakers:48000:Speakers", "den:48000:Den"}};
    std::filesystem::path dir;
    std::unique_ptr<settings::Settings> settings;
    std::unique_ptr<platform::PulseBackend> backend;
};

TEST_F(GuardIntegration, TheStreamGoesToTheCaptureSinkAndComesBack) {
    Player player;
    ASSERT_TRUE(eventually([&] { return playerOn("speakers"); })) << "paplay did not start";
    auto ours = backend->openPlayback("den", 0, silence, nullptr);
    ASSERT_TRUE(ours.stream) << ours.error;

    OutputRestorer restorer(*backend, *settings);
    restorer.switchToCaptureSink();
    EXPECT_TRUE(eventually([&] { return playerOn("vellatone"); }));
    EXPECT_EQ(defaultSinkByPactl(), "vellatone");
    EXPECT_EQ(settings->pendingRestoreUID(), "speakers");
    const platform::DeviceId den = backend->sinkByName("den")->id;
    for (auto& in : backend->sinkInputs())
        EXPECT_TRUE(!in.ours || in.sink == den) << "ours never moves";

    restorer.restore();
    EXPECT_TRUE(eventually([&] { return playerOn("speakers"); }));
    EXPECT_EQ(defaultSinkByPactl(), "speakers");
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_TRUE(eventually([&] { return !backend->sinkByName("vellatone"); }));
}

TEST_F(GuardIntegration, ARunThatDiedHoldingTheOutputIsRepairedAtTheNextLaunch) {
    Player player;
    ASSERT_TRUE(eventually([&] { return playerOn("speakers"); }));
    {
        // The dead run: it took the output and never gave it back. The sink
        // it loaded outlives it, as a module of the server does.
        OutputRestorer dead(*backend, *settings);
        dead.switchToCaptureSink();
        ASSERT_TRUE(eventually([&] { return playerOn("vellatone"); }));
    }
    backend = std::make_unique<platform::PulseBackend>();
    ASSERT_TRUE(eventually([&] { return playerOn("vellatone"); }));
    settings = std::make_unique<settings::Settings>(dir / "settings.json");

    auto restored = recoverAfterCrash(*backend, *settings);
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->name, "Speakers");
    EXPECT_TRUE(restored->afterCrash);
    EXPECT_EQ(defaultSinkByPactl(), "speakers");
    EXPECT_TRUE(eventually([&] { return playerOn("speakers"); }));
    EXPECT_FALSE(settings->pendingRestoreUID());
    EXPECT_TRUE(eventually([&] { return !backend->sinkByName("vellatone"); }));
}

}  // namespace
}  // namespace vt::guard
