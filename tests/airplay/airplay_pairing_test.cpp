// The pairing run as the app drives it, against a stand-in tool
// (fake-pair-tool.sh) that prompts, refuses wrong codes and prints
// credentials; and the rules by which its lines become the sheet's words.
#include "airplay/airplay_pairing.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "airplay/pairing_lines.h"
#include "dispatch/virtual_main_queue.h"

namespace vt::airplay {
namespace {

using Kind = AirPlayPairing::Event::Kind;
namespace fs = std::filesystem;

TEST(PairingLines, PromptCredentialsAndTheWordsForEachComplaint) {
    EXPECT_EQ(readPairingOutLine("Please Enter The PIN shown on x:").kind,
              PairingOutLine::Kind::prompt);
    EXPECT_EQ(readPairingOutLine("enter PIN code").kind, PairingOutLine::Kind::prompt);
    const PairingOutLine creds = readPairingOutLine("[pair] CREDENTIALS:  ab12 \r");
    EXPECT_EQ(creds.kind, PairingOutLine::Kind::credentials);
    EXPECT_EQ(creds.credentials, "ab12");
    EXPECT_EQ(readPairingOutLine("[STATUS] connected").kind, PairingOutLine::Kind::other);

    const std::string name = "Living Room";
    EXPECT_EQ(readPairingErrLine("[ERROR] wrong PIN", name), "Wrong code — try again");
    EXPECT_FALSE(readPairingErrLine("[ERROR] waiting for the PIN entry", name));
    // Only the [ERROR] line of a pair is read; the status line says it again.
    EXPECT_FALSE(readPairingErrLine("[STATUS] error code=auth_failed detail=\"x\"", name));
    const auto refused = readPairingErrLine("[ERROR] answered with HTTP 403", name);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->rfind("\u2068Living Room\u2069 does not allow this computer.", 0), 0u);
    EXPECT_EQ(readPairingErrLine("[ERROR] cannot connect to 10.0.0.9:7000", name),
              "cannot connect to 10.0.0.9:7000");
    EXPECT_EQ(readPairingErrLine("--pin needs a literal value", name),
              "--pin needs a literal value");

    EXPECT_EQ(pinDigits(" 12 a3-4\n"), "1234");
    EXPECT_EQ(pinDigits("none"), "");
}

class AirPlayPairingTest : public ::testing::Test {
  protected:
    AirPlayPairingTest() {
        char tmpl[] = "/tmp/vt-pairing-XXXXXX";
        dir_ = mkdtemp(tmpl);
        setenv("FAKE_TOOL_DIR", dir_.c_str(), 1);
        setenv("TMPDIR", dir_.c_str(), 1);
        setenv("FAKE_PAIR_CODE", "3939", 1);
        unsetenv("FAKE_PAIR_ERR");
        unsetenv("FAKE_PAIR_EXIT");
    }
    ~AirPlayPairingTest() override {
        pairing_.reset();
        fs::remove_all(dir_);
    }

    void make(std::optional<std::string> host = "127.0.0.1") {
        discovery::AirPlayReceiver r;
        r.id = r.name = "Living Room";
        r.host = host;
        r.port = 7000;
        pairing_ = std::make_unique<AirPlayPairing>(VELLATONE_FAKE_PAIR_TOOL, r,
                                                    "02:AA:BB:CC:DD:EE", queue_);
        pairing_->onEvent = [this](const AirPlayPairing::Event& e) { events_.push_back(e); };
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
    size_t count(Kind kind) const {
        size_t n = 0;
        for (const auto& e : events_) n += e.kind == kind;
        return n;
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
            n += e.path().filename().string().rfind("vellatone-pair-", 0) == 0;
        return n;
    }

    fs::path dir_;
    dispatch::VirtualMainQueue queue_;
    std::unique_ptr<AirPlayPairing> pairing_;
    std::vector<AirPlayPairing::Event> events_;
};

TEST_F(AirPlayPairingTest, AWrongCodeIsSaidAndAskedAgainThenTheCredentialIsGiven) {
    make();
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::awaitingPIN) == 1; }));
    EXPECT_EQ(events_.front().kind, Kind::connecting);
    EXPECT_EQ(fifos(), 1u);

    pairing_->submitPIN("no digits at all");
    pairing_->submitPIN(" 12-34 ");
    ASSERT_TRUE(waitFor([&] { return count(Kind::awaitingPIN) == 2; }));
    pairing_->submitPIN("PIN: 3939");
    ASSERT_TRUE(waitFor([&] { return count(Kind::paired) == 1; }));
    EXPECT_EQ(file("pins"), "1234\n3939\n");
    EXPECT_EQ(events_.back().credential, (AirPlayCredential{"02:AA:BB:CC:DD:EE", "0123abcd"}));

    // The tool's end after the credential tells nothing more, and its pipe goes.
    ASSERT_TRUE(waitFor([&] { return fifos() == 0; }));
    EXPECT_EQ(count(Kind::failed), 0u);

    std::vector<std::string> args;
    std::istringstream lines(file("args"));
    for (std::string l; std::getline(lines, l);) args.push_back(l);
    ASSERT_EQ(args.size(), 10u);
    EXPECT_EQ(args[0], "--pair-setup");
    EXPECT_EQ(args[1], "--name");
    EXPECT_EQ(std::vector<std::string>(args.begin() + 3, args.begin() + 7),
              (std::vector<std::string>{"--port", "7000", "--dacp", "02:AA:BB:CC:DD:EE"}));
    EXPECT_EQ(args[7], "--cmdpipe");
    EXPECT_EQ(args[9], "127.0.0.1");
    EXPECT_NE(file("env").find("CLIAIRPLAY_SETUP_TIMEOUT_MS=180000"), std::string::npos);
    EXPECT_NE(file("env").find("CLIAIRPLAY_PAIR_TIMEOUT_MS=25000"), std::string::npos);
}

TEST_F(AirPlayPairingTest, AnEndWithoutCredentialFailsOnceWithTheLastComplaint) {
    setenv("FAKE_PAIR_ERR", "[ERROR] the receiver rejected this computer (HTTP 403)\n", 1);
    setenv("FAKE_PAIR_EXIT", "1", 1);
    make();
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::failed) == 1; }));
    EXPECT_NE(events_.back().text.find("does not allow this computer"), std::string::npos);

    unsetenv("FAKE_PAIR_ERR");
    setenv("FAKE_PAIR_EXIT", "3", 1);
    events_.clear();
    make();
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::failed) == 1; }));
    EXPECT_EQ(events_.back().text, "pairing ended (3)");

    events_.clear();
    make(std::nullopt);
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::failed) == 1; }));
    EXPECT_EQ(events_.back().text, "unresolved host");
    EXPECT_EQ(events_.size(), 1u);
}

TEST_F(AirPlayPairingTest, ACancelledOrReplacedPairingTellsNothingOfItsEnd) {
    make();
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::awaitingPIN) == 1; }));
    pairing_->cancel();
    ASSERT_TRUE(waitFor([&] { return fifos() == 0; }));
    EXPECT_EQ(count(Kind::failed), 0u);

    // A second pairing in place of a running one: the first one's end goes
    // nowhere, the second one's prompt comes.
    make();
    pairing_->start();
    make();
    pairing_->start();
    ASSERT_TRUE(waitFor([&] { return count(Kind::awaitingPIN) >= 2; }));
    pairing_.reset();
    queue_.drain();
    EXPECT_EQ(count(Kind::failed), 0u);
}

}  // namespace
}  // namespace vt::airplay
