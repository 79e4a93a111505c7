// Every message the computer sends to a phone. Each case is a struct named
// after its wire key.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "remote/level_frame.h"
#include "remote/mac_state.h"
#include "remote/wire_enums.h"

namespace vt::remote {

struct MacMessage {
    struct Welcome {
        static constexpr std::string_view wireKey = "welcome";
        std::string macID;
        std::string macName;
        bool paired = false;
        std::optional<std::string> challenge;
        std::optional<std::string> proof;
        std::optional<int> version;
        bool operator==(const Welcome&) const = default;
    };
    struct Paired {
        static constexpr std::string_view wireKey = "paired";
        std::optional<std::string> token;  // never sent: each side derives it
        std::optional<std::string> key;    // the computer's public key
        bool operator==(const Paired&) const = default;
    };
    struct PairRefused {
        static constexpr std::string_view wireKey = "pairRefused";
        std::string reason;
        bool operator==(const PairRefused&) const = default;
    };
    struct Pong {
        static constexpr std::string_view wireKey = "pong";
        int64_t id = 0;
        double phoneSent = 0;
        double macTime = 0;  // RemoteClock seconds
        bool operator==(const Pong&) const = default;
    };
    struct State {
        static constexpr std::string_view wireKey = "state";
        MacState value;
        bool operator==(const State&) const = default;
    };
    struct Chirp {
        static constexpr std::string_view wireKey = "chirp";
        std::string id;
        int index = 0;
        double presentMac = 0;
        double expectedMs = 0;
        bool operator==(const Chirp&) const = default;
    };
    struct MeasureFailed {
        static constexpr std::string_view wireKey = "measureFailed";
        std::string id;
        std::string reason;
        bool operator==(const MeasureFailed&) const = default;
    };
    struct Result {
        static constexpr std::string_view wireKey = "result";
        std::string id;
        int slot = -1;
        MeasureRole role = MeasureRole::target;
        std::vector<std::optional<double>> hitsMs;
        double valueMs = 0;
        double previousMs = 0;
        double clearedTrimMs = 0;
        bool operator==(const Result&) const = default;
    };
    struct Artwork {
        static constexpr std::string_view wireKey = "artwork";
        std::string key;
        std::vector<uint8_t> jpeg;  // base64 on the wire
        bool operator==(const Artwork&) const = default;
    };
    struct Levels {
        static constexpr std::string_view wireKey = "levels";
        LevelFrame value;
        bool operator==(const Levels&) const = default;
    };
    struct Ranged {
        static constexpr std::string_view wireKey = "ranged";
        std::string id;
        std::map<int, std::optional<double>> distances;  // metres by slot
        bool operator==(const Ranged&) const = default;
    };

    using Value = std::variant<Welcome, Paired, PairRefused, Pong, State, Chirp, MeasureFailed,
                               Result, Artwork, Levels, Ranged>;

    Value value;

    template <class Case>
    requires std::is_constructible_v<Value, Case&&> MacMessage(Case&& c)
        : value(std::forward<Case>(c)) {}  // NOLINT: implicit by design

    std::string_view key() const;
    template <class Case>
    const Case* get() const {
        return std::get_if<Case>(&value);
    }

    bool operator==(const MacMessage&) const = default;
};

}  // namespace vt::remote
