#include "nowplaying/mpris_values.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "settings/bounded_text.h"

namespace vt::nowplaying {

namespace {

constexpr double kMicroseconds = 1e6;

std::string bounded(const char* text, size_t maxCharacters) {
    if (text == nullptr) return {};
    const size_t len = ::strnlen(text, maxCharacters * 4 + 4);
    return settings::boundedText(std::string_view(text, len), maxCharacters);
}

// The variant's contents signature, at the read position of an entry's value.
const char* variantContents(sd_bus_message* m) {
    char type = 0;
    const char* contents = nullptr;
    if (sd_bus_message_peek_type(m, &type, &contents) <= 0 || type != SD_BUS_TYPE_VARIANT)
        return nullptr;
    return contents;
}

// A basic value inside a variant, read only when the variant holds `type`.
template <typename T>
bool readBasicVariant(sd_bus_message* m, char type, T& value) {
    const char* contents = variantContents(m);
    if (contents == nullptr || contents[0] != type || contents[1] != '\0') {
        sd_bus_message_skip(m, "v");
        return false;
    }
    const char sig[2] = {type, '\0'};
    if (sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, sig) <= 0) return false;
    const bool ok = sd_bus_message_read_basic(m, type, &value) > 0;
    sd_bus_message_exit_container(m);
    return ok;
}

std::optional<std::string> readText(sd_bus_message* m, size_t maxCharacters,
                                    bool objectPathToo = false) {
    const char* contents = variantContents(m);
    if (contents != nullptr && contents[1] == '\0' &&
        (contents[0] == 's' || (objectPathToo && contents[0] == 'o'))) {
        const char* text = nullptr;
        if (readBasicVariant(m, contents[0], text)) return bounded(text, maxCharacters);
        return std::nullopt;
    }
    sd_bus_message_skip(m, "v");
    return std::nullopt;
}

// Integers of any width, or a double, as players disagree on mpris:length.
std::optional<double> readNumber(sd_bus_message* m) {
    const char* contents = variantContents(m);
    if (contents == nullptr || contents[1] != '\0') {
        sd_bus_message_skip(m, "v");
        return std::nullopt;
    }
    switch (contents[0]) {
        case 'x': {
            int64_t v = 0;
            if (readBasicVariant(m, 'x', v)) return double(v);
            return std::nullopt;
        }
        case 't': {
            uint64_t v = 0;
            if (readBasicVariant(m, 't', v)) return double(v);
            return std::nullopt;
        }
        case 'i': {
            int32_t v = 0;
            if (readBasicVariant(m, 'i', v)) return double(v);
            return std::nullopt;
        }
        case 'u': {
            uint32_t v = 0;
            if (readBasicVariant(m, 'u', v)) return double(v);
            return std::nullopt;
        }
        case 'd': {
            double v = 0;
            if (readBasicVariant(m, 'd', v)) return v;
            return std::nullopt;
        }
        default:
            sd_bus_message_skip(m, "v");
            return std::nullopt;
    }
}

// xesam:artist is a list of names; a lone string is taken too.
std::string readArtists(sd_bus_message* m) {
    const char* contents = variantContents(m);
    if (contents != nullptr && std::strcmp(contents, "as") == 0) {
        std::string joined;
        if (sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "as") <= 0) return joined;
        if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s") > 0) {
            size_t count = 0;
            const char* name = nullptr;
            while (sd_bus_message_read_basic(m, 's', &name) > 0) {
                if (count++ >= maxArtists || name == nullptr || *name == '\0') continue;
                if (!joined.empty()) joined += ", ";
                joined += bounded(name, maxTrackTextCharacters);
            }
            sd_bus_message_exit_container(m);
        }
        sd_bus_message_exit_container(m);
        return settings::boundedText(joined, maxTrackTextCharacters);
    }
    return readText(m, maxTrackTextCharacters).value_or("");
}

std::optional<double> seconds(std::optional<double> us) {
    if (!us || !std::isfinite(*us) || *us < 0) return std::nullopt;
    return *us / kMicroseconds;
}

// Walks an "a{sv}", handing each key with the reader at its variant; the
// handler reads or skips the variant.
template <typename Handle>
bool readDictionary(sd_bus_message* m, Handle handle) {
    if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}") <= 0) return false;
    for (;;) {
        const int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
        if (r < 0) return false;
        if (r == 0) break;
        const char* key = nullptr;
        if (sd_bus_message_read_basic(m, 's', &key) <= 0 || key == nullptr) return false;
        if (!handle(std::string_view(key))) sd_bus_message_skip(m, "v");
        if (sd_bus_message_exit_container(m) < 0) return false;
    }
    return sd_bus_message_exit_container(m) >= 0;
}

bool readMetadata(sd_bus_message* m, TrackMetadata& track) {
    if (sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, "a{sv}") <= 0) return false;
    const bool ok = readDictionary(m, [&](std::string_view key) {
        if (key == "mpris:trackid") {
            track.trackID = readText(m, maxArtworkURLBytes, true).value_or("");
        } else if (key == "xesam:title") {
            track.title = readText(m, maxTrackTextCharacters).value_or("");
        } else if (key == "xesam:album") {
            track.album = readText(m, maxTrackTextCharacters).value_or("");
        } else if (key == "xesam:artist") {
            track.artist = readArtists(m);
        } else if (key == "mpris:artUrl") {
            // A URL cut short names something else: too long is none.
            auto url = readText(m, maxArtworkURLBytes + 1);
            track.artURL = url && url->size() <= maxArtworkURLBytes ? *url : "";
        } else if (key == "mpris:length") {
            track.length = seconds(readNumber(m));
        } else {
            return false;
        }
        return true;
    });
    sd_bus_message_exit_container(m);
    return ok;
}

}  // namespace

std::optional<PlaybackStatus> playbackStatusFromText(const std::string& text) {
    if (text == "Playing") return PlaybackStatus::playing;
    if (text == "Paused") return PlaybackStatus::paused;
    if (text == "Stopped") return PlaybackStatus::stopped;
    return std::nullopt;
}

bool readPlayerProperties(sd_bus_message* m, PlayerProperties& out) {
    auto flag = [&](std::optional<bool>& into) {
        int v = 0;
        if (readBasicVariant(m, 'b', v)) into = v != 0;
    };
    return readDictionary(m, [&](std::string_view key) {
        if (key == "PlaybackStatus") {
            if (auto text = readText(m, 16)) out.status = playbackStatusFromText(*text);
        } else if (key == "Metadata") {
            const char* contents = variantContents(m);
            if (contents == nullptr || std::strcmp(contents, "a{sv}") != 0) return false;
            TrackMetadata track;
            if (readMetadata(m, track)) out.metadata = std::move(track);
        } else if (key == "Position") {
            out.position = seconds(readNumber(m));
        } else if (key == "Rate") {
            auto rate = readNumber(m);
            if (rate && std::isfinite(*rate) && *rate >= 0) out.rate = rate;
        } else if (key == "CanControl") {
            flag(out.canControl);
        } else if (key == "CanPlay") {
            flag(out.canPlay);
        } else if (key == "CanPause") {
            flag(out.canPause);
        } else if (key == "CanGoNext") {
            flag(out.canGoNext);
        } else if (key == "CanGoPrevious") {
            flag(out.canGoPrevious);
        } else if (key == "CanSeek") {
            flag(out.canSeek);
        } else {
            return false;
        }
        return true;
    });
}

std::optional<double> readPositionVariant(sd_bus_message* m) {
    return seconds(readNumber(m));
}

std::optional<std::string> readStringVariant(sd_bus_message* m, size_t maxCharacters) {
    return readText(m, maxCharacters);
}

}  // namespace vt::nowplaying
