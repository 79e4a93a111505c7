// The control socket's side of the model: the state a client sees, the
// messages it sends, the notice lines, the tool's arguments, and one round
// trip over a real socket.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "../model/model_fixture.h"
#include "app/calibration_control.h"
#include "app/control_path.h"
#include "app/control_server.h"
#include "app/local_command.h"
#include "app/notice_log.h"
#include "app/remote_bridge.h"
#include "ctl/arguments.h"
#include "remote/line_codec.h"
#include "remote/message_codec.h"
#include "settings/bounded_text.h"
#include "support/test_env.h"

namespace vt::app {
namespace {

using remote::PhoneMessage;
using vt::test::ScopedEnv;

class Bridge : public model::test::ModelTest {
  protected:
    RemoteBridge& bridge() {
        if (!bridge_) bridge_ = std::make_unique<RemoteBridge>(*model, fake, "host", "0.1.0");
        return *bridge_;
    }
    std::unique_ptr<RemoteBridge> bridge_;
};

TEST_F(Bridge, TheStateOffersUnusedDevicesByMemoryKeyAndShowsRowsInDisplayOrder) {
    model::AppModel& m = withRows({"living", "den"});
    m.moveRow(1, 0);
    remote::MacState s = bridge().snapshot();
    ASSERT_EQ(s.rows.size(), 2u);
    EXPECT_EQ(s.rows[0].slot, 1);
    EXPECT_EQ(s.rows[0].name, "Den");
    EXPECT_EQ(s.rows[0].transport, "Audio · Audio · 48 kHz");
    std::vector<std::string> extras;
    for (const auto& e : s.extras) extras.push_back(e.id);
    EXPECT_EQ(extras, (std::vector<std::string>{"uid:speakers", "uid:kitchen"}));
    EXPECT_EQ(s.presets.size(), 7u);
    EXPECT_FALSE(s.running);
}

TEST_F(Bridge, MessagesDriveTheModelAndBadSlotsAreIgnored) {
    model::AppModel& m = withRows({"living"});
    bridge().handle(PhoneMessage::AddOutput{"uid:kitchen"});
    bridge().handle(PhoneMessage::AddOutput{"air:somewhere"});
    ASSERT_EQ(m.rows().size(), 2u);
    bridge().handle(PhoneMessage::SetTrim{1, 100});
    bridge().handle(PhoneMessage::SetTrim{5, 100});
    bridge().handle(PhoneMessage::SetVolume{0, 0.5});
    bridge().handle(PhoneMessage::SetMuted{-1, true});
    bridge().handle(PhoneMessage::SetRowEQPreset{0, "voice"});
    bridge().handle(PhoneMessage::SetEQGain{0, 30});
    bridge().handle(PhoneMessage::Solo{1});
    EXPECT_DOUBLE_EQ(m.rows()[1].delayMs, 100);
    EXPECT_DOUBLE_EQ(m.rows()[0].volume, 0.5);
    EXPECT_EQ(m.matchedEQPreset(0), "voice");
    EXPECT_DOUBLE_EQ(m.masterEQ().bands[0].gainDb, 24);
    EXPECT_EQ(bridge().snapshot().soloSlot, 1);

    bridge().handle(PhoneMessage::SetRunning{true});
    EXPECT_TRUE(m.isRunning());
    bridge().handle(PhoneMessage::SetRunning{true});
    EXPECT_TRUE(m.isRunning());
    bridge().handle(PhoneMessage::RemoveOutput{0, std::nullopt});
    EXPECT_EQ(m.rows().size(), 1u);
    bridge().handle(PhoneMessage::RemoveOutput{0, std::nullopt});  // the last one stays
    EXPECT_EQ(m.rows().size(), 1u);

    auto pong = bridge().handle(PhoneMessage::Ping{7, 1.5});
    ASSERT_TRUE(pong && pong->get<remote::MacMessage::Pong>());
    EXPECT_EQ(pong->get<remote::MacMessage::Pong>()->id, 7);
    EXPECT_FALSE(bridge().handle(PhoneMessage::Forget{}).has_value());
}

TEST_F(Bridge, GuestRowsSayGuestOnceAndGoByTheirSlot) {
    model::AppModel& m = withRows({"living"});
    enableGuests();
    bridge().handle(PhoneMessage::SetRunning{true});
    ASSERT_NE(m.guestParty(), nullptr);
    join("ann-phone", "Ann", 1);
    join("bob-phone", "Bob", 2);

    remote::MacState s = bridge().snapshot();
    ASSERT_EQ(s.rows.size(), 3u);
    EXPECT_EQ(s.rows[1].kind, remote::RowInfo::Kind::guest);
    EXPECT_EQ(s.rows[1].transport, "Guest \u00b7 joining");
    EXPECT_EQ(s.rows[1].name, "Guest \u00b7 Ann");

    // As "vellatonectl remove 1" sends it.
    bridge().handle(PhoneMessage::RemoveOutput{1, std::nullopt});
    ASSERT_EQ(m.rows().size(), 2u);
    EXPECT_EQ(m.rows()[1].guestID, "bob-phone");
    // A stale slot with the guest's id still finds the guest.
    bridge().handle(PhoneMessage::RemoveOutput{2, "bob-phone"});
    EXPECT_EQ(m.rows().size(), 1u);
    EXPECT_EQ(m.guestParty()->count(), 0u);
}

TEST_F(Bridge, AMeasurementOnTheSocketAnswersOnceItHasEnded) {
    model::AppModel& m = withRows({"living", "den"});
    std::vector<nlohmann::json> answers;
    auto run = [&](nlohmann::json line) {
        handleCalibrationLine(m, main, line, [&](const std::string& reply) {
            answers.push_back(nlohmann::json::parse(reply));
        });
        settle();
        return answers.back();
    };
    nlohmann::json line = {
        {"type", "calibration.run"}, {"slot", 1}, {"reference", 0}, {"method", "reported"}};
    EXPECT_EQ(run(line)["why"],
              "Slot 1 cannot be measured now: it must be playing and audible, and so must another "
              "output.");
    m.startStop();
    settle();
    // A local sink's latency is all in its stream's timing: nothing to add.
    EXPECT_EQ(run(line)["why"],
              "This speaker does not say it is meaningfully late. Nothing to correct, or it does "
              "not report its delay. Try listening instead.");
    EXPECT_FALSE(m.calibrator());
    line["method"] = "tapping";  // needs a person
    EXPECT_EQ(run(line)["type"], "calibration.failed");
    EXPECT_EQ(answers.size(), 3u);
}

TEST(NoticeLog, EachNoticeIsLoggedWhenItAppearsAndAgainWhenItReturns) {
    model::Notice n;
    n.id = "start";
    n.title = "Vellatone couldn’t start";
    n.line = "The capture driver didn’t answer.";
    NoticeLog log;
    EXPECT_EQ(log.newLines({n}),
              std::vector<std::string>{
                  "notice start: Vellatone couldn’t start The capture driver didn’t answer."});
    EXPECT_TRUE(log.newLines({n}).empty());
    EXPECT_TRUE(log.newLines({}).empty());
    EXPECT_EQ(log.newLines({n}).size(), 1u);
}

TEST(ControlArguments, OnlyExactValuesAreTaken) {
    EXPECT_EQ(ctl::parseSlot("3"), 3);
    for (const char* bad : {"", "-1", "1.5", "x", " 2", "9999999999"})
        EXPECT_FALSE(ctl::parseSlot(bad).has_value()) << bad;
    EXPECT_EQ(ctl::parseNumber("0.25", 0, 1), 0.25);
    EXPECT_EQ(ctl::parseNumber("-100", -5000, 5000), -100);
    for (const char* bad : {"", "1.5", "nan", "inf", "0.5x", " 0.5"})
        EXPECT_FALSE(ctl::parseNumber(bad, 0, 1).has_value()) << bad;
    EXPECT_EQ(ctl::parseSwitch("on"), true);
    EXPECT_EQ(ctl::parseSwitch("off"), false);
    EXPECT_FALSE(ctl::parseSwitch("maybe").has_value());
}

// A blocking client of the socket that reads whole lines.
class Client {
  public:
    explicit Client(const std::filesystem::path& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        timeval tv{5, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Client() { ::close(fd_); }
    bool connected() const { return connected_; }
    void write(const std::string& s) {
        ASSERT_EQ(::write(fd_, s.data(), s.size()), ssize_t(s.size()));
    }
    // The next line, pumping the main queue while waiting; empty at the end.
    std::string line(dispatch::VirtualMainQueue& main) {
        for (int i = 0; i < 500; ++i) {
            if (!lines_.empty()) {
                std::string l = lines_.front();
                lines_.erase(lines_.begin());
                return l;
            }
            main.drain();
            char buf[8192];
            timeval tv{0, 10000};
            ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            ssize_t n = ::read(fd_, buf, sizeof buf);
            if (n == 0) return "";
            if (n > 0)
                for (auto& l : codec_.feed(std::string_view(buf, size_t(n)))) lines_.push_back(l);
        }
        return "";
    }

  private:
    int fd_ = -1;
    bool connected_ = false;
    remote::LineCodec codec_;
    std::vector<std::string> lines_;
};

TEST_F(Bridge, ASocketClientGetsTheStateAtConnectAndAfterEachChange) {
    model::AppModel& m = withRows({"living"});
    const std::filesystem::path path = dir / "control" / "control.sock";
    std::vector<PasswordCommand> passwords;
    ControlServer server(
        main, path, [&] { return bridge().snapshot(); },
        [&](const PhoneMessage& msg) { return bridge().handle(msg); },
        [&](const std::string& line) {
            auto command = decodeLocalCommand(line);
            if (command) passwords.push_back(*command);
            return command.has_value();
        });
    server.start();
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    Client c(path);
    ASSERT_TRUE(c.connected());
    EXPECT_EQ(c.line(main).rfind("{\"state\":", 0), 0u);

    c.write(R"({"setVolume":{"slot":0,"volume":0.5}})"
            "\n"
            R"({"ping":{"id":1,"phoneSent":0}})"
            "\n");
    std::string state = c.line(main);
    auto decoded = remote::tryDecodeMacMessage(state);
    ASSERT_TRUE(decoded && decoded->get<remote::MacMessage::State>()) << state;
    EXPECT_DOUBLE_EQ(decoded->get<remote::MacMessage::State>()->value.rows[0].volume, 0.5);
    EXPECT_EQ(c.line(main).rfind("{\"pong\":", 0), 0u);
    EXPECT_DOUBLE_EQ(m.rows()[0].volume, 0.5);

    // Nothing changed: no state, only the pong.
    c.write(R"({"ping":{"id":2,"phoneSent":0}})"
            "\n");
    EXPECT_EQ(c.line(main).rfind("{\"pong\":", 0), 0u);

    // A second server on the same path refuses to start while this one answers.
    ControlServer other(
        main, path, [&] { return bridge().snapshot(); },
        [&](const PhoneMessage& msg) { return bridge().handle(msg); });
    EXPECT_THROW(other.start(), std::runtime_error);

    // A password, which only this socket takes, goes to the local handler.
    c.write(encodeLocalCommand({1, "se\"cret ü"}) + "\n" + R"({"ping":{"id":3,"phoneSent":0}})" +
            "\n");
    EXPECT_EQ(c.line(main).rfind("{\"pong\":", 0), 0u);
    ASSERT_EQ(passwords.size(), 1u);
    EXPECT_EQ(passwords[0].slot, 1);
    EXPECT_EQ(passwords[0].password, "se\"cret ü");
    for (const char* bad :
         {R"({"airplayPassword":{"slot":-1,"password":"x"}})",
          R"({"airplayPassword":{"slot":1.5,"password":"x"}})",
          R"({"airplayPassword":{"slot":1,"password":7}})", R"({"airplayPassword":{"slot":1}})",
          R"({"airplayPassword":{"slot":1,"password":"x","more":1}})",
          R"({"airplayPassword":{"slot":1,"password":"x"},"x":1})", "[1]"})
        EXPECT_FALSE(decodeLocalCommand(bad)) << bad;
    EXPECT_FALSE(decodeLocalCommand(encodeLocalCommand({0, std::string(257, 'x')})));

    // A line that is neither ends the link.
    c.write("{\"setVolume\":{}, \"x\":1}\n");
    EXPECT_EQ(c.line(main), "");
}

// A rename of 60,000 characters was stored and sent in every state message.
TEST_F(Bridge, AnEndlessRenameIsCutToANameAStripCanShow) {
    withRows({"living"});
    bridge().handle(PhoneMessage::Rename{0, std::string(60'000, 'r')});
    EXPECT_EQ(bridge().snapshot().rows.at(0).name,
              std::string(vt::settings::kMaxNameCharacters, 'r'));
    EXPECT_EQ(settings->customName("uid:living"),
              std::string(vt::settings::kMaxNameCharacters, 'r'));
}

// With no XDG_RUNTIME_DIR the socket's folder sits in the shared temporary
// folder, where another user could make it first and take the socket's place.
TEST_F(Bridge, TheFallbackFolderIsUsedOnlyWhenItIsPlainlyOurs) {
    namespace fs = std::filesystem;
    const fs::path shared = dir / "tmp";
    fs::create_directories(shared);
    ::chmod(shared.c_str(), 01777);  // as /tmp is
    ScopedEnv tmp("TMPDIR", shared.c_str());
    ScopedEnv runtime("XDG_RUNTIME_DIR", std::nullopt);
    ScopedEnv socket("VELLATONE_CONTROL_SOCKET", std::nullopt);
    const fs::path path = controlSocketPath();
    const fs::path folder = shared / ("vellatone-" + std::to_string(::getuid()));
    ASSERT_EQ(path, folder / "control.sock");

    const auto refusal = [&]() -> std::string {
        ControlServer server(
            main, path, [&] { return bridge().snapshot(); },
            [&](const PhoneMessage& msg) { return bridge().handle(msg); });
        try {
            server.start();
        } catch (const std::runtime_error& e) {
            return e.what();
        }
        return "";
    };

    if (::geteuid() == 0) {
        // Another user's folder, open to all, as the probe made it.
        fs::create_directory(folder);
        ASSERT_EQ(::chown(folder.c_str(), 65534, 65534), 0);
        ::chmod(folder.c_str(), 0777);
        EXPECT_NE(refusal().find("belongs to another user"), std::string::npos);
        EXPECT_FALSE(fs::exists(path));
        EXPECT_TRUE(controlFolderProblem(path));
        fs::remove_all(folder);
    }
    // Ours, but open to others.
    fs::create_directory(folder);
    ::chmod(folder.c_str(), 0755);
    EXPECT_NE(refusal().find("may be reached by other users"), std::string::npos);
    fs::remove_all(folder);
    // A link to a folder of ours.
    fs::create_directory(dir / "elsewhere");
    ::chmod((dir / "elsewhere").c_str(), 0700);
    fs::create_directory_symlink(dir / "elsewhere", folder);
    EXPECT_NE(refusal().find("symbolic link"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "elsewhere" / "control.sock"));
    fs::remove(folder);

    // Not there yet: made ours alone, and the socket works.
    EXPECT_EQ(refusal(), "");
    EXPECT_EQ(fs::status(folder).permissions() & fs::perms::all, fs::perms::owner_all);
    EXPECT_FALSE(controlFolderProblem(path));
}

}  // namespace
}  // namespace vt::app
