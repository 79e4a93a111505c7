// The fields of every record and message, in the order the wire declares
// them, with each number's range. One description serves both reading and
// writing (see wire_io.h). Private to this folder.
#pragma once

#include "equaliser/eq_band.h"
#include "equaliser/eq_settings.h"
#include "remote/eq_wire.h"
#include "remote/level_frame.h"
#include "remote/mac_message.h"
#include "remote/mac_state.h"
#include "remote/now_playing_state.h"
#include "remote/phone_message.h"
#include "remote/room_wire.h"
#include "remote/row_info.h"
#include "remote/wire_io.h"

namespace vt::remote::wire {

inline constexpr Clamp eqGain{equaliser::EQBand::gainRange.lower,
                              equaliser::EQBand::gainRange.upper};
inline constexpr Clamp eqFrequency{equaliser::EQBand::frequencyRange.lower,
                                   equaliser::EQBand::frequencyRange.upper};
inline constexpr Clamp eqPreamp{equaliser::EQSettings::preampRange.lower,
                                equaliser::EQSettings::preampRange.upper};
inline constexpr Clamp peakRange{0.0, LevelFrame::peakLimit};
// The room's own limits, as the room's setters apply them.
inline constexpr Clamp stageWidth{15.0, 60.0};
inline constexpr Clamp roomSide{1.0, 50.0};
inline constexpr Clamp roomHeight{1.5, 20.0};
// A room grows around whatever stands in it, so a stored room is only held
// to the smallest sizes.
inline constexpr Clamp grownSide{1.0, std::numeric_limits<double>::max()};
inline constexpr Clamp grownHeight{1.5, std::numeric_limits<double>::max()};

// Room.

template <class Io>
void describe(Io& io, Ref<Point3, Io> p) {
    io.field("x", p.x);
    io.field("y", p.y);
    io.field("z", p.z);
}

template <class Io>
void describe(Io& io, Ref<Seat, Io> s) {
    io.field("x", s.x);
    io.field("y", s.y);
    io.field("z", s.z);
    io.field("face", s.face);
}

template <class Io>
void describe(Io& io, Ref<RowPlace, Io> p) {
    io.field("at", p.at);
    io.field("stereo", p.stereo);
    io.field("zone", p.zone);
    io.field("measuredDistance", p.measuredDistance, nonNegative);
}

template <class Io>
void describe(Io& io, Ref<RoomState, Io> r) {
    io.field("enabled", r.enabled);
    io.field("seat", r.seat);
    io.field("stageWidthDeg", r.stageWidthDeg, stageWidth);
    io.field("focus", r.focus, unitRange);
    io.field("width", r.width, grownSide);
    io.field("depth", r.depth, grownSide);
    io.field("height", r.height, grownHeight);
    io.field("flying", r.flying);
}

// Equalisers.

template <class Io>
void describe(Io& io, Ref<Band, Io> b) {
    io.field("kind", b.kind);
    io.field("hz", b.hz, eqFrequency);
    io.field("gainDb", b.gainDb, eqGain);
    io.field("usesGain", b.usesGain);
}

template <class Io>
void describe(Io& io, Ref<RemoteEQ, Io> e) {
    io.field("enabled", e.enabled);
    io.field("preampDb", e.preampDb, eqPreamp);
    io.field("bands", e.bands);
    io.field("curve", e.curve);
    io.field("presetID", e.presetID);
}

template <class Io>
void describe(Io& io, Ref<RowEQ, Io> e) {
    io.field("enabled", e.enabled);
    io.field("bands", e.bands);
    io.field("presetID", e.presetID);
}

// State.

template <class Io>
void describe(Io& io, Ref<RemotePreset, Io> p) {
    io.field("id", p.id);
    io.field("name", p.name);
}

template <class Io>
void describe(Io& io, Ref<ExtraOutput, Io> x) {
    io.field("id", x.id);
    io.field("name", x.name);
    io.field("kind", x.kind);
    io.field("transport", x.transport);
}

template <class Io>
void describe(Io& io, Ref<NowPlayingState, Io> n) {
    io.field("title", n.title);
    io.field("artist", n.artist);
    io.field("album", n.album);
    io.field("playing", n.playing);
    io.field("artworkKey", n.artworkKey);
    io.field("duration", n.duration, nonNegative);
    io.field("elapsed", n.elapsed, nonNegative);
    io.field("elapsedAt", n.elapsedAt);
    io.field("appName", n.appName);
}

template <class Io>
void describe(Io& io, Ref<LevelFrame, Io> f) {
    io.parallel("slots", f.slots, "peaks", f.peaks, peakRange);
    io.field("left", f.left, peakRange);
    io.field("right", f.right, peakRange);
}

template <class Io>
void describe(Io& io, Ref<RowInfo, Io> r) {
    io.field("slot", r.slot);
    io.field("name", r.name);
    io.field("kind", r.kind);
    io.field("transport", r.transport);
    io.field("latencyMs", r.latencyMs);
    io.field("trimMs", r.trimMs);
    io.field("volume", r.volume, unitRange);
    io.field("muted", r.muted);
    io.field("audible", r.audible);
    io.field("isReference", r.isReference);
    io.field("stale", r.stale);
    io.field("source", r.source);
    io.late("disabled", r.disabled);
    io.late("renamed", r.renamed);
    io.late("canReconnect", r.canReconnect);
    io.late("eq", r.eq);
    io.late("gainDb", r.gainDb);
    io.late("place", r.place);
    io.late("notTimed", r.notTimed);
    io.late("guestID", r.guestID);
}

template <class Io>
void describe(Io& io, Ref<MacState, Io> s) {
    io.field("macName", s.macName);
    io.field("rows", s.rows);
    io.field("referenceSlot", s.referenceSlot);
    io.field("micConstantMs", s.micConstantMs);
    io.field("appVersion", s.appVersion);
    io.field("running", s.running);
    io.field("master", s.master, unitRange);
    io.field("masterEQ", s.masterEQ);
    io.field("presets", s.presets);
    io.field("nowPlaying", s.nowPlaying);
    io.field("extras", s.extras);
    io.field("soloSlot", s.soloSlot);
    io.field("room", s.room);
    io.field("systemVolume", s.systemVolume, unitRange);
    io.field("guestLink", s.guestLink);
    io.field("soundServer", s.soundServer);
}

// Messages from the phone.

using P = PhoneMessage;

template <class Io>
void describe(Io& io, Ref<P::Hello, Io> m) {
    io.field("phoneID", m.phoneID);
    io.field("phoneName", m.phoneName);
    io.field("token", m.token);
    io.field("nonce", m.nonce);
    io.field("version", m.version);
}

template <class Io>
void describe(Io& io, Ref<P::Pair, Io> m) {
    io.field("code", m.code);
    io.field("key", m.key);
}

template <class Io>
void describe(Io& io, Ref<P::Prove, Io> m) {
    io.field("proof", m.proof);
}

template <class Io>
void describe(Io& io, Ref<P::Ping, Io> m) {
    io.field("id", m.id);
    io.field("phoneSent", m.phoneSent);
}

template <class Io>
void describe(Io& io, Ref<P::Measure, Io> m) {
    io.field("id", m.id);
    io.field("slot", m.slot);
    io.field("role", m.role);
}

template <class Io>
void describe(Io& io, Ref<P::Heard, Io> m) {
    io.field("id", m.id);
    io.field("arrivalsMac", m.arrivalsMac);
}

template <class Io>
void describe(Io& io, Ref<P::Identify, Io> m) {
    io.field("slot", m.slot);
}

template <class Io>
void describe(Io& io, Ref<P::Cancel, Io> m) {
    io.field("id", m.id);
}

template <class Io>
void describe(Io& io, Ref<P::Undo, Io> m) {
    io.field("id", m.id);
}

template <class Io>
void describe(Io& io, Ref<P::SetTrim, Io> m) {
    io.field("slot", m.slot);
    io.field("ms", m.ms);
}

template <class Io>
void describe(Io& io, Ref<P::ClearMeasured, Io> m) {
    io.field("slot", m.slot);
}

template <class Io>
void describe(Io& io, Ref<P::SetMuted, Io> m) {
    io.field("slot", m.slot);
    io.field("muted", m.muted);
}

template <class Io>
void describe(Io& io, Ref<P::SetVolume, Io> m) {
    io.field("slot", m.slot);
    io.field("volume", m.volume, unitRange);
}

template <class Io>
void describe(Io& io, Ref<P::SetMaster, Io> m) {
    io.field("volume", m.volume, unitRange);
}

template <class Io>
void describe(Io& io, Ref<P::SetSystemVolume, Io> m) {
    io.field("volume", m.volume, unitRange);
}

template <class Io>
void describe(Io& io, Ref<P::SetEQGain, Io> m) {
    io.field("band", m.band);
    io.field("db", m.db, eqGain);
}

template <class Io>
void describe(Io& io, Ref<P::SetEQEnabled, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::SetEQPreset, Io> m) {
    io.field("id", m.id);
}

template <class Io>
void describe(Io& io, Ref<P::AddOutput, Io> m) {
    io.field("id", m.id);
}

template <class Io>
void describe(Io& io, Ref<P::Rename, Io> m) {
    io.field("slot", m.slot);
    io.field("name", m.name);
}

template <class Io>
void describe(Io& io, Ref<P::SetDisabled, Io> m) {
    io.field("slot", m.slot);
    io.field("disabled", m.disabled);
}

template <class Io>
void describe(Io& io, Ref<P::Reconnect, Io> m) {
    io.field("slot", m.slot);
}

template <class Io>
void describe(Io& io, Ref<P::RemoveOutput, Io> m) {
    io.field("slot", m.slot);
    io.field("guestID", m.guestID);
}

template <class Io>
void describe(Io& io, Ref<P::Media, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::Seek, Io> m) {
    io.field("seconds", m.seconds, nonNegative);
}

template <class Io>
void describe(Io& io, Ref<P::Solo, Io> m) {
    io.field("slot", m.slot);
}

template <class Io>
void describe(Io& io, Ref<P::SetRunning, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::SetRowEQGain, Io> m) {
    io.field("slot", m.slot);
    io.field("band", m.band);
    io.field("db", m.db, eqGain);
}

template <class Io>
void describe(Io& io, Ref<P::SetRowEQEnabled, Io> m) {
    io.field("slot", m.slot);
    io.field("enabled", m.enabled);
}

template <class Io>
void describe(Io& io, Ref<P::SetRowEQPreset, Io> m) {
    io.field("slot", m.slot);
    io.field("id", m.id);
}

template <class Io>
void describe(Io& io, Ref<P::MoveOutput, Io> m) {
    io.field("slot", m.slot);
    io.field("toSlot", m.toSlot);
}

template <class Io>
void describe(Io& io, Ref<P::WantLevels, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::SetRoomEnabled, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::SetPlace, Io> m) {
    io.field("slot", m.slot);
    io.field("at", m.at);
}

template <class Io>
void describe(Io& io, Ref<P::SetStereo, Io> m) {
    io.field("slot", m.slot);
    io.field("stereo", m.stereo);
}

template <class Io>
void describe(Io& io, Ref<P::SetZone, Io> m) {
    io.field("slot", m.slot);
    io.field("zone", m.zone);
}

template <class Io>
void describe(Io& io, Ref<P::SetSeat, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<P::SetStage, Io> m) {
    io.field("widthDeg", m.widthDeg, stageWidth);
    io.field("focus", m.focus, unitRange);
}

template <class Io>
void describe(Io& io, Ref<P::SetRoomSize, Io> m) {
    io.field("width", m.width, roomSide);
    io.field("depth", m.depth, roomSide);
    io.field("height", m.height, roomHeight);
}

template <class Io>
void describe(Io& io, Ref<P::Fly, Io> m) {
    io.field("at", m.at);
}

template <class Io>
void describe(Io& io, Ref<P::Range, Io> m) {
    io.field("id", m.id);
}

template <class Io>
void describe(Io&, Ref<P::Forget, Io>) {}

template <class Io>
void describe(Io&, Ref<P::PlayPause, Io>) {}

template <class Io>
void describe(Io&, Ref<P::StopPairing, Io>) {}

// Messages from the computer.

using M = MacMessage;

template <class Io>
void describe(Io& io, Ref<M::Welcome, Io> m) {
    io.field("macID", m.macID);
    io.field("macName", m.macName);
    io.field("paired", m.paired);
    io.field("challenge", m.challenge);
    io.field("proof", m.proof);
    io.field("version", m.version);
}

template <class Io>
void describe(Io& io, Ref<M::Paired, Io> m) {
    io.field("token", m.token);
    io.field("key", m.key);
}

template <class Io>
void describe(Io& io, Ref<M::PairRefused, Io> m) {
    io.field("reason", m.reason);
}

template <class Io>
void describe(Io& io, Ref<M::Pong, Io> m) {
    io.field("id", m.id);
    io.field("phoneSent", m.phoneSent);
    io.field("macTime", m.macTime);
}

template <class Io>
void describe(Io& io, Ref<M::State, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<M::Chirp, Io> m) {
    io.field("id", m.id);
    io.field("index", m.index);
    io.field("presentMac", m.presentMac);
    io.field("expectedMs", m.expectedMs);
}

template <class Io>
void describe(Io& io, Ref<M::MeasureFailed, Io> m) {
    io.field("id", m.id);
    io.field("reason", m.reason);
}

template <class Io>
void describe(Io& io, Ref<M::Result, Io> m) {
    io.field("id", m.id);
    io.field("slot", m.slot);
    io.field("role", m.role);
    io.field("hitsMs", m.hitsMs);
    io.field("valueMs", m.valueMs);
    io.field("previousMs", m.previousMs);
    io.field("clearedTrimMs", m.clearedTrimMs);
}

template <class Io>
void describe(Io& io, Ref<M::Artwork, Io> m) {
    io.field("key", m.key);
    io.field("jpeg", m.jpeg);
}

template <class Io>
void describe(Io& io, Ref<M::Levels, Io> m) {
    io.field("_0", m.value);
}

template <class Io>
void describe(Io& io, Ref<M::Ranged, Io> m) {
    io.field("id", m.id);
    io.field("distances", m.distances, nonNegative);
}

}  // namespace vt::remote::wire
