// A settings file as the program reads it at launch: the bounds, the parse,
// every stored record decoded, and the whole written back as a save would.
// Files that were damaged, or made by someone else, are deep and large more
// often than a fuzzer's inputs are, so an input may ask for part of itself to
// be repeated: a first byte of 0xFF means "the bytes after the second,
// repeated 2^(second byte mod 24) times", up to a little past the size bound.
// Such inputs are slow; the seeds hold them, and mutation reaches them now
// and then, so that most runs stay small and quick.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "settings/atomic_file.h"
#include "settings/output_settings.h"
#include "stage/room_types.h"

namespace {

constexpr uint8_t kRepeatMark = 0xFF;
constexpr size_t kLargestInput = vt::settings::kMaxJsonFileBytes + 64 * 1024;

std::string expand(const uint8_t* data, size_t size) {
    const std::string_view raw(reinterpret_cast<const char*>(data), size);
    if (size < 2 || data[0] != kRepeatMark) return std::string(raw);
    const std::string_view unit = raw.substr(2);
    if (unit.empty()) return {};
    const size_t times = size_t{1} << (data[1] % 24);
    std::string out;
    out.reserve(std::min(kLargestInput, unit.size() * times));
    for (size_t i = 0; i < times && out.size() < kLargestInput; ++i) out += unit;
    // Closed as deep as it was opened, so that nesting alone is what is tested.
    const size_t opened = out.size();
    for (size_t i = 0; i < opened && out.size() < 2 * kLargestInput; ++i) {
        if (out[i] == '[') out += ']';
        if (out[i] == '{') out += '}';
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = expand(data, size);
    vt::settings::JsonObjectParse parsed = vt::settings::parseJsonObject(text);
    if (!parsed.object) {
        if (parsed.whyNot.empty()) std::abort();
        return 0;
    }
    if (text.size() > vt::settings::kMaxJsonFileBytes ||
        vt::settings::jsonNestingDepth(text) > vt::settings::kMaxJsonDepth) {
        std::abort();  // the bounds let through what they should have refused
    }
    for (const auto& [key, value] : parsed.object->items()) {
        if (key.rfind("output", 0) == 0) {
            (void)value.get<vt::settings::OutputSettings>();
            (void)value.get<vt::settings::RememberedOutput>();
        }
        if (key == "room" && value.is_object()) (void)value.get<vt::stage::RoomState>();
    }
    // What a save writes must read back the same.
    const std::string written = parsed.object->dump(2);
    vt::settings::JsonObjectParse again = vt::settings::parseJsonObject(written);
    if (written.size() <= vt::settings::kMaxJsonFileBytes && !again.object) std::abort();
    return 0;
}
