// The sender against a scripted stand-in for the tool (fake-tool.sh), a real
// child process with real pipes; the main queue runs on virtual time, so the
// 6 s start deadline passes at once.
#include "airplay/airplay_sender.h"

#include <stdlib.h>

#include <gtest/gtest.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "dispatch/virtual_main_queue.h"

namespace vt::airplay {
namespace {

using Kind = AirPlayStatus::Kind;
namespace fs = std::filesystem;

class AirPlaySenderTest : public ::testing::Test {
  protected:
    AirPlaySenderTest() {
        char tmpl[] = "/tmp/vt-sender-XXXXXX";
        dir_ = mkdtemp(tmpl);
        setenv("FAKE_TOOL_DIR", dir_.c_str(), 1);
        setenv("TMPDIR", dir_.c_str(), 1);
        for (const char* v :
             {"FAKE_TOOL_OUT", "FAKE_TOOL_ERR", "FAKE_TOOL_ON_START", "FAKE_TOOL_EXIT"})
            unsetenv(v);
    }
    ~AirPlaySenderTest() override {
        sender_.reset();
        fs::remove_all(dir_);
    }

    void make(const char* timing, const char* route,
              std::optional<std::string> host = "127.0.0.1") {
        AirPlaySender::Config c;
        c.binary = VELLATONE_FAKE_AIRPLAY_TOOL;
        c.receiver.id = c.receiver.name = "Kitchen";
        c.receiver.host = host;
        c.receiver.port = 5000;
        c.receiver.txt = {{"et", "0,1"}, {"am", "AirPort10,115"}};
        c.password = "hunter2";
        c.deviceID = "02:11:22:33:44:55";
        c.timing = timing;
        c.route = route;
        c.render = [this](float* into, uint32_t frames) {
            ++renders_;
            for (uint32_t i = 0; i < 2 * frames; ++i) into[i] = 0.25f;
        };
        sender_ = std::make_unique<AirPlaySender>(std::move(c), queue_);
        sender_->onStatus = [this](const AirPlayStatus& s) { statuses_.push_back(s); };
        sender_->onLatency = [this](double ms) { latencies_.push_back(ms); };
    }
    // Runs the virtual queue while real time passes, until `done` or 5 s.
    bool waitFor(const std::function<bool()>& done) {
        for (int i = 0; i < 500; ++i) {
            queue_.drain();
            if (done()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    bool saw(Kind kind) const {
        for (const auto& s : statuses_)
            if (s.kind == kind) return true;
        return false;
    }
    std::string file(const char* name) const {
        std::ifstream in(dir_ / name);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    size_t fifos() const {
        size_t n = 0;
        for (const auto& e : fs::directory_iterator(dir_))
            n += e.path().filename().string().rfind("vellatone-ap-", 0) == 0;
        return n;
    }

    fs::path dir_;
    dispatch::VirtualMainQueue queue_;
    std::unique_ptr<AirPlaySender> sender_;
    std::vector<AirPlayStatus> statuses_;
    std::vector<double> latencies_;
    std::atomic<int> renders_{0};
};

TEST_F(AirPlaySenderTest, AnNtpReceiverStartsOnConnectedAndPlaysAtTheToolsLead) {
    setenv("FAKE_TOOL_OUT", "[STATUS] route protocol=raop timing=ntp\\n", 1);
    setenv("FAKE_TOOL_ERR", "[STATUS] connected\\n[STATUS] clock_ready mode=ntp state=cold\\n", 1);
    setenv("FAKE_TOOL_ON_START",
           "[STATUS] latency lead_ms=2210\\n[STATUS] started requested_unix_ms=0 at_unix_ms=9\\n",
           1);
    make("ntp", "raop");
    sender_->send({"Song\nTitle", "Artist", "Album", "", std::nullopt});
    sender_->start();
    ASSERT_TRUE(waitFor([&] { return saw(Kind::streaming) && !latencies_.empty(); }));
    EXPECT_EQ(statuses_.front().kind, Kind::connecting);
    EXPECT_EQ(latencies_.back(), 2210);
    ASSERT_TRUE(
        waitFor([&] { return fs::exists(dir_ / "pcm") && fs::file_size(dir_ / "pcm") >= 17640; }));

    const std::string commands = file("commands");
    // The start with no time, then the metadata that came before it, once.
    EXPECT_EQ(commands.find("TITLE=Song Title\nSTART_UNIX_MS=0\nVOLUME=100\nACTION=START\n"), 0u)
        << commands;
    EXPECT_NE(commands.find("ARTIST=Artist\nALBUM=Album\nARTWORKFILE=\nACTION=SENDMETA\n"),
              std::string::npos)
        << commands;

    const std::string args = file("args");
    EXPECT_EQ(args.find("--protocol\nraop\n--name\n"), 0u) << args;
    for (const char* part : {"--port\n5000\n--samplerate\n44100\n--bitdepth\n16\n--channels\n2\n"
                             "--latency\n350\n--cmdpipe\n",
                             "--timing\nntp\n--dacp\n02:11:22:33:44:55\n--password\nhunter2\n",
                             "--if\n127.0.0.1\n--publish-ip\n127.0.0.1\n", "--et\n0,1\n",
                             "--am\nAirPort10,115\n127.0.0.1\n"})
        EXPECT_NE(args.find(part), std::string::npos) << part << " in\n" << args;
    EXPECT_NE(file("env").find("CLIAIRPLAY_SETUP_TIMEOUT_MS=20000"), std::string::npos);

    sender_->stop();
    queue_.drain();
    EXPECT_EQ(statuses_.back().kind, Kind::stopped);
    EXPECT_EQ(fifos(), 0u);
    EXPECT_NE(file("commands").find("ACTION=STOP"), std::string::npos);
    // The pump stopped with the tool.
    const int renders = renders_;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(renders_, renders);
}

TEST_F(AirPlaySenderTest, APairingsIdAndCredentialGoOnTheNativeRouteOnly) {
    for (const char* route : {"airplay2", "airplay2-compat"}) {
        make("ptp", route);
        AirPlaySender::Config c = sender_->config();
        c.credential = AirPlayCredential{"02:99:99:99:99:99", "c0ffee"};
        const auto args = AirPlaySender(std::move(c), queue_).arguments("/tmp/p");
        const auto has = [&](const std::string& a, const std::string& b) {
            for (size_t i = 0; i + 1 < args.size(); ++i)
                if (args[i] == a && args[i + 1] == b) return true;
            return false;
        };
        EXPECT_TRUE(has("--dacp", "02:99:99:99:99:99")) << route;
        EXPECT_EQ(has("--auth", "c0ffee"), std::string(route) == "airplay2") << route;
    }
}

TEST_F(AirPlaySenderTest, APtpReceiverWithoutAClockStartsSixSecondsAfterConnecting) {
    setenv("FAKE_TOOL_ERR", "[STATUS] connected\\n", 1);
    make("ptp", "airplay2");
    sender_->start();
    ASSERT_TRUE(waitFor([&] { return fs::exists(dir_ / "args"); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    queue_.drain();
    EXPECT_FALSE(fs::exists(dir_ / "commands"));
    queue_.advance(AirPlaySender::startDeadlineSeconds + 0.01);
    ASSERT_TRUE(
        waitFor([&] { return file("commands").find("ACTION=START") != std::string::npos; }));
    const std::string commands = file("commands");
    EXPECT_EQ(commands.find("TITLE=Vellatone\nSTART_UNIX_MS="), 0u);
    EXPECT_EQ(commands.find("START_UNIX_MS=0\n"), std::string::npos);  // a real time for PTP
}

TEST_F(AirPlaySenderTest, ARefusedPasswordIsToldOnceAndTheToolsEndAddsNothing) {
    setenv("FAKE_TOOL_ERR",
           "[STATUS] error code=auth_failed http=401 detail=\\\"\\\"\\n[ERROR] auth failed\\n", 1);
    setenv("FAKE_TOOL_EXIT", "1", 1);
    make("ntp", "raop");
    sender_->start();
    ASSERT_TRUE(waitFor([&] { return saw(Kind::passwordRequired); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    queue_.drain();
    EXPECT_EQ(statuses_.size(), 2u);  // connecting, passwordRequired
    // The tool is gone; stop still removes its pipe and says stopped.
    sender_->stop();
    queue_.drain();
    EXPECT_EQ(statuses_.back().kind, Kind::stopped);
    EXPECT_EQ(fifos(), 0u);
}

TEST_F(AirPlaySenderTest, AToolThatDiesSaysHowAndAnUnresolvedReceiverLaunchesNothing) {
    setenv("FAKE_TOOL_EXIT", "3", 1);
    make("ntp", "raop");
    sender_->start();
    ASSERT_TRUE(waitFor([&] { return saw(Kind::failed); }));
    EXPECT_EQ(statuses_.back().words, "sender exited (3)");

    statuses_.clear();
    fs::remove(dir_ / "args");
    make("ntp", "raop", std::nullopt);
    sender_->start();
    queue_.drain();
    ASSERT_EQ(statuses_.size(), 1u);
    EXPECT_EQ(statuses_[0], AirPlayStatus::failed("unresolved host"));
    EXPECT_FALSE(fs::exists(dir_ / "args"));
}

}  // namespace
}  // namespace vt::airplay
