// vellatonectl: drives a running Vellatone over its local control socket.
// Exits 0 when the app took the command; otherwise says why in one sentence
// and exits 1 (2 for a command line it cannot read).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/control_path.h"
#include "app/local_command.h"
#include "ctl/arguments.h"
#include "ctl/control_client.h"
#include "remote/message_codec.h"
#include "remote/record_json.h"
#include "remote/remote_clock.h"

namespace {

using vt::ctl::ControlClient;
using vt::ctl::ControlError;
using vt::remote::MacState;
using vt::remote::PhoneMessage;

constexpr const char* kUsage =
    "usage: vellatonectl COMMAND [ARGS]\n"
    "  status              the app's state as one line of JSON\n"
    "  outputs             outputs that can be added: id, kind, name, transport\n"
    "                      (tab-separated; an AirPlay or Cast one may say it is still\n"
    "                      resolving, or what a TV is busy playing)\n"
    "  add ID              add an output by its id\n"
    "  remove SLOT         remove the output in a slot\n"
    "  remove-guest ID     remove a guest's phone by its client id and bar it\n"
    "  delay SLOT MS       set a slot's delay, -5000 to 5000 ms\n"
    "  volume SLOT 0..1    set a slot's volume\n"
    "  mute SLOT on|off    mute or unmute a slot\n"
    "  master 0..1         set the master volume\n"
    "  apps                apps the mixer knows: id, name, level, muted, playing\n"
    "                      (tab-separated)\n"
    "  app ID 0..1         set an app's level\n"
    "  app-mute ID on|off  mute or unmute an app\n"
    "  app-solo ID|off     play only that app, or every app again\n"
    "  start | stop        start or stop sending\n"
    "  password SLOT       give the AirPlay receiver in a slot its password, read\n"
    "                      from the first line of standard input; it is kept\n"
    "  track               what the computer plays, in one line\n"
    "  play | pause | toggle | next | previous | forward15 | back15\n"
    "                      steer the media player that plays\n"
    "  seek SECONDS        move the player to a place in the track\n"
    "  calibrate SLOT REFERENCE-SLOT microphone|reported [--apply]\n"
    "                      measure how late a slot is against another; prints\n"
    "                      \"measured SLOT: X ms\", and keeps it with --apply\n"
    "  send 'JSON'         send one message line as it is\n"
    "The socket is $VELLATONE_CONTROL_SOCKET, else $XDG_RUNTIME_DIR/vellatone/control.sock.\n";

struct UsageError {
    std::string sentence;
};

const vt::remote::RowInfo* rowIn(const MacState& s, int slot) {
    for (const auto& r : s.rows)
        if (r.slot == slot) return &r;
    return nullptr;
}

int slotArg(const std::vector<std::string>& args, size_t i, const MacState& s) {
    std::optional<int> slot = vt::ctl::parseSlot(args.at(i));
    if (!slot) throw UsageError{"\"" + args[i] + "\" is not a slot number."};
    if (!rowIn(s, *slot)) throw ControlError("There is no output in slot " + args[i] + ".");
    return *slot;
}

double numberArg(const std::vector<std::string>& args, size_t i, double lo, double hi,
                 const std::string& what) {
    std::optional<double> v = vt::ctl::parseNumber(args.at(i), lo, hi);
    if (!v) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        throw UsageError{"\"" + args[i] + "\" is not a " + what + " from " + range + "."};
    }
    return *v;
}

constexpr double kMaxSeekSeconds = 24 * 3600;

std::optional<vt::remote::MediaCommand> mediaCommand(const std::string& cmd) {
    using vt::remote::MediaCommand;
    static const std::map<std::string, MediaCommand> words = {
        {"play", MediaCommand::play},
        {"pause", MediaCommand::pause},
        {"toggle", MediaCommand::togglePlayPause},
        {"next", MediaCommand::next},
        {"previous", MediaCommand::previous},
        {"forward15", MediaCommand::forward15},
        {"back15", MediaCommand::back15}};
    auto it = words.find(cmd);
    if (it == words.end()) return std::nullopt;
    return it->second;
}

std::string clockText(double seconds) {
    const long s = std::lround(std::max(seconds, 0.0));
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

// "Title · Artist — Album (playing, 0:42 of 3:20) in mpv", or that nothing plays.
std::string trackLine(const MacState& s) {
    if (!s.nowPlaying || s.nowPlaying->title.empty()) return "nothing playing";
    const auto& n = *s.nowPlaying;
    std::string line = n.title;
    if (!n.artist.empty()) line += " · " + n.artist;
    if (!n.album.empty()) line += " — " + n.album;
    line += n.playing ? " (playing" : " (paused";
    if (n.elapsed) {
        double at = *n.elapsed;
        if (n.playing && n.elapsedAt)
            at += std::max(0.0, vt::remote::RemoteClock::now() - *n.elapsedAt);
        if (n.duration) at = std::min(at, *n.duration);
        line += ", " + clockText(at);
        if (n.duration) line += " of " + clockText(*n.duration);
    }
    line += ")";
    if (n.appName && !n.appName->empty()) line += " in " + *n.appName;
    return line;
}

// Sends, waits until the app has handled it, and checks the result.
void command(ControlClient& c, const PhoneMessage& m,
             const std::function<bool(const MacState&)>& ok, const std::string& refused) {
    c.send(m);
    c.sync();
    if (!ok(c.state())) throw ControlError(refused);
}

int run(const std::vector<std::string>& args) {
    if (args.empty()) throw UsageError{"No command given."};
    const std::string& cmd = args[0];
    static const std::map<std::string, size_t> arity = {
        {"status", 1},   {"outputs", 1},      {"add", 2},      {"remove", 2},   {"delay", 3},
        {"volume", 3},   {"mute", 3},         {"master", 2},   {"start", 1},    {"stop", 1},
        {"send", 2},     {"remove-guest", 2}, {"password", 2}, {"track", 1},    {"play", 1},
        {"pause", 1},    {"toggle", 1},       {"next", 1},     {"previous", 1}, {"forward15", 1},
        {"back15", 1},   {"seek", 2},         {"apps", 1},     {"app", 3},      {"app-mute", 3},
        {"app-solo", 2}, {"calibrate", 4}};
    // Only a calibration takes a flag.
    const bool applyFlag = cmd == "calibrate" && args.size() == 5 && args[4] == "--apply";
    auto it = arity.find(cmd);
    if (it == arity.end()) throw UsageError{"\"" + cmd + "\" is not a command."};
    if (args.size() != it->second && !applyFlag)
        throw UsageError{"\"" + cmd + "\" takes " + std::to_string(it->second - 1) + " argument" +
                         (it->second == 2 ? "" : "s") + "."};

    // Values are checked before the app is asked anything.
    if (cmd == "delay") numberArg(args, 2, -5000, 5000, "delay in ms");
    if (cmd == "volume") numberArg(args, 2, 0, 1, "volume");
    if (cmd == "master") numberArg(args, 1, 0, 1, "volume");
    if (cmd == "seek") numberArg(args, 1, 0, kMaxSeekSeconds, "position in seconds");
    if (cmd == "app") numberArg(args, 2, 0, 1, "level");
    if (cmd == "app-mute" && !vt::ctl::parseSwitch(args[2]))
        throw UsageError{"\"" + args[2] + "\" is neither on nor off."};
    if (cmd == "mute" && !vt::ctl::parseSwitch(args[2]))
        throw UsageError{"\"" + args[2] + "\" is neither on nor off."};
    if ((cmd == "remove" || cmd == "delay" || cmd == "volume" || cmd == "mute" ||
         cmd == "password") &&
        !vt::ctl::parseSlot(args[1]))
        throw UsageError{"\"" + args[1] + "\" is not a slot number."};
    if (cmd == "calibrate") {
        for (size_t i : {size_t{1}, size_t{2}})
            if (!vt::ctl::parseSlot(args[i]))
                throw UsageError{"\"" + args[i] + "\" is not a slot number."};
        if (args[3] != "microphone" && args[3] != "reported")
            throw UsageError{"\"" + args[3] + "\" is neither microphone nor reported."};
    }
    std::optional<PhoneMessage> raw;
    if (cmd == "send") {
        raw = vt::remote::tryDecodePhoneMessage(args[1]);
        if (!raw) throw UsageError{"That is not a message Vellatone understands."};
    }

    const std::filesystem::path socket = vt::app::controlSocketPath();
    if (auto why = vt::app::controlFolderProblem(socket)) throw std::runtime_error(*why);
    ControlClient c(socket);
    const MacState& s = c.state();

    if (cmd == "status") {
        std::printf("%s\n", vt::remote::toJson(s).dump().c_str());
    } else if (cmd == "outputs") {
        for (const auto& e : s.extras)
            std::printf("%s\t%s\t%s\t%s\n", e.id.c_str(),
                        std::string(vt::remote::rawValue(e.kind)).c_str(), e.name.c_str(),
                        e.transport.c_str());
    } else if (cmd == "add") {
        const std::string id = args[1];
        std::string name;
        bool offered = false;
        for (const auto& e : s.extras)
            if (e.id == id) {
                offered = true;
                name = e.name;
            }
        if (!offered)
            throw ControlError("No output \"" + id +
                               "\" can be added; vellatonectl outputs lists those that can.");
        const size_t before = s.rows.size();
        command(
            c, PhoneMessage::AddOutput{id},
            [&](const MacState& now) { return now.rows.size() > before; },
            "Vellatone did not add " + id + " (eight outputs is the most).");
        // The new row is the one that was not there before.
        const auto& rows = c.state().rows;
        size_t slot = before;
        for (size_t i = 0; i < rows.size(); ++i)
            if (rows[i].name == name) slot = i;
        std::printf("%s added as output %zu (slot %zu)\n", name.c_str(), slot + 1, slot);
    } else if (cmd == "remove") {
        const int slot = slotArg(args, 1, s);
        const size_t before = s.rows.size();
        command(
            c, PhoneMessage::RemoveOutput{slot, std::nullopt},
            [&](const MacState& now) { return now.rows.size() < before; },
            "Vellatone kept the output in slot " + args[1] + ": one output always stays.");
    } else if (cmd == "remove-guest") {
        const std::string id = args[1];
        auto present = [&](const MacState& now) {
            for (const auto& r : now.rows)
                if (r.guestID == id) return true;
            return false;
        };
        if (!present(s)) throw ControlError("No guest has the client id \"" + id + "\".");
        command(
            c, PhoneMessage::RemoveOutput{-1, id},
            [&](const MacState& now) { return !present(now); },
            "Vellatone kept the guest " + id + ".");
    } else if (cmd == "delay") {
        const int slot = slotArg(args, 1, s);
        const double ms = numberArg(args, 2, -5000, 5000, "delay in ms");
        command(
            c, PhoneMessage::SetTrim{slot, ms},
            [&](const MacState& now) {
                const auto* r = rowIn(now, slot);
                return r && std::fabs(r->trimMs - ms) < 1e-6;
            },
            "Vellatone did not take the delay.");
    } else if (cmd == "volume") {
        const int slot = slotArg(args, 1, s);
        const double v = numberArg(args, 2, 0, 1, "volume");
        command(
            c, PhoneMessage::SetVolume{slot, v},
            [&](const MacState& now) {
                const auto* r = rowIn(now, slot);
                return r && std::fabs(r->volume - v) < 1e-6;
            },
            "Vellatone did not take the volume.");
    } else if (cmd == "mute") {
        const int slot = slotArg(args, 1, s);
        const bool on = *vt::ctl::parseSwitch(args[2]);
        command(
            c, PhoneMessage::SetMuted{slot, on},
            [&](const MacState& now) {
                const auto* r = rowIn(now, slot);
                return r && r->muted == on;
            },
            "Vellatone did not take the mute.");
    } else if (cmd == "master") {
        const double v = numberArg(args, 1, 0, 1, "volume");
        command(
            c, PhoneMessage::SetMaster{v},
            [&](const MacState& now) { return std::fabs(now.master - v) < 1e-6; },
            "Vellatone did not take the master volume.");
    } else if (cmd == "start" || cmd == "stop") {
        const bool on = cmd == "start";
        command(
            c, PhoneMessage::SetRunning{on}, [&](const MacState& now) { return now.running == on; },
            on ? "Vellatone did not start; its notices on standard error say why."
               : "Vellatone did not stop.");
        if (on) {
            size_t playing = 0;
            for (const auto& r : c.state().rows) playing += r.disabled ? 0 : 1;
            std::printf("playing to %zu output%s\n", playing, playing == 1 ? "" : "s");
        } else {
            std::printf("stopped; the computer plays through its own output again\n");
        }
    } else if (cmd == "password") {
        const int slot = slotArg(args, 1, s);
        const vt::remote::RowInfo& row = *rowIn(s, slot);
        if (row.kind != vt::remote::RowInfo::Kind::airplay)
            throw ControlError("The output in slot " + args[1] + " is not an AirPlay receiver.");
        // From standard input, so that it shows in no process list.
        std::string password;
        if (!std::getline(std::cin, password)) throw UsageError{"No password on standard input."};
        if (!password.empty() && password.back() == '\r') password.pop_back();
        c.sendLine(vt::app::encodeLocalCommand({slot, password}));
        c.sync();
        std::printf("password kept for %s; trying it\n", row.name.c_str());
    } else if (cmd == "track") {
        std::printf("%s\n", trackLine(s).c_str());
    } else if (auto media = mediaCommand(cmd)) {
        c.send(PhoneMessage::Media{*media});
        c.sync();
    } else if (cmd == "seek") {
        c.send(PhoneMessage::Seek{numberArg(args, 1, 0, kMaxSeekSeconds, "position in seconds")});
        c.sync();
    } else if (cmd == "send") {
        c.sendLine(args[1]);
        c.sync();
    } else if (cmd == "calibrate") {
        const nlohmann::json answer =
            c.calibrationRequest({{"type", "calibration.run"},
                                  {"slot", *vt::ctl::parseSlot(args[1])},
                                  {"reference", *vt::ctl::parseSlot(args[2])},
                                  {"method", args[3]},
                                  {"apply", applyFlag}});
        if (answer.value("type", "") != "calibration.done")
            throw ControlError(answer.value("why", std::string("Vellatone did not measure it.")));
        std::printf("measured %s: %.1f ms\n", args[1].c_str(), answer.value("ms", 0.0));
    } else if (cmd == "apps") {
        const nlohmann::json answer = c.mixerRequest({{"type", "mixer.apps"}});
        for (const auto& a : answer.value("apps", nlohmann::json::array())) {
            if (!a.is_object()) continue;
            std::printf("%s\t%s\t%g\t%s\t%s\n", a.value("id", "").c_str(),
                        a.value("name", "").c_str(), a.value("level", 1.0),
                        a.value("muted", false) ? "muted" : "-",
                        a.value("playing", false) ? "playing" : "-");
        }
    } else if (cmd == "app" || cmd == "app-mute" || cmd == "app-solo") {
        nlohmann::json line;
        if (cmd == "app")
            line = {{"type", "mixer.level"},
                    {"id", args[1]},
                    {"level", numberArg(args, 2, 0, 1, "level")}};
        else if (cmd == "app-mute")
            line = {
                {"type", "mixer.mute"}, {"id", args[1]}, {"on", *vt::ctl::parseSwitch(args[2])}};
        else
            line = {{"type", "mixer.solo"},
                    {"id", args[1] == "off" ? nlohmann::json() : nlohmann::json(args[1])}};
        const nlohmann::json answer = c.mixerRequest(line);
        if (answer.value("type", "") != "mixer.done")
            throw ControlError(answer.value("why", std::string("Vellatone did not take it.")));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "-h" || args[0] == "--help" || args[0] == "help")) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    try {
        return run(args);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "vellatonectl: %s\n%s", e.sentence.c_str(), kUsage);
        return 2;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vellatonectl: %s\n", e.what());
        return 1;
    }
}
