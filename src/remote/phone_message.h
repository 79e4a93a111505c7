// Every message a phone sends to the computer. Each case is a struct named
// after its wire key; a slot that came in unreadable is -1, which no row has.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "remote/room_wire.h"
#include "remote/wire_enums.h"

namespace vt::remote {

struct PhoneMessage {
    struct Hello {
        static constexpr std::string_view wireKey = "hello";
        std::string phoneID;
        std::string phoneName;
        std::optional<std::string> token;  // not sent by current phones
        std::optional<std::string> nonce;
        std::optional<int> version;
        bool operator==(const Hello&) const = default;
    };
    struct Pair {
        static constexpr std::string_view wireKey = "pair";
        std::string code;
        std::optional<std::string> key;  // the phone's public key
        bool operator==(const Pair&) const = default;
    };
    struct Prove {
        static constexpr std::string_view wireKey = "prove";
        std::string proof;
        bool operator==(const Prove&) const = default;
    };
    struct Ping {
        static constexpr std::string_view wireKey = "ping";
        int64_t id = 0;
        double phoneSent = 0;
        bool operator==(const Ping&) const = default;
    };
    struct Measure {
        static constexpr std::string_view wireKey = "measure";
        std::string id;
        int slot = -1;
        MeasureRole role = MeasureRole::target;
        bool operator==(const Measure&) const = default;
    };
    struct Heard {
        static constexpr std::string_view wireKey = "heard";
        std::string id;
        std::vector<std::optional<double>> arrivalsMac;  // on the computer's clock
        bool operator==(const Heard&) const = default;
    };
    struct Identify {
        static constexpr std::string_view wireKey = "identify";
        int slot = -1;
        bool operator==(const Identify&) const = default;
    };
    struct Cancel {
        static constexpr std::string_view wireKey = "cancel";
        std::string id;
        bool operator==(const Cancel&) const = default;
    };
    struct Undo {
        static constexpr std::string_view wireKey = "undo";
        std::string id;
        bool operator==(const Undo&) const = default;
    };
    struct SetTrim {
        static constexpr std::string_view wireKey = "setTrim";
        int slot = -1;
        double ms = 0;
        bool operator==(const SetTrim&) const = default;
    };
    struct ClearMeasured {
        static constexpr std::string_view wireKey = "clearMeasured";
        int slot = -1;
        bool operator==(const ClearMeasured&) const = default;
    };
    struct SetMuted {
        static constexpr std::string_view wireKey = "setMuted";
        int slot = -1;
        bool muted = false;
        bool operator==(const SetMuted&) const = default;
    };
    struct SetVolume {
        static constexpr std::string_view wireKey = "setVolume";
        int slot = -1;
        double volume = 0;  // 0 to 1
        bool operator==(const SetVolume&) const = default;
    };
    struct SetMaster {
        static constexpr std::string_view wireKey = "setMaster";
        double volume = 0;  // 0 to 1
        bool operator==(const SetMaster&) const = default;
    };
    struct SetSystemVolume {
        static constexpr std::string_view wireKey = "setSystemVolume";
        double volume = 0;  // 0 to 1
        bool operator==(const SetSystemVolume&) const = default;
    };
    struct SetEQGain {
        static constexpr std::string_view wireKey = "setEQGain";
        int band = -1;
        double db = 0;
        bool operator==(const SetEQGain&) const = default;
    };
    struct SetEQEnabled {
        static constexpr std::string_view wireKey = "setEQEnabled";
        bool value = false;
        bool operator==(const SetEQEnabled&) const = default;
    };
    struct SetEQPreset {
        static constexpr std::string_view wireKey = "setEQPreset";
        std::string id;
        bool operator==(const SetEQPreset&) const = default;
    };
    struct AddOutput {
        static constexpr std::string_view wireKey = "addOutput";
        std::string id;
        bool operator==(const AddOutput&) const = default;
    };
    struct Rename {
        static constexpr std::string_view wireKey = "rename";
        int slot = -1;
        std::optional<std::string> name;  // none clears the custom name
        bool operator==(const Rename&) const = default;
    };
    struct SetDisabled {
        static constexpr std::string_view wireKey = "setDisabled";
        int slot = -1;
        bool disabled = false;
        bool operator==(const SetDisabled&) const = default;
    };
    struct Reconnect {
        static constexpr std::string_view wireKey = "reconnect";
        int slot = -1;
        bool operator==(const Reconnect&) const = default;
    };
    struct RemoveOutput {
        static constexpr std::string_view wireKey = "removeOutput";
        int slot = -1;
        std::optional<std::string> guestID;  // guards against a guest's slot having moved
        bool operator==(const RemoveOutput&) const = default;
    };
    struct Media {
        static constexpr std::string_view wireKey = "media";
        MediaCommand value = MediaCommand::togglePlayPause;
        bool operator==(const Media&) const = default;
    };
    struct Seek {
        static constexpr std::string_view wireKey = "seek";
        double seconds = 0;
        bool operator==(const Seek&) const = default;
    };
    struct Solo {
        static constexpr std::string_view wireKey = "solo";
        int slot = -1;
        bool operator==(const Solo&) const = default;
    };
    struct SetRunning {
        static constexpr std::string_view wireKey = "setRunning";
        bool value = false;
        bool operator==(const SetRunning&) const = default;
    };
    struct SetRowEQGain {
        static constexpr std::string_view wireKey = "setRowEQGain";
        int slot = -1;
        int band = -1;
        double db = 0;
        bool operator==(const SetRowEQGain&) const = default;
    };
    struct SetRowEQEnabled {
        static constexpr std::string_view wireKey = "setRowEQEnabled";
        int slot = -1;
        bool enabled = false;
        bool operator==(const SetRowEQEnabled&) const = default;
    };
    struct SetRowEQPreset {
        static constexpr std::string_view wireKey = "setRowEQPreset";
        int slot = -1;
        std::string id;
        bool operator==(const SetRowEQPreset&) const = default;
    };
    struct MoveOutput {
        static constexpr std::string_view wireKey = "moveOutput";
        int slot = -1;
        int toSlot = -1;
        bool operator==(const MoveOutput&) const = default;
    };
    struct WantLevels {
        static constexpr std::string_view wireKey = "wantLevels";
        bool value = false;
        bool operator==(const WantLevels&) const = default;
    };
    struct SetRoomEnabled {
        static constexpr std::string_view wireKey = "setRoomEnabled";
        bool value = false;
        bool operator==(const SetRoomEnabled&) const = default;
    };
    struct SetPlace {
        static constexpr std::string_view wireKey = "setPlace";
        int slot = -1;
        std::optional<Point3> at;  // none takes the row off the stage
        bool operator==(const SetPlace&) const = default;
    };
    struct SetStereo {
        static constexpr std::string_view wireKey = "setStereo";
        int slot = -1;
        bool stereo = false;
        bool operator==(const SetStereo&) const = default;
    };
    struct SetZone {
        static constexpr std::string_view wireKey = "setZone";
        int slot = -1;
        std::optional<std::string> zone;
        bool operator==(const SetZone&) const = default;
    };
    struct SetSeat {
        static constexpr std::string_view wireKey = "setSeat";
        Seat value;
        bool operator==(const SetSeat&) const = default;
    };
    struct SetStage {
        static constexpr std::string_view wireKey = "setStage";
        double widthDeg = 30;
        double focus = 0.62;
        bool operator==(const SetStage&) const = default;
    };
    struct SetRoomSize {
        static constexpr std::string_view wireKey = "setRoomSize";
        double width = 5.2;
        double depth = 4.4;
        double height = 2.6;
        bool operator==(const SetRoomSize&) const = default;
    };
    struct Fly {
        static constexpr std::string_view wireKey = "fly";
        std::optional<Point3> at;  // none ends the flying sound
        bool operator==(const Fly&) const = default;
    };
    struct Range {
        static constexpr std::string_view wireKey = "range";
        std::string id;
        bool operator==(const Range&) const = default;
    };
    struct Forget {
        static constexpr std::string_view wireKey = "forget";
        bool operator==(const Forget&) const = default;
    };
    struct PlayPause {
        static constexpr std::string_view wireKey = "playPause";
        bool operator==(const PlayPause&) const = default;
    };
    struct StopPairing {
        static constexpr std::string_view wireKey = "stopPairing";
        bool operator==(const StopPairing&) const = default;
    };

    using Value =
        std::variant<Hello, Pair, Prove, Ping, Measure, Heard, Identify, Cancel, Undo, SetTrim,
                     ClearMeasured, SetMuted, SetVolume, SetMaster, SetSystemVolume, SetEQGain,
                     SetEQEnabled, SetEQPreset, AddOutput, Rename, SetDisabled, Reconnect,
                     RemoveOutput, Media, Seek, Solo, SetRunning, SetRowEQGain, SetRowEQEnabled,
                     SetRowEQPreset, MoveOutput, WantLevels, SetRoomEnabled, SetPlace, SetStereo,
                     SetZone, SetSeat, SetStage, SetRoomSize, Fly, Range, Forget, PlayPause,
                     StopPairing>;

    Value value;

    template <class Case>
    requires std::is_constructible_v<Value, Case&&> PhoneMessage(Case&& c)
        : value(std::forward<Case>(c)) {}  // NOLINT: implicit by design

    // The wire key of the case this message holds.
    std::string_view key() const;
    template <class Case>
    const Case* get() const {
        return std::get_if<Case>(&value);
    }

    bool operator==(const PhoneMessage&) const = default;
};

}  // namespace vt::remote
