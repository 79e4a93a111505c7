#include "app/remote_bridge.h"

#include <unistd.h>

#include <cmath>
#include <type_traits>

#include "devices/audio_devices.h"
#include "devices/sound_server.h"
#include "devices/system_output.h"
#include "discovery/offer_words.h"
#include "equaliser/eq_kind.h"
#include "equaliser/eq_preset.h"
#include "remote/remote_clock.h"

namespace vt::app {

using model::RowState;
using remote::PhoneMessage;
using remote::RowInfo;

namespace {

RowInfo::Kind kindOfTransport(const std::string& code) {
    if (code == "bltn") return RowInfo::Kind::builtIn;
    if (code == "blue" || code == "blea") return RowInfo::Kind::bluetooth;
    if (code == "usb ") return RowInfo::Kind::usb;
    if (code == "hdmi" || code == "dprt") return RowInfo::Kind::hdmi;
    return RowInfo::Kind::other;
}

std::string sourceWord(settings::LatencySource s) {
    switch (s) {
        case settings::LatencySource::none:
            return "none";
        case settings::LatencySource::reported:
            return "report";
        case settings::LatencySource::tapped:
            return "tapped";
        case settings::LatencySource::narrowed:
            return "narrow";
        case settings::LatencySource::heard:
            return "heard";
    }
    return "none";
}

remote::Point3 wire(const stage::Point3& p) {
    return {p.x, p.y, p.z};
}

remote::RowPlace wire(const stage::RowPlace& p) {
    remote::RowPlace out;
    if (p.at) out.at = wire(*p.at);
    out.stereo = p.stereo;
    out.zone = p.zone;
    out.measuredDistance = p.measuredDistance;
    return out;
}

remote::RoomState wire(const stage::RoomState& r) {
    remote::RoomState out;
    out.enabled = r.enabled;
    out.seat = {r.seat.x, r.seat.y, r.seat.z, r.seat.face};
    out.stageWidthDeg = r.stageWidthDeg;
    out.focus = r.focus;
    out.width = r.width;
    out.depth = r.depth;
    out.height = r.height;
    if (r.flying) out.flying = wire(*r.flying);
    return out;
}

// The response curve the phone draws: log-spaced from 20 Hz to 20 kHz.
std::vector<double> curveOf(const equaliser::EQSettings& eq) {
    constexpr int points = 61;
    std::vector<double> curve;
    for (int i = 0; i < points; ++i) {
        const double hz = 20.0 * std::pow(1000.0, double(i) / (points - 1));
        curve.push_back(eq.responseDb(hz, 48000.0));
    }
    return curve;
}

std::optional<std::string> presetIDOf(const equaliser::EQSettings& eq) {
    if (const equaliser::EQPreset* p = equaliser::EQPreset::matching(eq)) return p->id;
    return std::nullopt;
}

// A gain for a band that takes one, clamped; nothing for the others.
std::optional<equaliser::EQSettings> withGain(equaliser::EQSettings eq, int band, double db) {
    if (band < 0 || band >= int(equaliser::EQSettings::bandCount) || !std::isfinite(db))
        return std::nullopt;
    eq.bands = equaliser::EQSettings::sized(std::move(eq.bands));
    if (!equaliser::usesGain(eq.bands[band].kind)) return std::nullopt;
    eq.bands[band].gainDb = equaliser::EQBand::gainRange.clamp(db, 0.0);
    return eq;
}

template <class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

nowplaying::PlayerCommand playerCommand(remote::MediaCommand c) {
    using P = nowplaying::PlayerCommand;
    switch (c) {
        case remote::MediaCommand::play:
            return P::play;
        case remote::MediaCommand::pause:
            return P::pause;
        case remote::MediaCommand::togglePlayPause:
            return P::togglePlayPause;
        case remote::MediaCommand::next:
            return P::nextTrack;
        case remote::MediaCommand::previous:
            return P::previousTrack;
        case remote::MediaCommand::back15:
            return P::goBackFifteenSeconds;
        case remote::MediaCommand::forward15:
            return P::skipFifteenSeconds;
    }
    return P::togglePlayPause;
}

}  // namespace

std::string computerName() {
    char buf[256] = {};
    if (::gethostname(buf, sizeof buf - 1) != 0 || buf[0] == 0) return "Computer";
    return buf;
}

RemoteBridge::RemoteBridge(model::AppModel& model, platform::AudioBackend& backend,
                           std::string macName, std::string appVersion)
    : model_(model),
      backend_(backend),
      macName_(std::move(macName)),
      appVersion_(std::move(appVersion)) {}

RowInfo RemoteBridge::rowInfo(int slot, const RowState& row) const {
    RowInfo info;
    info.slot = slot;
    info.name = row.shownName();
    const std::string meta = model_.meta(row);
    if (row.isGuest()) {
        info.kind = RowInfo::Kind::guest;
        // A guest row's own line already says it is a guest.
        info.transport = meta;
    } else if (row.isAirPlay()) {
        info.kind = RowInfo::Kind::airplay;
        info.transport = meta;  // its subtitle names AirPlay already
    } else if (row.isCast()) {
        info.kind = RowInfo::Kind::cast;
        // The Cast words already say Cast.
        info.transport = meta;
    } else {
        std::string code;
        for (const devices::AudioDevice& d : model_.outputDevices())
            if (row.deviceUID == d.uid) code = d.transportType;
        info.kind = kindOfTransport(code);
        info.transport = "Audio · " + meta;
    }
    info.latencyMs = row.streamLatencyMs + row.measuredLatencyMs;
    info.trimMs = row.delayMs;
    info.volume = row.volume;
    info.muted = row.muted;
    info.audible = model_.isRunning() && row.connected && !row.muted && !row.disabled;
    info.source = sourceWord(row.latencySource);
    info.disabled = row.disabled;
    info.renamed = row.customName.has_value();
    info.canReconnect = model_.canReconnect(slot);
    info.eq = remote::RowEQ::from(row.eq, model_.matchedEQPreset(slot));
    info.place = wire(row.place);
    info.guestID = row.guestID;
    return info;
}

remote::MacState RemoteBridge::snapshot() const {
    remote::MacState s;
    s.macName = macName_;
    for (const model::ShownRow& shown : model_.displayRows())
        s.rows.push_back(rowInfo(shown.slot, shown.row));
    s.appVersion = appVersion_;
    s.running = model_.isRunning();
    const std::string server = devices::soundServerWord(model_.soundServerKind());
    s.soundServer = model_.soundServerConnected() ? server : "waiting for " + server;
    s.master = model_.masterVolume();
    const equaliser::EQSettings& master = model_.masterEQ();
    s.masterEQ = remote::RemoteEQ::from(master, curveOf(master), presetIDOf(master));
    for (const equaliser::EQPreset& p : equaliser::EQPreset::all())
        s.presets.push_back({p.id, p.name});
    for (const devices::AudioDevice& d : model_.addableDevices()) {
        s.extras.push_back(remote::ExtraOutput{deviceOutputID(d.uid), d.name,
                                               kindOfTransport(d.transportType),
                                               "Audio · " + d.meta()});
    }
    for (const discovery::AirPlayReceiver& r : model_.availableAirPlayReceivers())
        s.extras.push_back(remote::ExtraOutput{"air:" + r.id, r.name, RowInfo::Kind::airplay,
                                               discovery::offerWords(r)});
    for (const discovery::CastDevice& d : model_.availableCastDevices())
        s.extras.push_back(remote::ExtraOutput{"cast:" + d.id, d.name, RowInfo::Kind::cast,
                                               discovery::offerWords(d)});
    if (const auto& info = model_.nowPlayingInfo()) {
        remote::NowPlayingState np;
        np.title = info->title;
        np.artist = info->artist;
        np.album = info->album;
        np.playing = info->playing;
        np.duration = info->duration;
        np.elapsed = info->elapsed;
        // The main queue's clock is the remote's: both are CLOCK_MONOTONIC.
        np.elapsedAt = info->elapsedAt;
        np.appName = info->bundleID;
        if (auto artwork = model_.trackArtwork()) np.artworkKey = artwork->key;
        s.nowPlaying = std::move(np);
    }
    s.soloSlot = model_.soloSlot();
    s.room = wire(model_.room());
    if (auto id = devices::SystemOutput::defaultOutput(backend_))
        s.systemVolume = devices::AudioDevices::volume(backend_, *id);
    return s;
}

std::optional<remote::MacMessage> RemoteBridge::handle(const PhoneMessage& message) {
    model::AppModel& m = model_;
    using equaliser::EQTarget;
    std::optional<remote::MacMessage> reply;
    auto rowEQ = [&](int slot) { return m.eq(EQTarget::row(slot < 0 ? 0 : size_t(slot))); };
    auto inRows = [&](int slot) { return slot >= 0 && slot < int(m.rows().size()); };

    std::visit(Overloaded{
                   [&](const PhoneMessage::Ping& p) {
                       reply = remote::MacMessage(
                           remote::MacMessage::Pong{p.id, p.phoneSent, remote::RemoteClock::now()});
                   },
                   [&](const PhoneMessage::SetTrim& p) { m.setDelay(p.slot, p.ms); },
                   [&](const PhoneMessage::ClearMeasured& p) { m.clearMeasuredLatency(p.slot); },
                   [&](const PhoneMessage::SetMuted& p) { m.applyMuted(p.slot, p.muted); },
                   [&](const PhoneMessage::SetVolume& p) { m.setVolume(p.slot, p.volume); },
                   [&](const PhoneMessage::SetMaster& p) { m.setMasterVolume(p.volume); },
                   [&](const PhoneMessage::SetSystemVolume& p) {
                       if (!std::isfinite(p.volume)) return;
                       if (auto id = devices::SystemOutput::defaultOutput(backend_))
                           devices::AudioDevices::setVolume(backend_, *id,
                                                            std::clamp(p.volume, 0.0, 1.0));
                   },
                   [&](const PhoneMessage::SetEQGain& p) {
                       if (auto eq = withGain(m.masterEQ(), p.band, p.db)) m.setMasterEQ(*eq);
                   },
                   [&](const PhoneMessage::SetEQEnabled& p) {
                       equaliser::EQSettings eq = m.masterEQ();
                       eq.enabled = p.value;
                       m.setMasterEQ(eq);
                   },
                   [&](const PhoneMessage::SetEQPreset& p) {
                       if (const equaliser::EQPreset* preset = equaliser::EQPreset::find(p.id))
                           m.setMasterEQ(preset->settings);
                   },
                   [&](const PhoneMessage::AddOutput& p) {
                       const std::string device = "uid:", airplay = "air:";
                       if (p.id.rfind(device, 0) == 0) m.addOutput(p.id.substr(device.size()));
                       if (p.id.rfind(airplay, 0) == 0)
                           m.addAirPlayOutput(p.id.substr(airplay.size()));
                       const std::string cast = "cast:";
                       if (p.id.rfind(cast, 0) == 0) m.addCastOutput(p.id.substr(cast.size()));
                   },
                   [&](const PhoneMessage::Rename& p) { m.rename(p.slot, p.name); },
                   [&](const PhoneMessage::SetDisabled& p) {
                       if (inRows(p.slot) && m.rows()[p.slot].disabled != p.disabled)
                           m.toggleDisabled(p.slot);
                   },
                   [&](const PhoneMessage::Reconnect& p) {
                       if (m.canReconnect(p.slot)) m.reconnect(p.slot);
                   },
                   [&](const PhoneMessage::RemoveOutput& p) {
                       int slot = p.slot;
                       if (p.guestID) {
                           slot = -1;
                           for (int s = 0; s < int(m.rows().size()); ++s)
                               if (m.rows()[s].guestID == p.guestID) slot = s;
                       }
                       if (m.canRemove(slot)) m.removeOutput(slot);
                   },
                   [&](const PhoneMessage::Solo& p) {
                       if (inRows(p.slot)) m.toggleSolo(p.slot);
                   },
                   [&](const PhoneMessage::SetRunning& p) {
                       if (m.isRunning() != p.value) m.startStop();
                   },
                   [&](const PhoneMessage::SetRowEQGain& p) {
                       if (!inRows(p.slot)) return;
                       if (auto eq = withGain(rowEQ(p.slot), p.band, p.db)) m.setEQ(p.slot, *eq);
                   },
                   [&](const PhoneMessage::SetRowEQEnabled& p) {
                       if (!inRows(p.slot)) return;
                       equaliser::EQSettings eq = rowEQ(p.slot);
                       eq.enabled = p.enabled;
                       m.setEQ(p.slot, eq);
                   },
                   [&](const PhoneMessage::SetRowEQPreset& p) {
                       if (!inRows(p.slot)) return;
                       if (const equaliser::EQPreset* preset = equaliser::EQPreset::find(p.id))
                           m.setEQ(p.slot, preset->settings);
                   },
                   [&](const PhoneMessage::MoveOutput& p) { m.moveRowDragging(p.slot, p.toSlot); },
                   [&](const PhoneMessage::Media& p) { m.mediaCommand(playerCommand(p.value)); },
                   [&](const PhoneMessage::Seek& p) { m.seekPlayer(p.seconds); },
                   // Pairing, measuring, meters and the room belong to
                   // subsystems still to come.
                   [&](const auto&) {},
               },
               message.value);
    return reply;
}

}  // namespace vt::app
