// What a media player on the session bus may send as its properties: any
// D-Bus value sd-bus accepts, built here from the fuzzer's bytes (a type, then
// values for it; dictionary keys mostly the ones the reader looks for) into a
// sealed message, which the readers of PropertiesChanged, Position and
// DesktopEntry then walk. Whatever was sent, what is kept must be bounded,
// valid UTF-8, and hold only finite, non-negative times; an artwork URL kept
// must name a local path without NUL bytes, or none.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "net/text.h"
#include "nowplaying/artwork_stager.h"
#include "nowplaying/mpris_values.h"

namespace {

using namespace vt::nowplaying;

constexpr int kMaxDepth = 5;
constexpr size_t kMaxElements = 12;
constexpr size_t kRepeatStep = 300;  // a long text from one byte: up to 16 KB

struct Bytes {
    const uint8_t* p;
    size_t n;
    uint8_t next() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
};

// Valid UTF-8 without NUL, as sd-bus demands of every string: bytes of 0x80
// and over are taken as Latin-1.
std::string text(Bytes& in) {
    const uint8_t len = in.next();
    std::string raw;
    if (len >= 200) {
        raw.assign(size_t(len - 199) * kRepeatStep, char(in.next() | 1));
    } else {
        for (uint8_t i = 0; i < len && in.n > 0; ++i) raw += char(in.next());
    }
    std::string out;
    for (unsigned char c : raw) {
        if (c == 0) c = '?';
        if (c < 0x80) {
            out += char(c);
        } else {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

const char* const kKeys[] = {
    "PlaybackStatus", "Metadata",     "Position",    "Rate",          "CanControl",
    "CanPlay",        "CanPause",     "CanGoNext",   "CanGoPrevious", "CanSeek",
    "xesam:title",    "xesam:artist", "xesam:album", "mpris:artUrl",  "mpris:length",
    "mpris:trackid",  "Playing",      "Paused",      "Stopped",       "file:///tmp/c.png",
};

std::string key(Bytes& in) {
    const uint8_t pick = in.next();
    if (pick < 240) return kKeys[pick % (sizeof kKeys / sizeof kKeys[0])];
    return text(in);
}

// One complete type, e.g. "a{sv}" or "(sx)".
std::string completeType(Bytes& in, int depth) {
    static const char basics[] = "soxtiudbyn";
    const uint8_t pick = in.next() % (depth >= kMaxDepth ? 10 : 15);
    if (pick < 10) return std::string(1, basics[pick]);
    switch (pick) {
        case 10:
        case 11:
            return "v";
        case 12:
            return "a" + completeType(in, depth + 1);
        case 13:
            return "a{s" + completeType(in, depth + 1) + "}";
        default:
            return "(" + completeType(in, depth + 1) + completeType(in, depth + 1) + ")";
    }
}

// The end of the complete type starting at `type`.
const char* typeEnd(const char* type) {
    switch (*type) {
        case 'a':
            return typeEnd(type + 1);
        case '{':
        case '(': {
            const char close = *type == '{' ? '}' : ')';
            const char* t = type + 1;
            while (*t != close) t = typeEnd(t);
            return t + 1;
        }
        default:
            return type + 1;
    }
}

bool append(sd_bus_message* m, const std::string& type, Bytes& in, int depth, bool asKey);

// The members of a struct, or of a dictionary entry (whose first is its key).
bool appendAll(sd_bus_message* m, const std::string& types, Bytes& in, int depth, bool entry) {
    bool first = true;
    for (const char* t = types.c_str(); *t != '\0';) {
        const char* e = typeEnd(t);
        if (!append(m, std::string(t, e), in, depth, first && entry)) return false;
        first = false;
        t = e;
    }
    return true;
}

bool append(sd_bus_message* m, const std::string& type, Bytes& in, int depth, bool asKey) {
    switch (type[0]) {
        case 's': {
            const std::string s = asKey ? key(in) : (in.next() < 64 ? key(in) : text(in));
            return sd_bus_message_append_basic(m, 's', s.c_str()) >= 0;
        }
        case 'o': {
            std::string path = "/org/mpris";
            for (uint8_t i = 0, n = in.next() % 4; i < n; ++i)
                path += "/t" + std::to_string(in.next());
            return sd_bus_message_append_basic(m, 'o', path.c_str()) >= 0;
        }
        case 'd': {
            double v = 0;
            uint64_t bits = 0;
            for (int i = 0; i < 8; ++i) bits = (bits << 8) | in.next();
            std::memcpy(&v, &bits, sizeof v);
            return sd_bus_message_append_basic(m, 'd', &v) >= 0;
        }
        case 'x':
        case 't': {
            uint64_t v = 0;
            for (int i = 0; i < 8; ++i) v = (v << 8) | in.next();
            return sd_bus_message_append_basic(m, type[0], &v) >= 0;
        }
        case 'i':
        case 'u':
        case 'b': {
            uint32_t v = 0;
            for (int i = 0; i < 4; ++i) v = (v << 8) | in.next();
            if (type[0] == 'b') v &= 1;
            return sd_bus_message_append_basic(m, type[0], &v) >= 0;
        }
        case 'y':
        case 'n': {
            uint16_t v = uint16_t(in.next() << 8 | in.next());
            return sd_bus_message_append_basic(m, type[0], &v) >= 0;
        }
        case 'v': {
            const std::string inner = completeType(in, depth + 1);
            return sd_bus_message_open_container(m, 'v', inner.c_str()) >= 0 &&
                   append(m, inner, in, depth + 1, false) && sd_bus_message_close_container(m) >= 0;
        }
        case 'a': {
            const std::string element = type.substr(1);
            const bool dict = element[0] == '{';
            const std::string contents = dict ? element.substr(1, element.size() - 2) : element;
            if (sd_bus_message_open_container(m, 'a', contents.c_str()) < 0) return false;
            for (size_t i = 0, n = in.next() % kMaxElements; i < n; ++i) {
                if (dict) {
                    if (sd_bus_message_open_container(m, 'e', contents.c_str()) < 0 ||
                        !appendAll(m, contents, in, depth + 1, true) ||
                        sd_bus_message_close_container(m) < 0)
                        return false;
                } else if (!append(m, element, in, depth + 1, false)) {
                    return false;
                }
            }
            return sd_bus_message_close_container(m) >= 0;
        }
        case '(': {
            const std::string contents = type.substr(1, type.size() - 2);
            return sd_bus_message_open_container(m, 'r', contents.c_str()) >= 0 &&
                   appendAll(m, contents, in, depth + 1, false) &&
                   sd_bus_message_close_container(m) >= 0;
        }
        default:
            return false;
    }
}

size_t characters(const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
}

void expectText(const std::string& s, size_t maxCharacters) {
    if (!vt::net::isValidUtf8(s) || characters(s) > maxCharacters ||
        s.find('\0') != std::string::npos)
        std::abort();
}

void expectTime(const std::optional<double>& t) {
    if (t && (!std::isfinite(*t) || *t < 0)) std::abort();
}

// A bus started on one end of a socket pair that never talks: enough for
// sd-bus to make, seal and read messages.
sd_bus* bus() {
    static sd_bus* made = [] {
        int fds[2];
        sd_bus* b = nullptr;
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0 || sd_bus_new(&b) < 0 ||
            sd_bus_set_fd(b, fds[0], fds[0]) < 0 || sd_bus_set_anonymous(b, 1) < 0 ||
            sd_bus_start(b) < 0)
            std::abort();
        return b;
    }();
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in{data, size};
    sd_bus_message* m = nullptr;
    if (sd_bus_message_new_signal(bus(), &m, "/org/mpris/MediaPlayer2",
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged") < 0)
        std::abort();
    // Mostly what the readers expect first (the properties, or one variant),
    // then whatever follows.
    const uint8_t shape = in.next();
    std::string type = shape % 3 == 0 ? "a{sv}" : shape % 3 == 1 ? "v" : completeType(in, 0);
    bool built = append(m, type, in, 0, false);
    for (int extra = 0; built && extra < 2 && in.n > 0 && in.next() % 2 == 0; ++extra)
        built = append(m, completeType(in, 0), in, 0, false);
    if (!built || sd_bus_message_seal(m, 1, 0) < 0) {
        sd_bus_message_unref(m);
        return 0;
    }

    PlayerProperties props;
    sd_bus_message_rewind(m, 1);
    readPlayerProperties(m, props);
    if (props.metadata) {
        const TrackMetadata& t = *props.metadata;
        expectText(t.title, maxTrackTextCharacters);
        expectText(t.album, maxTrackTextCharacters);
        expectText(t.artist, maxTrackTextCharacters);
        expectText(t.trackID, maxArtworkURLBytes);
        if (t.artURL.size() > maxArtworkURLBytes) std::abort();
        expectTime(t.length);
        if (auto path = fileURLPath(t.artURL))
            if (path->empty() || (*path)[0] != '/' || path->find('\0') != std::string::npos)
                std::abort();
    }
    expectTime(props.position);
    expectTime(props.rate);

    sd_bus_message_rewind(m, 1);
    expectTime(readPositionVariant(m));
    sd_bus_message_rewind(m, 1);
    if (auto entry = readStringVariant(m, 64)) expectText(*entry, 64);

    sd_bus_message_unref(m);
    return 0;
}
