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
};

// A server away for longer than this is not restarting by itself: the
// notice stops saying "waiting" and says how to start it.
inline constexpr double kServerAwayNoticeSeconds = 5.0;

// The application's notices, in the order of their checks.
std::vector<Notice> applicationNotices(const AppNoticeFacts& facts);

// The first per-row notice that applies to a row, or nothing.
std::optional<Notice> rowNotice(const RowState& row);

// The line under a row's name: the device's transport and rate, or what a
// network row is doing, with the row's delay when it has one. `device` is
// the row's device when it is present; `missing`, that a network row's
// receiver is not on the network.
std::string rowMeta(const RowState& row, const std::optional<devices::AudioDevice>& device,
                    bool missing = false);

}  // namespace vt::model
