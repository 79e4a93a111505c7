#include "samples.h"

#include "equaliser/eq_preset.h"
#include "remote/eq_wire.h"

namespace vt::remote::samples {

using P = PhoneMessage;
using M = MacMessage;

MacState state() {
    MacState s;
    s.macName = "Studio";
    RowInfo speakers;
    speakers.slot = 0;
    speakers.name = "Speakers";
    speakers.kind = RowInfo::Kind::builtIn;
    speakers.transport = "Audio · Built-in";
    speakers.latencyMs = 12.5;
    speakers.trimMs = -3.25;
    speakers.volume = 0.75;
    speakers.audible = true;
    speakers.isReference = true;
    speakers.source = "report";
    speakers.eq = RowEQ::from(equaliser::EQPreset::all().at(1).settings, "bass");
    speakers.gainDb = -1.5;
    speakers.place = RowPlace{Point3{1, 2, 0.5}, true, std::nullopt, 2.25};
    RowInfo guest;
    guest.slot = 8;
    guest.name = "Ana's phone";
    guest.kind = RowInfo::Kind::guest;
    guest.transport = "Guest";
    guest.muted = true;
    guest.disabled = true;
    guest.renamed = true;
    guest.canReconnect = true;
    guest.notTimed = true;
    guest.guestID = "g-1";
    guest.place = RowPlace{std::nullopt, false, "Kitchen", std::nullopt};
    s.rows = {speakers, guest};
    s.referenceSlot = 0;
    s.micConstantMs = 4.5;
    s.appVersion = "0.1.0";
    s.running = true;
    s.master = 0.5;
    s.masterEQ = RemoteEQ::from(equaliser::EQSettings::flat(), {0, 0.5, -1}, "flat");
    s.presets = {{"flat", "Flat"}, {"bass", "More bass"}};
    s.nowPlaying =
        NowPlayingState{"Song", "Artist", "Album", true, "k1", 200, 12, 1000.5, "Player"};
    s.extras = {{"uid:kitchen", "Kitchen", RowInfo::Kind::other, "Audio · Virtual"}};
    s.soloSlot = 8;
    RoomState room;
    room.enabled = true;
    room.flying = Point3{0.5, 1, 1.25};
    s.room = room;
    s.systemVolume = 0.25;
    s.guestLink = "http://192.168.1.2:7766/";
    s.soundServer = "waiting for PipeWire";
    return s;
}

std::vector<PhoneMessage> phoneMessages() {
    return {
        P::Hello{"phone-1", "Ana", std::nullopt, "bm9uY2U=", 3},
        P::Pair{"0042", "a2V5"},
        P::Prove{"cHJvb2Y="},
        P::Ping{3, 1.5},
        P::Measure{"run-1", 2, MeasureRole::reference},
        P::Heard{"run-1", {1.5, std::nullopt, 2.5}},
        P::Identify{1},
        P::Cancel{"run-1"},
        P::Undo{"run-1"},
        P::SetTrim{1, -12.5},
        P::ClearMeasured{1},
        P::SetMuted{1, true},
        P::SetVolume{2, 0.5},
        P::SetMaster{0.75},
        P::SetSystemVolume{0.25},
        P::SetEQGain{3, -6},
        P::SetEQEnabled{true},
        P::SetEQPreset{"bass"},
        P::AddOutput{"uid:living"},
        P::Rename{1, "Den"},
        P::SetDisabled{1, true},
        P::Reconnect{4},
        P::RemoveOutput{9, "g-2"},
        P::Media{MediaCommand::forward15},
        P::Seek{42.5},
        P::Solo{0},
        P::SetRunning{true},
        P::SetRowEQGain{1, 2, 4.5},
        P::SetRowEQEnabled{1, true},
        P::SetRowEQPreset{1, "voice"},
        P::MoveOutput{2, 0},
        P::WantLevels{true},
        P::SetRoomEnabled{true},
        P::SetPlace{1, Point3{1.5, 2, 0.75}},
        P::SetStereo{1, true},
        P::SetZone{1, "Kitchen"},
        P::SetSeat{Seat{2, 3, 1.25, 0.5}},
        P::SetStage{45, 0.5},
        P::SetRoomSize{6, 5, 3},
        P::Fly{Point3{1, 1, 1}},
        P::Range{"range-1"},
        P::Forget{},
        P::PlayPause{},
        P::StopPairing{},
    };
}

std::vector<MacMessage> macMessages() {
    LevelFrame levels;
    levels.slots = {0, 3};
    levels.peaks = {0.125f, 1.5f};
    levels.left = 0.5f;
    levels.right = 0.25f;
    return {
        M::Welcome{"mac-1", "Studio", false, "Y2hhbGxlbmdl", "cHJvb2Y=", 3},
        M::Paired{std::nullopt, "a2V5"},
        M::PairRefused{"That code didn’t match."},
        M::Pong{3, 1.5, 1234.25},
        M::State{state()},
        M::Chirp{"run-1", 2, 100.5, 250},
        M::MeasureFailed{"run-1", "Place your speakers in the room first."},
        M::Result{"run-1", 1, MeasureRole::target, {10.5, std::nullopt}, 10.5, 3, 1.25},
        M::Artwork{"k1", {0xff, 0xd8, 0xff, 0x00, 0x10}},
        M::Levels{levels},
        M::Ranged{"range-1", {{3, 2.25}, {4, std::nullopt}}},
    };
}

}  // namespace vt::remote::samples
