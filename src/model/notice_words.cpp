#include "model/notice_words.h"

#include <cstdio>

#include "cast/cast_supervisor.h"
#include "guests/guest_party.h"

namespace vt::model {

std::vector<Notice> applicationNotices(const AppNoticeFacts& facts) {
    std::vector<Notice> out;
    if (!facts.captureAvailable) {
        // Nothing is installed on this platform: the capture sink is made on
        // the sound server, so what is missing is the server itself. A server
        // that has just gone is usually restarting; one that stays away needs
        // starting.
        const std::string& server = facts.soundServer;
        const bool restarting = facts.soundServerAwaySeconds &&
                                *facts.soundServerAwaySeconds < kServerAwayNoticeSeconds;
        out.push_back(Notice{
            .id = "driver",
            .title = restarting ? "Waiting for " + server : server + " isn’t answering",
            .line = "Vellatone hears the computer through the sound server, " + server +
                    ", and carries on as soon as it answers.",
            .why = "Vellatone makes its capture sink on " + server +
                   " and keeps trying to reach it. If it doesn’t come back by itself, run " +
                   facts.startCommand + " in a terminal.",
            .primary = "Copy the command",
            .tone = Notice::Tone::warn,
        });
    }
    if (facts.driverInstallError) {
        out.push_back(Notice{
            .id = "driver-install",
            .title = "The driver didn’t install",
            .line = "The computer stopped the installer before it finished.",
            .why = "Usually the password prompt was cancelled. Installing needs an administrator "
                   "password. The computer said: " +
                   *facts.driverInstallError,
            .primary = "Try again",
            .tone = Notice::Tone::fault,
        });
    }
    if (facts.startError) {
        out.push_back(Notice{
            .id = "start",
            .title = "Vellatone couldn’t start",
            .line = facts.soundServer + " didn’t make Vellatone’s capture sink.",
            .why = "Restarting " + facts.soundServer + " fixes this most times: run " +
                   facts.startCommand +
                   " in a terminal, then try again. The error was: " + *facts.startError,
            .primary = "Try again",
            .tone = Notice::Tone::fault,
        });
    }
    if (auto multihomed = multihomedNotice(facts.sharedSubnetInterfaces))
        out.push_back(std::move(*multihomed));
    if (facts.restoredOutput) {
        const guard::RestoredOutput& r = *facts.restoredOutput;
        out.push_back(Notice{
            .id = "crash",
            .title = "Your computer’s sound is back",
            .line = r.afterCrash
                        ? std::string("Vellatone quit unexpectedly, so the computer’s "
                                      "output was put back as it was.")
                        : "Vellatone is paused, so the computer’s output went back to " + r.name,
            .why = "The computer plays through " + r.name +
                   " again. Turn Vellatone on to send it to every output.",
            .primary = "Turn on Vellatone",
            .tone = Notice::Tone::good,
        });
    }
    return out;
}

namespace {

// The AirPlay receivers' own notices: one that turns this computer away,
// one that leads a group of its own, one that waits for a person's accept.
std::optional<Notice> airplayNotice(const RowState& row, const RowNoticeFacts& facts) {
    using Kind = airplay::AirPlayStatus::Kind;
    const Kind kind = row.airplayStatus->kind;
    const std::string name = row.shownName();
    if (kind == Kind::forbidden) {
        return Notice{
            .id = "forbidden",
            .title = name + " only allows its own user",
            .line =
                "Its AirPlay Receiver turns every other computer away, so there’s nothing to "
                "type here.",
            .why =
                "On that Mac, open System Settings → General → AirDrop & Handoff → AirPlay "
                "Receiver and set “Allow AirPlay for” to “Anyone on the same network”, then "
                "press Try again. With “Require password” on it asks this app for that "
                "password; with it off it shows a one-time code. Both work.",
            .primary = "Try again",
            .tone = Notice::Tone::fault,
        };
    }
    const bool unshared = kind == Kind::clockStalled || kind == Kind::clockUnshared;
    if (unshared && facts.leadsOwnGroup) {
        // There is no Home app here to open: trying again is the button.
        return Notice{
            .id = "grouped",
            .title = name + " won’t follow this computer’s clock",
            .line =
                "It’s a stereo pair or grouped in the Home app, so it takes the stream and "
                "plays nothing.",
            .why =
                "A speaker that leads a group keeps that group’s timing, and won’t follow a "
                "sender it isn’t grouped with. Ungroup it in the Home app, or split the stereo "
                "pair, and it syncs like any other speaker. Grouped, the way to play to it is "
                "the Home app itself.",
            .primary = "Try again",
            .tone = Notice::Tone::warn,
        };
    }
    const bool tookStream = kind == Kind::clockStalled && facts.appleModel;
    if (!tookStream && !(kind == Kind::needsApproval && facts.exhausted)) return std::nullopt;
    return Notice{
        .id = "approval",
        .title = name + (tookStream ? " won’t sync the stream" : " hasn’t allowed this computer"),
        .line = tookStream ? "It took the stream, and plays nothing until that Mac allows this one."
                           : "That Mac asks before every stream, and nobody accepted in time.",
        .why =
            "It has no AirPlay password, so it gates every stream behind its own “allow?” "
            "prompt. On it, open System Settings → General → AirDrop & Handoff → AirPlay "
            "Receiver and turn on “Require password”; this computer is already paired, so "
            "from then on it connects without asking. Until then, someone has to click "
            "Accept on it within 15 seconds of a try.",
        .primary = "Try again",
        .tone = Notice::Tone::warn,
    };
}

}  // namespace

std::optional<Notice> rowNotice(const RowState& row, const RowNoticeFacts& facts) {
    if (row.isDevice() && row.failedToOpen) {
        return Notice{
            .id = "device-failed",
            .title = "The sound server can’t start its sound, for Vellatone or any other app.",
            .line =
                "The sound server would not open a stream on it. Unplugging the device and "
                "plugging it back in is worth one try; restarting the sound server is what "
                "has fixed it so far.",
            .primary = "Try again",
            .tone = Notice::Tone::fault,
        };
    }
    if (row.isCast() && row.castStatus &&
        row.castStatus->kind == cast::CastStatus::Kind::unreachable) {
        const std::string port = row.castStatus->streamPort
                                     ? "TCP port " + std::to_string(*row.castStatus->streamPort)
                                     : "TCP";
        return Notice{
            .id = "cast-firewall",
            .title = "The firewall blocks " + row.shownName(),
            .line =
                "A Cast TV fetches the sound from this computer, and the firewall turns it away.",
            .why = "In your firewall, allow incoming connections to Vellatone on " + port +
                   ", then press Try again.",
            .primary = "Try again",
            .tone = Notice::Tone::fault,
        };
    }
    if (row.isAirPlay() && !row.isCast() && row.airplayStatus) return airplayNotice(row, facts);
    return std::nullopt;
}

std::optional<Notice> multihomedNotice(const std::vector<std::string>& interfaces) {
    if (interfaces.size() < 2) return std::nullopt;
    std::string list;
    for (size_t i = 0; i < interfaces.size(); ++i) {
        if (i > 0) list += i + 1 == interfaces.size() ? " and " : ", ";
        list += interfaces[i];
    }
    return Notice{
        .id = "multihomed",
        .title = "AirPlay can’t connect",
        .line =
            "Wi-Fi and Ethernet are on the same network, and the computer sends AirPlay out "
            "the wrong one.",
        .why =
            "Turn one of them off, or give them different subnets. Wired speakers aren’t "
            "affected. On this computer: " +
            list,
        .primary = "Try again",
        .tone = Notice::Tone::warn,
    };
}

std::string rowMeta(const RowState& row, const std::optional<devices::AudioDevice>& device,
                    bool missing) {
    std::string words;
    if (row.isGuest()) {
        words =
            guests::guestSubtitle(row.guestStatus.value_or(guests::GuestSender::Status::waiting),
                                  row.latencySource == settings::LatencySource::none);
    } else if (row.isCast()) {
        words = cast::castSubtitle(row.castStatus, row.streamLatencyMs, row.castSynced, missing);
    } else if (row.isAirPlay()) {
        words = "AirPlay · unavailable";
    } else if (row.deviceUID) {
        words = device ? device->meta() : "Not connected";
    } else {
        words = "Not assigned";
    }
    if (row.delayMs != 0) {
        char buf[48];
        std::snprintf(buf, sizeof buf, " · %.0f ms", row.delayMs);
        words += buf;
    }
    return words;
}

}  // namespace vt::model
