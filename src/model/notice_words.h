// The words of every notice this build can raise and of a row's subtitle,
// from plain facts about the model. Pure functions: the model gathers the
// facts, these decide what is said.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "devices/audio_device.h"
#include "guard/restored_output.h"
#include "model/notice.h"
#include "model/row_state.h"

namespace vt::model {

struct AppNoticeFacts {
    // The capture sink exists or the sound server will make it.
    bool captureAvailable = true;
    // The sound server the desktop uses, and the command that starts it.
    std::string soundServer = "PulseAudio";
    std::string startCommand = "pulseaudio --start";
    // How long the server has been away, while it is.
    std::optional<double> soundServerAwaySeconds;
    std::optional<std::string> driverInstallError;
    std::optional<std::string> startError;
    std::optional<guard::RestoredOutput> restoredOutput;
    // With AirPlay rows: the interfaces that share a subnet (see
    // discovery::interfacesSharingASubnet); empty without AirPlay rows.
    std::vector<std::string> sharedSubnetInterfaces;
};

// A server away for longer than this is not restarting by itself: the
// notice stops saying "waiting" and says how to start it.
inline constexpr double kServerAwayNoticeSeconds = 5.0;

// The application's notices, in the order of their checks.
std::vector<Notice> applicationNotices(const AppNoticeFacts& facts);

// What the model knows of an AirPlay row beyond the row itself.
struct RowNoticeFacts {
    // The receiver is an Apple device that leads a group of its own.
    bool leadsOwnGroup = false;
    // An Apple receiver, which gates streams behind a person's accept.
    bool appleModel = false;
    // The row was given up on (its receiver never answered in time).
    bool exhausted = false;
};

// The first per-row notice that applies to a row, or nothing.
std::optional<Notice> rowNotice(const RowState& row, const RowNoticeFacts& facts = {});

// "AirPlay can’t connect", while AirPlay rows exist and two interfaces sit
// on one subnet, so that the receiver's answers may come back by the other.
std::optional<Notice> multihomedNotice(const std::vector<std::string>& interfaces);

// The line under a row's name: the device's transport and rate, or what a
// network row is doing, with the row's delay when it has one. `device` is
// the row's device when it is present; `missing`, that a network row's
// receiver is not on the network.
std::string rowMeta(const RowState& row, const std::optional<devices::AudioDevice>& device,
                    bool missing = false);

}  // namespace vt::model
